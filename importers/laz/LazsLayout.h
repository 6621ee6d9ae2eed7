#pragma once

#include <cstdint>

namespace pc_preprocess::laz
{

// LAZS, the program's own exchange variant of LAZ, as LazExporter writes it and LazImporter recognises it.
// A LAS 1.4 file compressed by LASzip, with nothing but the compressor's own record between header and
// points:
//
// | header offset | size | field                   | LAZS value            |
// |---------------|------|-------------------------|-----------------------|
// | 26            | 32   | system identifier       | "OTHER"               |
// | 58            | 32   | generating software     | "TANDOREL-XYZIRGBS"   |
// | 24, 25        | 1+1  | version                 | 1.4                   |
// | 94            | 2    | header size             | 375                   |
// | 96            | 4    | offset to point data    | 375 + LASzip's record |
// | 104           | 1    | point data format       | 7                     |
// | 105           | 2    | point record length     | 40 = 36 + 4           |
// | 179 ... 219   | 6x8  | max X, min X, ... min Z | the real box          |
// | 247           | 8    | number of point records | the count             |
//
// LASzip hides its own record, so that through its header the offset to point data reads 375 with no records.
// The 4 extra bytes at the end of each point record hold the 16-bit normal code (see scanview/NormalCodes.h)
// as an unsigned 32-bit little-endian value whose upper half is 0.
inline constexpr const char* kLazsSystemIdentifier = "OTHER";
inline constexpr const char* kLazsGeneratingSoftware = "TANDOREL-XYZIRGBS";
inline constexpr uint8_t kLazsVersionMinor = 4;
inline constexpr uint16_t kLazsHeaderSize = 375;
inline constexpr uint8_t kLazsPointFormat = 7;
inline constexpr uint16_t kLazsRecordLength = 40;
inline constexpr int kLazsExtraBytes = 4;

// Fields of the LAS 1.4 header that the exporter fills in after the points.
inline constexpr long kHeaderMaxXOffset = 179;
inline constexpr long kHeaderPointCountOffset = 247;
inline constexpr long kHeaderFirstReturnCountOffset = 255;

inline void putNormalCode(uint8_t* extraBytes, uint16_t code)
{
    extraBytes[0] = static_cast<uint8_t>(code & 0xFF);
    extraBytes[1] = static_cast<uint8_t>(code >> 8);
    extraBytes[2] = 0;
    extraBytes[3] = 0;
}

}  // namespace pc_preprocess::laz
