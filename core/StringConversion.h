#pragma once

#include <filesystem>
#include <string>

#include "core/Export.h"

namespace pc_preprocess
{

// Wide strings hold one code point per wchar_t; narrow strings hold UTF-8. Invalid input never throws: a
// broken UTF-8 sequence becomes U+FFFD, and so does a wide value that is no code point.
PCP_API std::wstring s2ws(const std::string& utf8);
PCP_API std::string ws2s(const std::wstring& wide);

// File system paths are built from the UTF-8 form, never through the C locale, so that any name survives.
PCP_API std::filesystem::path toPath(const std::wstring& wide);
PCP_API std::wstring toWide(const std::filesystem::path& path);

}  // namespace pc_preprocess
