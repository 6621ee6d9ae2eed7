#pragma once

#include <string>
#include <vector>

#include "core/Export.h"
#include "core/PcRegion.h"

namespace pc_preprocess
{

// The RGN file: the regions that came with the input, for the host to restore. One compact JSON object:
//
//   {"regions":[region, ...]}
//   region  {"name": UTF-8, "idx": uint32, "clips": [clip, ...], "overlaps": [indices of other regions],
//            "visible": bool, "locked": bool, "removed": bool}
//   clip    {"p": [a, b, c, d of each plane, flat], "v": [x, y, z of each vertex, flat], "in": bool,
//            "id": uint32}
//
// Throws "Expected *.rgn filename; received <path>\n", "Cannot convert path <folder>" and
// "regionJson : Could not (fully) write <path>\nDisk full?".
PCP_API void regionJson(const std::vector<pointcloud_def::PcRegion>& regions, const std::wstring& rgnPath);

}  // namespace pc_preprocess
