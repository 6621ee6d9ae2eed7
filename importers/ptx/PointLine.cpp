#include "importers/ptx/PointLine.h"

#include "importers/text/NumberLine.h"

namespace pc_preprocess::ptx
{

namespace
{

const char* skipWhiteSpace(const char* p, const char* end)
{
    while (p != end && isLineWhiteSpace(*p))
        ++p;
    return p;
}

bool isChannel(double value, double limit)
{
    return value >= 0.0 && value <= limit;
}

}  // namespace

size_t countTokens(const char* begin, const char* end, size_t limit)
{
    size_t count = 0;
    for (const char* p = skipWhiteSpace(begin, end); p != end && count < limit; p = skipWhiteSpace(p, end))
    {
        ++count;
        while (p != end && !isLineWhiteSpace(*p))
            ++p;
    }
    return count;
}

bool readPointLine(const char* begin, const char* end, size_t columns, PointValues& point)
{
    double values[kColumnsWithColour];
    if (columns > kColumnsWithColour ||
        NumberLine{}.parse(skipWhiteSpace(begin, end), end, values, columns) < columns)
        return false;
    point.x = values[0];
    point.y = values[1];
    point.z = values[2];
    point.intensity = values[3];
    if (columns == kColumnsWithColour)
        for (int c = 0; c < 3; ++c)
            point.rgb[c] = values[4 + c];
    return true;
}

bool hasValidValues(const PointValues& point, size_t columns, double channelLimit)
{
    if (!(point.intensity >= 0.0))
        return false;
    return columns != kColumnsWithColour ||
           (isChannel(point.rgb[0], channelLimit) && isChannel(point.rgb[1], channelLimit) &&
            isChannel(point.rgb[2], channelLimit));
}

std::string formatText(bool eightBitChannels, uint64_t probeSize, const char* begin, const char* end)
{
    std::string text =
        "Only <x y z I> and <x y z I r g b> are currently supported;"
        "\n\twith I in range [0.0, 1.0] and r, g & b in range [0, 255] or [0, 65535];";
    if (eightBitChannels)
        text += "\n\tExpected r, g & b in range [0, 255] based on first " + std::to_string(probeSize) +
                " valid points.";
    // The carriage return of a Windows line end is no part of what the user wrote.
    while (end != begin && (end[-1] == '\r' || end[-1] == '\n'))
        --end;
    return text + "\n\t" + std::string(begin, end);
}

}  // namespace pc_preprocess::ptx
