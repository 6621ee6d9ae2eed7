#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace e57
{

// An E57 file is a sequence of 1024-byte physical pages. Each holds 1020 bytes of the logical file and the
// CRC-32C of those bytes:
//
//   offset  size  content
//   0       1020  logical bytes (page p holds logical offsets 1020 p .. 1020 p + 1019)
//   1020    4     CRC-32C of bytes 0..1019, most significant byte first
//
// Offsets stored in the file (header, XML attributes, section headers) are physical; sections are read by
// logical offsets, which skip the checksums.
inline constexpr uint64_t kPageSize = 1024;
inline constexpr uint64_t kPagePayload = 1020;

constexpr uint64_t logicalToPhysical(uint64_t logical)
{
    return logical / kPagePayload * kPageSize + logical % kPagePayload;
}
// Only for a physical offset outside the checksums (see isChecksumOffset).
constexpr uint64_t physicalToLogical(uint64_t physical)
{
    return physical / kPageSize * kPagePayload + physical % kPageSize;
}
constexpr bool isChecksumOffset(uint64_t physical)
{
    return physical % kPageSize >= kPagePayload;
}
// Writes the checksum of a page's first 1020 bytes into its last four, as a writer of E57 files must.
void sealPage(uint8_t* page);

// The bytes of an E57 file, from disk (open, pread, fstat) or from memory (fuzzing, tests). Holds no read
// position, so readers on several threads may share one. Every failure is an E57Exception.
class PagedFile
{
public:
    // Opens the file; OpenFailed when it cannot be opened or is not a regular file.
    explicit PagedFile(const std::filesystem::path& path);
    // The bytes of a file held in memory; `name` is what messages call it.
    PagedFile(std::string name, std::vector<uint8_t> bytes);
    ~PagedFile();
    PagedFile(const PagedFile&) = delete;
    PagedFile& operator=(const PagedFile&) = delete;

    const std::string& name() const { return m_name; }
    uint64_t physicalSize() const { return m_size; }
    // Whole pages only: a partial page at the end of the file holds no logical bytes.
    uint64_t pageCount() const { return m_size / kPageSize; }
    uint64_t logicalSize() const { return pageCount() * kPagePayload; }

    // Raw bytes without checksum checks (the file header is checked before its page is); ReadFailed when the
    // range is not inside the file.
    void readPhysical(uint64_t offset, void* dest, size_t size) const;
    // BadChecksum when the stored CRC-32C of a page (its 1024 bytes in `page`) does not match its payload.
    void verifyPage(uint64_t pageIndex, const uint8_t* page) const;

private:
    std::string m_name;
    int m_fd = -1;
    std::vector<uint8_t> m_memory;
    uint64_t m_size = 0;
};

// Logical reads through a window of consecutive pages loaded with one read call, each page's checksum checked
// the first time the window's copy of it is used. Sequential readers (the XML section, a compressed vector)
// each own one; it is not shared between threads.
class PageReader
{
public:
    static constexpr size_t kDefaultWindowPages = 64;

    explicit PageReader(const PagedFile& file, size_t windowPages = kDefaultWindowPages);

    const PagedFile& file() const { return *m_file; }
    // Copies `size` logical bytes starting at `logicalOffset`; ReadFailed when they run past the file's last
    // whole page, BadChecksum when a page they touch is corrupt.
    void read(uint64_t logicalOffset, void* dest, size_t size);

private:
    // The page, loaded and checked, in the window.
    const uint8_t* page(uint64_t pageIndex);

    const PagedFile* m_file;
    size_t m_windowPages;
    std::vector<uint8_t> m_window;
    std::vector<bool> m_verified;
    uint64_t m_first = 0;
    size_t m_loaded = 0;
};

}  // namespace e57
