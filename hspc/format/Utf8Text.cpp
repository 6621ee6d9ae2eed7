#include "hspc/format/Utf8Text.h"

#include <cstdint>

namespace HSPC
{

namespace
{

constexpr char32_t kReplacement = 0xFFFD;

bool isScalarValue(char32_t c)
{
    return c <= 0x10FFFF && (c < 0xD800 || c > 0xDFFF);
}

void appendUtf8(std::string& out, char32_t c)
{
    if (!isScalarValue(c))
    {
        c = kReplacement;
    }
    if (c < 0x80)
    {
        out.push_back(char(c));
    }
    else if (c < 0x800)
    {
        out.push_back(char(0xC0 | (c >> 6)));
        out.push_back(char(0x80 | (c & 0x3F)));
    }
    else if (c < 0x10000)
    {
        out.push_back(char(0xE0 | (c >> 12)));
        out.push_back(char(0x80 | ((c >> 6) & 0x3F)));
        out.push_back(char(0x80 | (c & 0x3F)));
    }
    else
    {
        out.push_back(char(0xF0 | (c >> 18)));
        out.push_back(char(0x80 | ((c >> 12) & 0x3F)));
        out.push_back(char(0x80 | ((c >> 6) & 0x3F)));
        out.push_back(char(0x80 | (c & 0x3F)));
    }
}

}  // namespace

std::string toUtf8(std::wstring_view wide)
{
    static_assert(sizeof(wchar_t) == 4, "wide text is UTF-32 here");
    std::string out;
    out.reserve(wide.size());
    for (const wchar_t c : wide)
    {
        appendUtf8(out, char32_t(c));
    }
    return out;
}

std::wstring fromUtf8(std::string_view utf8)
{
    std::wstring out;
    out.reserve(utf8.size());
    size_t i = 0;
    while (i < utf8.size())
    {
        const auto lead = uint8_t(utf8[i]);
        size_t length = 0;
        char32_t c = 0;
        char32_t smallest = 0;  // the lowest value that needs this length: longer forms are malformed
        if (lead < 0x80)
        {
            length = 1;
            c = lead;
        }
        else if ((lead & 0xE0) == 0xC0)
        {
            length = 2;
            c = lead & 0x1F;
            smallest = 0x80;
        }
        else if ((lead & 0xF0) == 0xE0)
        {
            length = 3;
            c = lead & 0x0F;
            smallest = 0x800;
        }
        else if ((lead & 0xF8) == 0xF0)
        {
            length = 4;
            c = lead & 0x07;
            smallest = 0x10000;
        }
        else
        {
            out.push_back(wchar_t(kReplacement));
            ++i;
            continue;
        }
        size_t taken = 1;
        while (taken < length && i + taken < utf8.size() && (uint8_t(utf8[i + taken]) & 0xC0) == 0x80)
        {
            c = (c << 6) | (uint8_t(utf8[i + taken]) & 0x3F);
            ++taken;
        }
        const bool complete = taken == length && c >= smallest && isScalarValue(c);
        out.push_back(wchar_t(complete ? c : kReplacement));
        i += taken;
    }
    return out;
}

std::u16string toUtf16(std::string_view utf8)
{
    std::u16string out;
    out.reserve(utf8.size());
    for (const wchar_t c : fromUtf8(utf8))
    {
        const auto value = char32_t(c);
        if (value < 0x10000)
        {
            out.push_back(char16_t(value));
        }
        else
        {
            out.push_back(char16_t(0xD800 + ((value - 0x10000) >> 10)));
            out.push_back(char16_t(0xDC00 + ((value - 0x10000) & 0x3FF)));
        }
    }
    return out;
}

std::string fromUtf16(std::u16string_view utf16)
{
    std::wstring wide;
    wide.reserve(utf16.size());
    for (size_t i = 0; i < utf16.size(); ++i)
    {
        const char32_t c = utf16[i];
        const bool high = c >= 0xD800 && c <= 0xDBFF;
        if (high && i + 1 < utf16.size() && utf16[i + 1] >= 0xDC00 && utf16[i + 1] <= 0xDFFF)
        {
            wide.push_back(wchar_t(0x10000 + ((c - 0xD800) << 10) + (utf16[i + 1] - 0xDC00)));
            ++i;
        }
        else
        {
            // toUtf8 turns a lone surrogate into U+FFFD.
            wide.push_back(wchar_t(c));
        }
    }
    return toUtf8(wide);
}

}  // namespace HSPC
