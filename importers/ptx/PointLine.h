#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace pc_preprocess::ptx
{

// The numbers of one point line of a PTX scan: "x y z I" or "x y z I r g b", the position in the scanner's
// own frame, I the strength of the return in [0, 1], r g b the colour on the 8-bit scale (16-bit in files
// read in that mode). Every cell of the grid has its line; a cell without a return has x, y and z all 0.
struct PointValues
{
    double x = 0.0;
    double y = 0.0;
    double z = 0.0;
    double intensity = 0.0;
    double rgb[3] = {0.0, 0.0, 0.0};

    bool isMissing() const { return x == 0.0 && y == 0.0 && z == 0.0; }
};

// The two layouts of a point line. The first point line of a file decides the layout of the whole file.
constexpr size_t kColumnsWithoutColour = 4;
constexpr size_t kColumnsWithColour = 7;

// The white-space separated tokens of a line, counted up to `limit`.
size_t countTokens(const char* begin, const char* end, size_t limit);

// Reads the `columns` numbers of a point line; false when the line holds fewer. What follows them is ignored.
bool readPointLine(const char* begin, const char* end, size_t columns, PointValues& point);

// A negative intensity is no return strength, and colour channels must lie in [0, channelLimit]. An
// intensity above 1 is not refused here: it is clamped, with a warning.
bool hasValidValues(const PointValues& point, size_t columns, double channelLimit);

// Why a point line cannot be read: the layouts and ranges that can, and the line itself. With 8-bit channels
// it names the probe of `probeSize` points that chose that scale.
std::string formatText(bool eightBitChannels, uint64_t probeSize, const char* begin, const char* end);

}  // namespace pc_preprocess::ptx
