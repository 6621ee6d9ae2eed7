#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

namespace pc_preprocess
{

// A column format string that cannot be used; the text says why, without any file context.
class ColumnFormatError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

// Which column of a point line holds which value. A format string gives one character per column: "X", "Y",
// "Z", "I", "R", "G", "B" for the value of that name, "." for a column to skip.
struct ColumnLayout
{
    static constexpr uint16_t kAbsent = 65535;

    bool hasIntensity = false;
    // Only all three colour columns make a colour.
    bool hasRgb = false;
    // Numbers a line needs at least; kAbsent while no format is known.
    uint16_t nrColumns = kAbsent;
    uint16_t X = kAbsent;
    uint16_t Y = kAbsent;
    uint16_t Z = kAbsent;
    uint16_t I = kAbsent;
    uint16_t R = kAbsent;
    uint16_t G = kAbsent;
    uint16_t B = kAbsent;

    bool isKnown() const { return nrColumns != kAbsent; }

    // Throws ColumnFormatError for a format that is too long, holds another character or a letter twice, or
    // lacks one of X, Y and Z.
    static ColumnLayout fromFormat(const std::string& format);

    // The format of a line with this many tokens: "XYZ", "XYZI", "XYZRGB" or "XYZIRGB"; empty for any other
    // count.
    static std::string formatForTokenCount(size_t tokens);
};

}  // namespace pc_preprocess
