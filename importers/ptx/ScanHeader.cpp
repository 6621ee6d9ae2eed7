#include "importers/ptx/ScanHeader.h"

#include <charconv>
#include <cmath>
#include <system_error>

#include "importers/text/NumberLine.h"

namespace pc_preprocess::ptx
{

namespace
{

// The last value of a rotation or translation line is a constant of the 4 x 4 matrix; writers print it with
// some noise now and then.
constexpr double kMatrixConstantTolerance = 1e-8;

const char* skipWhiteSpace(const char* p, const char* end)
{
    while (p != end && isLineWhiteSpace(*p))
        ++p;
    return p;
}

// A decimal count alone on its line: no sign, no fraction, nothing but white space around it.
bool parseCount(const char* begin, const char* end, uint64_t& value)
{
    const char* digits = skipWhiteSpace(begin, end);
    const auto [stop, error] = std::from_chars(digits, end, value);
    return error == std::errc() && skipWhiteSpace(stop, end) == end;
}

bool parseNumbers(const char* begin, const char* end, double* values, size_t count)
{
    return NumberLine{}.parse(skipWhiteSpace(begin, end), end, values, count) == count;
}

// Three values, and a fourth that must be `constant`.
bool parseMatrixLine(const char* begin, const char* end, double* three, double constant)
{
    double values[4];
    if (!parseNumbers(begin, end, values, 4) || !(std::abs(values[3] - constant) <= kMatrixConstantTolerance))
        return false;
    for (int i = 0; i < 3; ++i)
        three[i] = values[i];
    return true;
}

}  // namespace

std::string_view headerLineExpectation(size_t index)
{
    switch (index)
    {
        case 0:
            return R"(Expected "integer" (number of columns).)";
        case 1:
            return R"(Expected "integer" (number of rows).)";
        case 2:
        case 3:
        case 4:
        case 5:
            return R"(Expected "double double double" (scanner registered position/axes).)";
        case 6:
        case 7:
        case 8:
            return R"(Expected "double double double 0.0" (rotation matrix).)";
        default:
            return R"(Expected "double double double 1.0" (translation))";
    }
}

bool parseHeaderLine(size_t index, const char* begin, const char* end, ScanHeader& header)
{
    switch (index)
    {
        case 0:
            return parseCount(begin, end, header.columns);
        case 1:
            // The count only ever bounds a loop over the file's lines, but it must be the true product.
            return parseCount(begin, end, header.rows) &&
                   !__builtin_mul_overflow(header.columns, header.rows, &header.gridPoints);
        case 2:
        case 3:
        case 4:
        case 5:
        {
            double ignored[3];
            return parseNumbers(begin, end, ignored, 3);
        }
        case 6:
        case 7:
        case 8:
            return parseMatrixLine(begin, end, &header.rotation[3 * (index - 6)], 0.0);
        case 9:
            return parseMatrixLine(begin, end, header.translation.data(), 1.0);
        default:
            return false;
    }
}

}  // namespace pc_preprocess::ptx
