#include "hspc/store/ArchiveFile.h"

#include <cstring>

#include "hspc/format/Utf8Text.h"

namespace HSPC
{

namespace
{

FileHandler::Mode handlerMode(pack::FileMode mode)
{
    switch (mode)
    {
        case pack::FileMode::kUpdate:
            return FileHandler::Mode::kUpdate;
        case pack::FileMode::kCreate:
            return FileHandler::Mode::kReadWriteNew;
        case pack::FileMode::kRead:
            break;
    }
    return FileHandler::Mode::kRead;
}

// Whether [offset, offset + size) lies inside a store of `storeSize` bytes, without wrapping.
bool inside(uint64_t offset, uint64_t size, uint64_t storeSize)
{
    return offset <= storeSize && size <= storeSize - offset;
}

}  // namespace

FileInterface::FileInterface(const std::string& path, pack::FileMode mode)
    : m_file(path, handlerMode(mode)), m_mode(mode), m_valid(m_file.isValid())
{
}

FileInterface::FileInterface(const std::wstring& path, pack::FileMode mode) : FileInterface(toUtf8(path), mode) {}

bool FileInterface::openFile(const std::string& path, pack::FileMode mode)
{
    m_file = FileHandler(path, handlerMode(mode));
    m_mode = mode;
    m_valid = m_file.isValid();
    return m_valid;
}

bool FileInterface::succeeded(bool done)
{
    m_valid = m_valid && done;
    return m_valid;
}

uint64_t FileInterface::Read(void* buffer, uint64_t offset, uint64_t size)
{
    return m_valid && succeeded(m_file.read(offset, size, buffer)) ? size : 0;
}

uint64_t FileInterface::Write(const void* buffer, uint64_t offset, uint64_t size)
{
    return m_valid && succeeded(m_file.write(offset, buffer, size)) ? size : 0;
}

uint64_t FileInterface::GetArchiveSize()
{
    if (!m_valid)
    {
        return 0;
    }
    const std::optional<uint64_t> size = m_file.size();
    succeeded(size.has_value());
    return size.value_or(0);
}

bool FileInterface::Truncate(uint64_t size)
{
    return m_valid && succeeded(m_file.truncate(size));
}

MemoryArchive::MemoryArchive(std::vector<uint8_t> bytes, pack::FileMode mode)
    : m_bytes(mode == pack::FileMode::kCreate ? std::vector<uint8_t>() : std::move(bytes)), m_mode(mode)
{
}

uint64_t MemoryArchive::Read(void* buffer, uint64_t offset, uint64_t size)
{
    if (!inside(offset, size, m_bytes.size()))
    {
        return 0;
    }
    if (size != 0)
    {
        std::memcpy(buffer, m_bytes.data() + offset, size_t(size));
    }
    return size;
}

uint64_t MemoryArchive::Write(const void* buffer, uint64_t offset, uint64_t size)
{
    if (m_mode == pack::FileMode::kRead || offset > m_bytes.max_size() || size > m_bytes.max_size() - offset)
    {
        return 0;
    }
    if (m_bytes.size() < offset + size)
    {
        m_bytes.resize(size_t(offset + size));
    }
    if (size != 0)
    {
        std::memcpy(m_bytes.data() + offset, buffer, size_t(size));
    }
    return size;
}

bool MemoryArchive::Truncate(uint64_t size)
{
    if (m_mode == pack::FileMode::kRead || size > m_bytes.max_size())
    {
        return false;
    }
    m_bytes.resize(size_t(size));
    return true;
}

}  // namespace HSPC
