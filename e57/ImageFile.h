#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "e57/Node.h"

namespace e57
{

class PagedFile;

// An E57 file opened for reading: the 48-byte header checked (signature "ASTM-E57", version 1.0, the file's
// length a whole number of 1024-byte pages and equal to the header's), the XML section read through the
// pages' CRC-32C checks and parsed with expat into a tree of nodes. Nothing is sized by a number from the
// file beyond the file's real size. Every failure is an E57Exception.
class ImageFile
{
public:
    explicit ImageFile(const std::filesystem::path& path);
    // A file whose bytes are already at hand (in memory, for fuzzing and tests), with the same checks.
    explicit ImageFile(std::unique_ptr<PagedFile> pages);
    ~ImageFile();
    ImageFile(const ImageFile&) = delete;
    ImageFile& operator=(const ImageFile&) = delete;

    const Node& root() const { return *m_root; }
    // The file's size in bytes.
    uint64_t fileSize() const;
    // The XML section's text, as stored.
    const std::string& xml() const { return m_xml; }

    // The bytes of a blob node, read whole; `maxBytes` caps what the caller accepts (E57Exception
    // BadApiArgument beyond it). A blob that ends past the file's data fails with ReadFailed.
    std::vector<uint8_t> readBlob(const Node& blob, uint64_t maxBytes) const;

    // The paged file beneath, for the readers of compressed vectors. It keeps no read position: an ImageFile
    // may be read by several readers, each on one thread, at once.
    PagedFile& pages() const { return *m_pages; }

private:
    std::unique_ptr<PagedFile> m_pages;
    std::string m_xml;
    std::unique_ptr<Node> m_root;
};

}  // namespace e57
