#include "hspc/convert/RecordSource.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <utility>

#include "hspc/format/FileHandler.h"

namespace HSPC
{
namespace
{

class MemorySource : public RecordSource
{
public:
    explicit MemorySource(std::shared_ptr<const std::vector<uint8_t>> bytes) : m_bytes(std::move(bytes)) {}

    uint64_t byteCount() const override { return m_bytes ? m_bytes->size() : 0; }

    bool read(uint64_t offset, uint64_t size, uint8_t* buffer, const LogFunction& errorLogger) override
    {
        if (offset > byteCount() || size > byteCount() - offset)
        {
            errorLogger("RecordSource: read of " + std::to_string(size) + " bytes at offset " +
                        std::to_string(offset) + " is past the end of " + std::to_string(byteCount()) +
                        " bytes in memory.");
            return false;
        }
        std::memcpy(buffer, m_bytes->data() + offset, size);
        return true;
    }

private:
    std::shared_ptr<const std::vector<uint8_t>> m_bytes;
};

class FileSource : public RecordSource
{
public:
    FileSource(FileHandler file, uint64_t size) : m_file(std::move(file)), m_size(size) {}

    uint64_t byteCount() const override { return m_size; }

    bool read(uint64_t offset, uint64_t size, uint8_t* buffer, const LogFunction& errorLogger) override
    {
        // One call moves at most kMaxRequestBytes; larger batches are read in pieces.
        while (size > 0)
        {
            const uint64_t piece = std::min(size, FileHandler::kMaxRequestBytes);
            if (!m_file.read(offset, piece, buffer))
            {
                errorLogger("RecordSource: " + m_file.lastErrorDetail());
                return false;
            }
            offset += piece;
            buffer += piece;
            size -= piece;
        }
        return true;
    }

private:
    FileHandler m_file;
    uint64_t m_size;
};

}  // namespace

RecordSource::~RecordSource() = default;

std::shared_ptr<RecordSource> makeMemorySource(std::shared_ptr<const std::vector<uint8_t>> bytes)
{
    return std::make_shared<MemorySource>(std::move(bytes));
}

std::shared_ptr<RecordSource> openFileSource(const std::string& path, const LogFunction& errorLogger)
{
    FileHandler file(path, FileHandler::Mode::kRead);
    const std::optional<uint64_t> size = file.isValid() ? file.size() : std::nullopt;
    if (!size)
    {
        errorLogger("RecordSource: " + file.lastErrorDetail());
        return nullptr;
    }
    return std::make_shared<FileSource>(std::move(file), *size);
}

}  // namespace HSPC
