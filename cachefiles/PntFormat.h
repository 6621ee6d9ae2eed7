#pragma once

#include <bit>
#include <cstdint>
#include <cstring>
#include <span>
#include <string>

#include "core/Export.h"
#include "core/IoLightPoint.h"
#include "core/IoTransfo.h"

namespace pc_preprocess
{

// The bytes of a PNT node file, little-endian, without padding or alignment.
//
// Header, 50 bytes:
//   offset  size  content
//   0       24    scale x, y, z (3 x double)
//   24      24    offset x, y, z (3 x double)
//   48      1     colour flag: always written 1; files with 0 are refused
//   49      1     extended flag: always written 1; 0 means records of 22 bytes
//
// Record, 26 bytes (22 without the extended flag):
//   0   int32   x         12  uint16  r         18  float   radius (raw bit pattern)
//   4   int32   y         14  uint16  g         22  uint16  intensity  (extended only)
//   8   int32   z         16  uint16  b         24  uint16  scanId     (extended only)
//
// A PNZ file inflates to the same header followed by the records as byte planes: byte j of point i of n at
// 50 + j * n + i.
static_assert(std::endian::native == std::endian::little, "node files are read and written by plain copies");

inline constexpr uint64_t kPntHeaderSize = 50;
inline constexpr uint64_t kPntRecordSize = 26;
// Where the radius (a float) lies in a record.
inline constexpr uint64_t kPntRadiusOffset = 18;
inline constexpr uint64_t kPntShortRecordSize = 22;

inline constexpr uint64_t pntRecordSize(bool extended)
{
    return extended ? kPntRecordSize : kPntShortRecordSize;
}

// Points held by a PNT of this size; throws "ERROR PNT READER: ..." below 50 bytes or when the records do not
// fill the rest exactly.
PCP_API uint64_t numPointsPNT(uint64_t fileSize, bool extended);
// The size of a PNT with this many points.
PCP_API uint64_t fileSizePNT(uint64_t points, bool extended);

struct PntHeader
{
    IoTransfo transfo;
    uint8_t colourFlag = 1;
    uint8_t extendedFlag = 1;

    bool isExtended() const { return extendedFlag != 0; }
    uint64_t recordSize() const { return pntRecordSize(isExtended()); }
};

// Decodes the first 50 bytes; fewer is the "smaller than header size" error.
PntHeader decodePntHeader(std::span<const uint8_t> bytes);
// Writes the 50 header bytes of a file written by this library: both flags 1.
void encodePntHeader(const IoTransfo& transfo, uint8_t* out);
// Throws prefix + ": Only colorful PNT are supported." for a colour flag of 0.
void requireColourFlag(const PntHeader& header, const std::string& prefix);

// One record. Non-extended records leave intensity and scanId 0; nothing else of the point is touched.
inline void decodePntRecord(const uint8_t* record, bool extended, IoLightPoint& p)
{
    std::memcpy(&p.x, record + 0, 4);
    std::memcpy(&p.y, record + 4, 4);
    std::memcpy(&p.z, record + 8, 4);
    std::memcpy(&p.r, record + 12, 2);
    std::memcpy(&p.g, record + 14, 2);
    std::memcpy(&p.b, record + 16, 2);
    std::memcpy(&p.radius, record + 18, 4);
    if (extended)
    {
        std::memcpy(&p.intensity, record + 22, 2);
        std::memcpy(&p.scanId, record + 24, 2);
    }
    else
    {
        p.intensity = 0;
        p.scanId = 0;
    }
}

// Writes the first 22 or all 26 bytes of a record.
inline void encodePntRecord(const IoLightPoint& p, uint8_t* record, bool extended = true)
{
    std::memcpy(record + 0, &p.x, 4);
    std::memcpy(record + 4, &p.y, 4);
    std::memcpy(record + 8, &p.z, 4);
    std::memcpy(record + 12, &p.r, 2);
    std::memcpy(record + 14, &p.g, 2);
    std::memcpy(record + 16, &p.b, 2);
    std::memcpy(record + 18, &p.radius, 4);
    if (extended)
    {
        std::memcpy(record + 22, &p.intensity, 2);
        std::memcpy(record + 24, &p.scanId, 2);
    }
}

}  // namespace pc_preprocess
