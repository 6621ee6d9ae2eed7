#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "e57/Node.h"
#include "e57/XmlSection.h"

namespace e57
{

class PagedFile;

// An E57 file opened for reading: the 48-byte header checked (signature "ASTM-E57", major version 1 with any
// minor version, the file's length a whole number of 1024-byte pages and equal to the header's), the XML
// section read through the pages' CRC-32C checks and parsed with expat into a tree of nodes, once. Nothing is
// sized by a number from the file beyond the file's real size, and the tree's memory is bounded
// (kMaxXmlTreeBytes). Every failure is an E57Exception.
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
    // The namespace prefixes the file declares, with their URIs: extensions are known by their URI, whatever
    // prefix a writer chose.
    const std::vector<NamespaceBinding>& namespaces() const { return m_namespaces; }

    // The bytes of a blob node, read whole; `maxBytes` caps what the caller accepts (E57Exception
    // BadApiArgument beyond it). A blob that ends past the file's data fails with ReadFailed.
    std::vector<uint8_t> readBlob(const Node& blob, uint64_t maxBytes) const;

    // The paged file beneath, for the readers of compressed vectors. It keeps no read position: an ImageFile
    // may be read by several readers, each on one thread, at once.
    PagedFile& pages() const { return *m_pages; }

private:
    std::unique_ptr<PagedFile> m_pages;
    std::unique_ptr<Node> m_root;
    std::vector<NamespaceBinding> m_namespaces;
};

}  // namespace e57
