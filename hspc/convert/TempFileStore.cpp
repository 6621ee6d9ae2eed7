#include "hspc/convert/TempFileStore.h"

#include <algorithm>
#include <filesystem>
#include <system_error>

#include "hspc/format/FileHandler.h"

namespace HSPC
{

TempFileStore::~TempFileStore() = default;

TempFileStore::WriteResult TempFileStore::write(const std::string& path, const uint8_t* data, uint64_t size)
{
    bool written = true;
    {
        FileHandler file(path, FileHandler::Mode::kWrite);
        if (!file.isValid())
        {
            return WriteResult::kOpenFailed;
        }
        // One request moves at most kMaxRequestBytes; a larger run goes in pieces.
        for (uint64_t offset = 0; written && offset < size;)
        {
            const uint64_t piece = std::min(size - offset, FileHandler::kMaxRequestBytes);
            written = file.write(offset, data + offset, piece);
            offset += piece;
        }
    }
    if (!written)
    {
        remove(path);
        return WriteResult::kWriteFailed;
    }
    return WriteResult::kWritten;
}

bool TempFileStore::remove(const std::string& path)
{
    // Paths are bytes on this platform: UTF-8 text names the file as it is.
    std::error_code error;
    std::filesystem::remove(std::filesystem::path(path), error);
    return !error;
}

}  // namespace HSPC
