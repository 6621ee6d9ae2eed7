#include "core/StringPathConvertor.h"

#include <filesystem>
#include <system_error>

#include "core/StringConversion.h"

namespace pc_preprocess
{

StringPathConvertor::StringPathConvertor(const std::wstring& path)
{
    std::error_code error;
    if (std::filesystem::exists(toPath(path), error))
        m_convertedInputPath = ws2s(path);
}

std::string StringPathConvertor::convertPath(const std::wstring& path) const
{
    return ws2s(path);
}

std::wstring StringPathConvertor::backwardConvertPath(const std::string& path) const
{
    return s2ws(path);
}

}  // namespace pc_preprocess
