#include "cachefiles/NodeFileErrors.h"

#include "core/StringConversion.h"

namespace pc_preprocess
{

std::string extensionOf(const std::wstring& path)
{
    return toPath(path).extension().string();
}

void requireExtension(const std::wstring& path, const char* wanted, const std::string& lead)
{
    const std::string extension = extensionOf(path);
    if (extension != wanted)
        throw std::runtime_error(lead + extension);
}

std::string writeFailureMessage(const std::string& who, const std::wstring& path)
{
    return who + "Could not (fully) write " + ws2s(path) + "\nDisk full?";
}

std::runtime_error openFailure(const std::string& prefix, const std::wstring& path)
{
    return std::runtime_error(prefix + ": Could not open file" + ws2s(path) + ".");
}

}  // namespace pc_preprocess
