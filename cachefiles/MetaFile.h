#pragma once

#include <string>

#include "core/Export.h"
#include "core/MetaData.h"

namespace pc_preprocess
{

// The meta file of a scan: one MetaData, little-endian and packed, 153 bytes.
//
//   offset  size  content
//   0       24    extents: minX, minY, minZ, maxX, maxY, maxZ (6 x int32)
//   24      24    scan position (3 x double)
//   48      8     largest distance in the panorama (double)
//   56      8     filled area on the unit sphere (double)
//   64      8     panorama width (uint64), all ones without a panorama
//   72      1     validTandSize, 0 or 1
//   73      8     number of points (uint64)
//   81      72    the scan's matrix, column-major (9 x double)
//
// Files of the older form end after the point count (81 bytes) and have no matrix.
inline constexpr size_t kMetaFileSize = 153;
inline constexpr size_t kMetaFileSizeWithoutMatrix = 81;

PCP_API void writeMetaFile(const std::wstring& path, const MetaData& meta);
// Reads either form; the matrix of the older form reads as zeros. An invalid box becomes the all-zero box.
PCP_API MetaData readMetaFile(const std::wstring& path);

}  // namespace pc_preprocess
