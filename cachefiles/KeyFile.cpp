#include "cachefiles/KeyFile.h"

#include <charconv>
#include <filesystem>
#include <span>
#include <stdexcept>
#include <system_error>
#include <vector>

#include "cachefiles/CacheFolder.h"
#include "cachefiles/FileDescriptor.h"
#include "core/StringConversion.h"

namespace pc_preprocess
{

namespace
{

// A name of a cache is a line of text; anything this long is not a key file, and reading stops before it.
constexpr uint64_t kMaxKeyFileSize = 64 * 1024;

[[noreturn]] void throwNotAKeyFile(const std::wstring& keyFile, const std::string& reason)
{
    throw std::runtime_error("readKeyFile : " + ws2s(keyFile) + " is not a key file: " + reason);
}

}  // namespace

bool writeKeyFile(const std::wstring& keyFile, const std::wstring& name, uint64_t size)
{
    const std::string text = ws2s(name) + "\n" + std::to_string(size);
    FileDescriptor file;
    try
    {
        file = FileDescriptor::createTruncated(toPath(keyFile));
    }
    catch (const FileError&)
    {
        throw std::runtime_error("writeKeyFile : Could not open ofstream to " + ws2s(keyFile));
    }
    try
    {
        file.writeAllAt(0, std::span(reinterpret_cast<const uint8_t*>(text.data()), text.size()));
        file.close();
    }
    catch (const FileError&)
    {
        throw std::runtime_error("writeKeyFile : Could not (fully) write " + ws2s(keyFile) + "\nDisk full?");
    }
    return true;
}

bool initEmptyKeyFile(const std::wstring& keyFile, const std::wstring& name)
{
    return writeKeyFile(keyFile, name, 0);
}

bool finishKeyFile(const std::wstring& keyFile, const std::wstring& name)
{
    std::filesystem::path folder = toPath(keyFile).parent_path();
    if (folder.empty())
        folder = ".";
    const pointcloud_def::PcCacheEntry entry = checkSubFolderItem(toWide(folder));
    if (!entry.valid)
        return false;
    // Removed first, so that a reader never sees the old size beside a half-written new one.
    std::error_code ignored;
    std::filesystem::remove(toPath(keyFile), ignored);
    return writeKeyFile(keyFile, name, entry.size);
}

KeyFileContent readKeyFile(const std::wstring& keyFile)
{
    std::vector<uint8_t> bytes;
    try
    {
        const FileDescriptor file = FileDescriptor::openForReading(toPath(keyFile));
        const uint64_t size = file.size();
        if (size > kMaxKeyFileSize)
            throwNotAKeyFile(keyFile, std::to_string(size) + " bytes");
        bytes.resize(size);
        file.readExactly(0, bytes);
    }
    catch (const FileError& e)
    {
        throw std::runtime_error("readKeyFile : Could not read " + ws2s(keyFile) + " (" + e.what() + ")");
    }
    const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    const size_t lineEnd = text.find('\n');
    if (lineEnd == std::string_view::npos)
        throwNotAKeyFile(keyFile, "no line end after the name");
    std::string_view name = text.substr(0, lineEnd);
    std::string_view sizeText = text.substr(lineEnd + 1);
    // Tolerates line ends that an editor may have added or turned into CR LF.
    if (!name.empty() && name.back() == '\r')
        name.remove_suffix(1);
    while (!sizeText.empty() && (sizeText.back() == '\n' || sizeText.back() == '\r'))
        sizeText.remove_suffix(1);

    KeyFileContent content;
    const auto [end, error] =
        std::from_chars(sizeText.data(), sizeText.data() + sizeText.size(), content.size);
    if (sizeText.empty() || error != std::errc() || end != sizeText.data() + sizeText.size())
        throwNotAKeyFile(keyFile, "the second line is no size in bytes");
    content.name = s2ws(std::string(name));
    return content;
}

}  // namespace pc_preprocess
