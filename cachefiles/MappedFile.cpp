#include "cachefiles/MappedFile.h"

#include <sys/mman.h>

#include <cerrno>
#include <limits>
#include <utility>

#include "cachefiles/FileDescriptor.h"

namespace pc_preprocess
{

MappedFile::~MappedFile()
{
    release();
}

MappedFile::MappedFile(MappedFile&& other) noexcept
    : m_data(std::exchange(other.m_data, nullptr)), m_size(std::exchange(other.m_size, 0))
{
}

MappedFile& MappedFile::operator=(MappedFile&& other) noexcept
{
    if (this != &other)
    {
        release();
        m_data = std::exchange(other.m_data, nullptr);
        m_size = std::exchange(other.m_size, 0);
    }
    return *this;
}

void MappedFile::release() noexcept
{
    if (m_data != nullptr)
        ::munmap(const_cast<uint8_t*>(m_data), m_size);
    m_data = nullptr;
    m_size = 0;
}

MappedFile MappedFile::openReadOnly(const std::filesystem::path& path)
{
    const FileDescriptor file = FileDescriptor::openForReading(path);
    const uint64_t size = file.size();
    MappedFile mapped;
    if (size == 0)
        return mapped;
    if (size > std::numeric_limits<size_t>::max())
        throw FileError("mmap", path, EFBIG);
    // Node files are read whole and at once: populating the page tables up front saves a fault per page.
    void* data = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_POPULATE, file.get(), 0);
    if (data == MAP_FAILED)
        throw FileError("mmap", path, errno);
    mapped.m_data = static_cast<const uint8_t*>(data);
    mapped.m_size = size;
    // The mapping outlives the descriptor, which closes here: nothing was written, so nothing can be lost.
    return mapped;
}

}  // namespace pc_preprocess
