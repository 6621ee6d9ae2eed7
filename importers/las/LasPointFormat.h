#pragma once

#include <array>
#include <cstdint>

namespace pc_preprocess::las
{

// Where the fields the importer reads sit in a point record of each LAS point format. Every format starts
// with X, Y, Z (int32 at 0, 4, 8) and the intensity (uint16 at 12); the formats 6 to 10 of LAS 1.4 have a
// second flag byte, which moves the classification one byte on.
struct PointFormatLayout
{
    uint16_t smallestRecordLength;
    uint16_t colourOffset;  // red, green, blue as uint16 each; 0 for a format without colour
    uint16_t classificationOffset;
};

inline constexpr uint8_t kLastPointFormat = 10;

inline constexpr std::array<PointFormatLayout, kLastPointFormat + 1> kPointFormats = {{
    {20, 0, 15},   // 0: core record
    {28, 0, 15},   // 1: + GPS time
    {26, 20, 15},  // 2: + colour
    {34, 28, 15},  // 3: + GPS time, colour
    {57, 0, 15},   // 4: 1 + wave packet
    {63, 28, 15},  // 5: 3 + wave packet
    {30, 0, 16},   // 6: LAS 1.4 core record with GPS time
    {36, 30, 16},  // 7: 6 + colour
    {38, 30, 16},  // 8: 7 + near infrared
    {59, 0, 16},   // 9: 6 + wave packet
    {67, 30, 16},  // 10: 8 + wave packet
}};

// Red, green and blue follow each other at the colour offset.
inline constexpr uint16_t kIntensityOffset = 12;

}  // namespace pc_preprocess::las
