#include "core/StringConversion.h"

#include <cstdint>

namespace pc_preprocess
{

namespace
{

constexpr char32_t kReplacement = 0xFFFD;

bool isContinuation(unsigned char c)
{
    return (c & 0xC0) == 0x80;
}

// Decodes one code point at text[i], advancing i; rejects overlong forms, surrogates and values above
// U+10FFFF.
char32_t decodeOne(const std::string& text, size_t& i)
{
    const auto lead = static_cast<unsigned char>(text[i++]);
    if (lead < 0x80)
        return lead;
    int extra;
    char32_t cp;
    char32_t minimum;
    if ((lead & 0xE0) == 0xC0)
    {
        extra = 1;
        cp = lead & 0x1F;
        minimum = 0x80;
    }
    else if ((lead & 0xF0) == 0xE0)
    {
        extra = 2;
        cp = lead & 0x0F;
        minimum = 0x800;
    }
    else if ((lead & 0xF8) == 0xF0)
    {
        extra = 3;
        cp = lead & 0x07;
        minimum = 0x10000;
    }
    else
        return kReplacement;
    for (int k = 0; k < extra; ++k)
    {
        if (i >= text.size() || !isContinuation(static_cast<unsigned char>(text[i])))
            return kReplacement;
        cp = (cp << 6) | (static_cast<unsigned char>(text[i++]) & 0x3F);
    }
    if (cp < minimum || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))
        return kReplacement;
    return cp;
}

void appendUtf8(std::string& out, char32_t cp)
{
    if (cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))
        cp = kReplacement;
    if (cp < 0x80)
        out += char(cp);
    else if (cp < 0x800)
    {
        out += char(0xC0 | (cp >> 6));
        out += char(0x80 | (cp & 0x3F));
    }
    else if (cp < 0x10000)
    {
        out += char(0xE0 | (cp >> 12));
        out += char(0x80 | ((cp >> 6) & 0x3F));
        out += char(0x80 | (cp & 0x3F));
    }
    else
    {
        out += char(0xF0 | (cp >> 18));
        out += char(0x80 | ((cp >> 12) & 0x3F));
        out += char(0x80 | ((cp >> 6) & 0x3F));
        out += char(0x80 | (cp & 0x3F));
    }
}

}  // namespace

std::wstring s2ws(const std::string& utf8)
{
    std::wstring out;
    out.reserve(utf8.size());
    for (size_t i = 0; i < utf8.size();)
        out += static_cast<wchar_t>(decodeOne(utf8, i));
    return out;
}

std::string ws2s(const std::wstring& wide)
{
    std::string out;
    out.reserve(wide.size());
    for (wchar_t c : wide)
        appendUtf8(out, static_cast<char32_t>(static_cast<uint32_t>(c)));
    return out;
}

std::filesystem::path toPath(const std::wstring& wide)
{
    return std::filesystem::path(ws2s(wide));
}

std::wstring toWide(const std::filesystem::path& path)
{
    return s2ws(path.string());
}

}  // namespace pc_preprocess
