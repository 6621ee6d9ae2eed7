#include "core/CacheCleaner.h"

#include <chrono>
#include <filesystem>
#include <thread>

#include "core/Convertor.h"
#include "core/StringConversion.h"
#include "services/Logger.h"

namespace pc_preprocess
{

namespace
{

// Files just closed by other handles can keep a folder busy for a moment on some file systems.
void removeFolderTree(const std::filesystem::path& folder)
{
    constexpr int kAttempts = 10;
    for (int attempt = 1;; ++attempt)
    {
        std::error_code error;
        std::filesystem::remove_all(folder, error);
        if (!error || attempt == kAttempts)
        {
            if (error)
                throw std::filesystem::filesystem_error("remove_all", folder, error);
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}

}  // namespace

void cleanCacheFolder(const std::shared_ptr<Logger>& logger, const std::wstring& cacheFolder)
{
    const std::filesystem::path folder = toPath(cacheFolder);
    const std::filesystem::space_info space = std::filesystem::space(folder);

    // Links go as links, never followed: a "cancel" link that points nowhere, or round in a loop, is no reason
    // to leave more than the log behind, and whatever a link points to is not the run's to remove.
    for (const std::filesystem::directory_entry& entry : std::filesystem::directory_iterator(folder))
    {
        const std::filesystem::file_status status = entry.symlink_status();
        if ((std::filesystem::is_regular_file(status) || std::filesystem::is_symlink(status)) &&
            entry.path().extension() != ".log")
            std::filesystem::remove(entry.path());
    }
    removeFolderTree(toPath(Convertor::getPointFolder(cacheFolder)));
    removeFolderTree(toPath(Convertor::getBubblesFolder(cacheFolder)));

    logger->outputErrors("Disk capacity  = " + std::to_string(space.capacity) +
                         "\nDisk free      = " + std::to_string(space.free) +
                         "\nDisk available = " + std::to_string(space.available));
}

}  // namespace pc_preprocess
