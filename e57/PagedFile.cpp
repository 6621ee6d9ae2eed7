#include "e57/PagedFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "e57/Crc32c.h"
#include "e57/E57Exception.h"

namespace e57
{

namespace
{

std::string hex(uint32_t value)
{
    char text[16];
    std::snprintf(text, sizeof text, "0x%08x", value);
    return text;
}

uint32_t storedChecksum(const uint8_t* page)
{
    return (uint32_t{page[kPagePayload]} << 24) | (uint32_t{page[kPagePayload + 1]} << 16) |
           (uint32_t{page[kPagePayload + 2]} << 8) | uint32_t{page[kPagePayload + 3]};
}

}  // namespace

void sealPage(uint8_t* page)
{
    const uint32_t crc = crc32c(page, kPagePayload);
    for (int i = 0; i < 4; ++i)
        page[kPagePayload + i] = static_cast<uint8_t>(crc >> (24 - 8 * i));
}

PagedFile::PagedFile(const std::filesystem::path& path) : m_name(path.string())
{
    m_fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (m_fd < 0)
        E57_THROW(ErrorCode::OpenFailed, "cannot open " + m_name + ": " + std::strerror(errno));
    struct stat status = {};
    const bool known = ::fstat(m_fd, &status) == 0;
    if (!known || !S_ISREG(status.st_mode))
    {
        const std::string reason = known ? "not a regular file" : std::strerror(errno);
        ::close(m_fd);
        E57_THROW(ErrorCode::OpenFailed, "cannot open " + m_name + ": " + reason);
    }
    m_size = static_cast<uint64_t>(status.st_size);
}

PagedFile::PagedFile(std::string name, std::vector<uint8_t> bytes)
    : m_name(std::move(name)), m_memory(std::move(bytes)), m_size(m_memory.size())
{
}

PagedFile::~PagedFile()
{
    if (m_fd >= 0)
        ::close(m_fd);
}

void PagedFile::readPhysical(uint64_t offset, void* dest, size_t size) const
{
    if (offset > m_size || size > m_size - offset)
        E57_THROW(ErrorCode::ReadFailed, "bytes " + std::to_string(offset) + " to " +
                                             std::to_string(offset + size) + " of " + m_name +
                                             " lie past its end at " + std::to_string(m_size));
    if (m_fd < 0)
    {
        if (size > 0)
            std::memcpy(dest, m_memory.data() + offset, size);
        return;
    }
    auto* out = static_cast<uint8_t*>(dest);
    while (size > 0)
    {
        // One request stays below 1 GiB, well under the kernel's limit for a single read.
        const size_t request = std::min<size_t>(size, size_t{1} << 30);
        const ssize_t got = ::pread(m_fd, out, request, static_cast<off_t>(offset));
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            E57_THROW(ErrorCode::ReadFailed, "cannot read " + std::to_string(request) + " bytes at " +
                                                 std::to_string(offset) + " of " + m_name + ": " +
                                                 (got < 0 ? std::strerror(errno) : "the file got shorter"));
        out += got;
        offset += static_cast<uint64_t>(got);
        size -= static_cast<size_t>(got);
    }
}

void PagedFile::verifyPage(uint64_t pageIndex, const uint8_t* page) const
{
    const uint32_t stored = storedChecksum(page);
    const uint32_t computed = crc32c(page, kPagePayload);
    if (stored != computed)
        E57_THROW(ErrorCode::BadChecksum, "page " + std::to_string(pageIndex) + " of " + m_name +
                                              ": checksum " + hex(stored) + " stored, " + hex(computed) +
                                              " computed");
}

PageReader::PageReader(const PagedFile& file, size_t windowPages)
    : m_file(&file), m_windowPages(std::max<size_t>(windowPages, 1))
{
}

const uint8_t* PageReader::page(uint64_t pageIndex)
{
    if (pageIndex < m_first || pageIndex - m_first >= m_loaded)
    {
        // Not more than the file has: the window is sized by the real file, never by a number read from it.
        const uint64_t available = m_file->pageCount() - pageIndex;
        const size_t count = static_cast<size_t>(std::min<uint64_t>(available, m_windowPages));
        m_window.resize(count * kPageSize);
        m_loaded = 0;
        m_file->readPhysical(pageIndex * kPageSize, m_window.data(), m_window.size());
        m_first = pageIndex;
        m_loaded = count;
        m_verified.assign(count, false);
    }
    const size_t slot = static_cast<size_t>(pageIndex - m_first);
    const uint8_t* bytes = m_window.data() + slot * kPageSize;
    if (!m_verified[slot])
    {
        m_file->verifyPage(pageIndex, bytes);
        m_verified[slot] = true;
    }
    return bytes;
}

void PageReader::read(uint64_t logicalOffset, void* dest, size_t size)
{
    const uint64_t end = m_file->logicalSize();
    if (logicalOffset > end || size > end - logicalOffset)
        E57_THROW(ErrorCode::ReadFailed, "logical bytes " + std::to_string(logicalOffset) + " to " +
                                             std::to_string(logicalOffset + size) + " of " + m_file->name() +
                                             " lie past the end of its " +
                                             std::to_string(m_file->pageCount()) + " pages");
    auto* out = static_cast<uint8_t*>(dest);
    while (size > 0)
    {
        const uint64_t pageIndex = logicalOffset / kPagePayload;
        const size_t within = static_cast<size_t>(logicalOffset % kPagePayload);
        const size_t take = std::min<size_t>(size, kPagePayload - within);
        std::memcpy(out, page(pageIndex) + within, take);
        out += take;
        logicalOffset += take;
        size -= take;
    }
}

}  // namespace e57
