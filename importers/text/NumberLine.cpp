#include "importers/text/NumberLine.h"

#include <charconv>
#include <system_error>

namespace pc_preprocess
{

namespace
{

bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

const char* skipWhiteSpace(const char* p, const char* end)
{
    while (p != end && isLineWhiteSpace(*p))
        ++p;
    return p;
}

// Passes over one separator with the white space around it; nullptr when there is none. A separator that is
// itself white space may stand anywhere in the run of white space.
const char* skipSeparator(const char* p, const char* end, char separator)
{
    const char* q = p;
    bool seen = false;
    for (; q != end && isLineWhiteSpace(*q); ++q)
        seen = seen || *q == separator;
    if (!seen)
    {
        if (q == end || *q != separator)
            return nullptr;
        q = skipWhiteSpace(q + 1, end);
    }
    return q;
}

}  // namespace

const char* parseNumber(const char* begin, const char* end, double& value)
{
    const char* p = begin;
    // from_chars takes no '+', and would take "inf", "nan" and "-+1"-like texts after one we skipped: the
    // first character after the sign must start the digits or the fraction.
    if (p != end && (*p == '+' || *p == '-'))
        ++p;
    if (p == end || !(isDigit(*p) || (*p == '.' && p + 1 != end && isDigit(p[1]))))
        return nullptr;
    const char* digits = *begin == '+' ? p : begin;
    const auto [stop, error] = std::from_chars(digits, end, value, std::chars_format::general);
    if (error != std::errc())
        return nullptr;
    return stop;
}

size_t NumberLine::parse(const char* begin, const char* end, double* values, size_t maxCount) const
{
    const bool whiteSpaceSeparated = separator == kWhiteSpaceSeparated;
    const char* p = whiteSpaceSeparated ? begin : skipWhiteSpace(begin, end);
    size_t count = 0;
    while (count < maxCount)
    {
        if (count > 0)
        {
            if (whiteSpaceSeparated)
            {
                const char* next = skipWhiteSpace(p, end);
                if (next == p)
                    break;
                p = next;
            }
            else if (!(p = skipSeparator(p, end, separator)))
                break;
        }
        const char* next = parseNumber(p, end, values[count]);
        if (next == nullptr)
            break;
        p = next;
        ++count;
    }
    return count;
}

}  // namespace pc_preprocess
