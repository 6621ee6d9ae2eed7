#include "cachefiles/CacheFolder.h"

#include <algorithm>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <vector>

#include "cachefiles/KeyFile.h"
#include "core/StringConversion.h"

namespace pc_preprocess
{

namespace fs = std::filesystem;

namespace
{

std::string lowerCaseExtension(const fs::path& path)
{
    std::string extension = path.extension().string();
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? char(c - 'A' + 'a') : c; });
    return extension;
}

// The regular files directly in folder, in name order so that a folder with two trees gives the same answer
// every time.
std::vector<fs::path> filesIn(const fs::path& folder)
{
    std::vector<fs::path> files;
    std::error_code error;
    for (fs::directory_iterator it(folder, error), end; !error && it != end; it.increment(error))
    {
        std::error_code statusError;
        if (it->symlink_status(statusError).type() == fs::file_type::regular)
            files.push_back(it->path());
    }
    std::sort(files.begin(), files.end());
    return files;
}

}  // namespace

bool getFoldersize(const std::wstring& folder, uint64_t& size)
{
    std::error_code error;
    fs::recursive_directory_iterator it(toPath(folder), fs::directory_options::skip_permission_denied, error);
    for (const fs::recursive_directory_iterator end; !error && it != end; it.increment(error))
    {
        std::error_code fileError;
        if (it->symlink_status(fileError).type() != fs::file_type::regular)
            continue;
        const uintmax_t fileSize = it->file_size(fileError);
        if (!fileError)
            size += fileSize;
    }
    return !error;
}

pointcloud_def::PcCacheEntry checkSubFolderItem(const std::wstring& folder)
{
    pointcloud_def::PcCacheEntry entry;
    entry.folder = folder;
    std::error_code error;
    if (!fs::is_directory(toPath(folder), error))
        return entry;

    std::wstring octreeFile;
    std::wstring hspcFile;
    for (const fs::path& file : filesIn(toPath(folder)))
    {
        const std::string extension = lowerCaseExtension(file);
        std::wstring* slot = nullptr;
        if (extension == ".vrm")
            slot = &octreeFile;
        else if (extension == ".hspc" || extension == ".pack")
            slot = &hspcFile;
        else if (extension == ".vrp")
            slot = &entry.vrpFile;
        else if (extension == ".key")
            slot = &entry.keyFile;
        else if (extension != ".log" && extension != ".ndx")
            continue;
        entry.hasMembers = true;
        if (slot != nullptr && slot->empty())
            *slot = toWide(file);
    }

    // Both kinds in one folder only come from two runs of different kinds into it; the HSPC data set is taken
    // then, whatever order the files are listed in.
    if (!hspcFile.empty())
    {
        entry.kind = pointcloud_def::PcCacheKind::kHspc;
        entry.treeFile = hspcFile;
    }
    else if (!octreeFile.empty())
    {
        entry.kind = pointcloud_def::PcCacheKind::kOctree;
        entry.treeFile = octreeFile;
    }
    entry.valid = !entry.treeFile.empty();
    getFoldersize(folder, entry.size);

    if (!entry.keyFile.empty())
    {
        try
        {
            const KeyFileContent key = readKeyFile(entry.keyFile);
            entry.keyName = key.name;
            entry.complete = key.complete();
        }
        catch (const std::runtime_error&)
        {
            // A key file that cannot be read leaves the entry without a name; the cache itself may be fine.
        }
    }
    return entry;
}

}  // namespace pc_preprocess
