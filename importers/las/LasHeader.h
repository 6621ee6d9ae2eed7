#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>

#include "importers/las/LasPointFormat.h"

namespace pc_preprocess::las
{

// The fields of the LAS public header block that the importer uses, little-endian:
//
//   offset  size  field
//   0       4     "LASF"
//   6       2     global encoding; bit 4: the coordinate system is given as WKT
//   24      1     version major, must be 1
//   25      1     version minor, at most 4
//   94      2     header size: the first VLR starts here
//   96      4     offset to point data
//   100     4     number of VLRs
//   104     1     point data format; 128 and up marks a compressed (LAZ) file
//   105     2     point record length
//   107     4     legacy number of point records
//   131     24    X, Y, Z scale factor (3 doubles)
//   155     24    X, Y, Z offset (3 doubles)
//   179     48    max X, min X, max Y, min Y, max Z, min Z (6 doubles)
//   247     8     number of point records (LAS 1.4 and later)
struct LasHeader
{
    // The importer reads this many bytes from the start of the file, or the whole file when it is shorter.
    static constexpr size_t kBlockSize = 256;
    // The header of LAS 1.0 to 1.2, the smallest there is; LAS 1.4 needs the 8 bytes of its count at 247.
    static constexpr size_t kSmallestHeader = 227;
    static constexpr size_t kHeaderWith64BitCount = 255;

    uint16_t globalEncoding = 0;
    uint8_t versionMajor = 0;
    uint8_t versionMinor = 0;
    uint16_t headerSize = 0;
    uint32_t offsetToPointData = 0;
    uint32_t numberOfVlrs = 0;
    uint8_t pointFormat = 0;
    uint16_t pointRecordLength = 0;
    // The legacy count, or from LAS 1.4 on the 64-bit count.
    uint64_t numberOfPoints = 0;
    std::array<double, 3> scale{1.0, 1.0, 1.0};
    std::array<double, 3> offset{0.0, 0.0, 0.0};
    // Max and min per axis, in real coordinates: {maxX, minX, maxY, minY, maxZ, minZ}.
    std::array<double, 6> bounds{};
    PointFormatLayout layout{};

    // The records that the file can really hold from the offset to point data on: the header's count may be
    // a lie, and a truncated file is read up to its last whole record.
    uint64_t plausiblePointCount(uint64_t fileSize) const;
    // One line for the log.
    std::string describe() const;
};

// Reads and checks the header from the first bytes of a file (at most kBlockSize, fewer when the file is
// shorter). `path` names the file in messages. Throws std::runtime_error with the LAS error texts for what
// cannot be read: no signature, an unsupported version or point format, a record too short for its format,
// a header or a point data offset that cannot be, scale factors and offsets that are not usable numbers.
LasHeader parseLasHeader(std::span<const uint8_t> bytes, const std::string& path);

}  // namespace pc_preprocess::las
