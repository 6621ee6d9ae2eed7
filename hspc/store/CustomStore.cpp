#include "hspc/store/CustomStore.h"

#include <cstring>
#include <vector>

namespace HSPC
{

CustomWriter::CustomWriter(BlobWriteFn write, BlobRemoveFn remove, LogFunction errorLogger)
    : m_write(std::move(write)), m_remove(std::move(remove)), m_errorLogger(std::move(errorLogger))
{
}

bool CustomWriter::write(const std::string& name, std::span<const uint8_t> bytes)
{
    if (!m_write)
    {
        return false;
    }
    // The host's callback takes a vector: the one copy that this form of output costs.
    const std::vector<uint8_t> blob(bytes.begin(), bytes.end());
    try
    {
        return m_write(normalizedBlobName(name), blob);
    }
    catch (...)
    {
        return false;
    }
}

bool CustomWriter::remove(const std::string& name)
{
    if (!m_remove)
    {
        if (m_errorLogger)
        {
            m_errorLogger("Error: this function is not implemented as it is only in use in the query framework.");
        }
        return false;
    }
    try
    {
        return m_remove(normalizedBlobName(name));
    }
    catch (...)
    {
        return false;
    }
}

CustomArchiveWriter::CustomArchiveWriter(BlobWriteFn write, LogFunction errorLogger)
    : CustomWriter(std::move(write), {}, std::move(errorLogger))
{
}

CustomReader::CustomReader(BlobReadFn read) : m_read(std::move(read)) {}

bool CustomReader::read(const std::string& name, const BlobAllocator& allocate)
{
    if (!m_read)
    {
        return false;
    }
    std::vector<uint8_t> blob;
    try
    {
        if (!m_read(normalizedBlobName(name), blob) || blob.empty())
        {
            return false;
        }
    }
    catch (...)
    {
        return false;
    }
    uint8_t* room = allocate(blob.size());
    if (room == nullptr)
    {
        return false;
    }
    std::memcpy(room, blob.data(), blob.size());
    return true;
}

}  // namespace HSPC
