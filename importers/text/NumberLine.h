#pragma once

#include <cstddef>

namespace pc_preprocess
{

// The grammars of a line of numbers in a text point file, parsed in place without copying or allocating.
//
// Numbers are decimal: an optional sign ('+' or '-'), digits with an optional fraction (or a fraction alone,
// ".5"), an optional exponent. Hexadecimal, "inf" and "nan" are no numbers, and neither is a value beyond the
// range of a double: a position, colour or intensity can be none of them.
//
// White space is blank, tab, line feed, vertical tab, form feed and carriage return, so a carriage return
// left before the line feed of a Windows file ends the last number like any other blank.
struct NumberLine
{
    // Numbers separated by runs of white space; nothing may precede the first number.
    static constexpr char kWhiteSpaceSeparated = '\0';

    // kWhiteSpaceSeparated, or the one character between two numbers, which may have white space on either
    // side; then white space before the first number is passed over too.
    char separator = kWhiteSpaceSeparated;

    // Reads up to maxCount numbers from [begin, end) into values and returns how many were read. Reading
    // stops quietly at the first thing that is neither a number nor a separator: what came before counts.
    size_t parse(const char* begin, const char* end, double* values, size_t maxCount) const;
};

// The number at the start of [begin, end): where it ends, or nullptr when there is none.
const char* parseNumber(const char* begin, const char* end, double& value);

inline bool isLineWhiteSpace(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

}  // namespace pc_preprocess
