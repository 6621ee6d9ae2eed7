#include "importers/pts/ColumnLayout.h"

#include <algorithm>

namespace pc_preprocess
{

namespace
{

ColumnFormatError formatError(const std::string& problem, const std::string& format)
{
    return ColumnFormatError("In format, " + problem + "\n\tSpecified format = " + format);
}

uint16_t* columnOf(ColumnLayout& layout, char letter)
{
    switch (letter)
    {
        case 'X':
            return &layout.X;
        case 'Y':
            return &layout.Y;
        case 'Z':
            return &layout.Z;
        case 'I':
            return &layout.I;
        case 'R':
            return &layout.R;
        case 'G':
            return &layout.G;
        case 'B':
            return &layout.B;
        default:
            return nullptr;
    }
}

}  // namespace

ColumnLayout ColumnLayout::fromFormat(const std::string& format)
{
    // Column indices are 16-bit with the top value as the mark of absence.
    if (format.size() >= kAbsent)
        throw formatError("too many characters are present.", format);

    ColumnLayout layout;
    for (size_t index = 0; index < format.size(); ++index)
    {
        const char letter = format[index];
        if (letter == '.')
            continue;
        uint16_t* column = columnOf(layout, letter);
        if (column == nullptr)
            throw formatError("only the characters 'X', 'Y', 'Z', 'R', 'G', 'B', 'I' and '.' are allowed.",
                              format);
        if (*column != kAbsent)
            throw formatError(std::string(1, letter) + " can only be specified once.", format);
        *column = static_cast<uint16_t>(index);
    }
    if (layout.X == kAbsent || layout.Y == kAbsent || layout.Z == kAbsent)
        throw formatError("X, Y and Z should be specified.", format);

    layout.hasIntensity = layout.I != kAbsent;
    layout.hasRgb = layout.R != kAbsent && layout.G != kAbsent && layout.B != kAbsent;
    // A lone colour column is read by no one, so it demands nothing of a line; trailing dots neither.
    uint16_t last = std::max({layout.X, layout.Y, layout.Z});
    if (layout.hasIntensity)
        last = std::max(last, layout.I);
    if (layout.hasRgb)
        last = std::max({last, layout.R, layout.G, layout.B});
    layout.nrColumns = static_cast<uint16_t>(last + 1);
    return layout;
}

std::string ColumnLayout::formatForTokenCount(size_t tokens)
{
    switch (tokens)
    {
        case 3:
            return "XYZ";
        case 4:
            return "XYZI";
        case 6:
            return "XYZRGB";
        case 7:
            return "XYZIRGB";
        default:
            return {};
    }
}

}  // namespace pc_preprocess
