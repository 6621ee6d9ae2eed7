#include "hspc/store/FolderStore.h"

#include <filesystem>
#include <system_error>

#include "hspc/format/FileHandler.h"

namespace HSPC
{

namespace
{

void report(const LogFunction& logger, const std::string& message)
{
    if (logger)
    {
        logger(message);
    }
}

}  // namespace

FolderWriter::FolderWriter(std::string folder, LogFunction errorLogger)
    : m_folder(std::move(folder)), m_errorLogger(std::move(errorLogger))
{
}

bool FolderWriter::createFoldersFor(const std::string& path)
{
    const std::filesystem::path parent = std::filesystem::path(path).parent_path();
    std::lock_guard lock(m_folderCreation);
    std::error_code error;
    if (std::filesystem::is_directory(parent, error))
    {
        return true;
    }
    std::filesystem::create_directories(parent, error);
    if (error)
    {
        report(m_errorLogger, "Failed to create directory for " + path + "!\n");
        return false;
    }
    return true;
}

bool FolderWriter::write(const std::string& name, std::span<const uint8_t> bytes)
{
    const std::string path = m_folder + normalizedBlobName(name);
    if (!createFoldersFor(path))
    {
        return false;
    }
    FileHandler file(path, FileHandler::Mode::kWrite);
    if (!file.isValid() || !file.write(0, bytes.data(), bytes.size()))
    {
        report(m_errorLogger, file.lastErrorDetail());
        return false;
    }
    return true;
}

bool FolderWriter::remove(const std::string& name)
{
    std::error_code error;
    return std::filesystem::remove(m_folder + normalizedBlobName(name), error);
}

FolderReader::FolderReader(std::string folder, LogFunction errorLogger)
    : m_folder(std::move(folder)), m_errorLogger(std::move(errorLogger))
{
}

bool FolderReader::read(const std::string& name, const BlobAllocator& allocate)
{
    // A missing blob is an ordinary answer (optional files, nodes not yet written), so it is not reported.
    FileHandler file(m_folder + normalizedBlobName(name), FileHandler::Mode::kRead);
    if (!file.isValid())
    {
        return false;
    }
    const std::optional<uint64_t> size = file.size();
    if (!size || *size == 0)
    {
        return false;
    }
    uint8_t* room = allocate(*size);
    if (room == nullptr)
    {
        report(m_errorLogger, "FolderReader: no room for the " + std::to_string(*size) + " bytes of " + file.path());
        return false;
    }
    if (!file.read(0, *size, room))
    {
        report(m_errorLogger, file.lastErrorDetail());
        return false;
    }
    return true;
}

}  // namespace HSPC
