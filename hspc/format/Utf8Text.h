#pragma once

#include <string>
#include <string_view>

namespace HSPC
{

// Wide text (UTF-32 on this platform) and UTF-8, converted explicitly and never through the C locale, which
// would break every non-ASCII file name. What cannot be converted (a surrogate, a value above U+10FFFF, a
// malformed UTF-8 sequence) becomes U+FFFD.
std::string toUtf8(std::wstring_view wide);
std::wstring fromUtf8(std::string_view utf8);

// UTF-16, as names are kept in pack archives: characters above U+FFFF become surrogate pairs, and a surrogate
// without its partner becomes U+FFFD.
std::u16string toUtf16(std::string_view utf8);
std::string fromUtf16(std::u16string_view utf16);

}  // namespace HSPC
