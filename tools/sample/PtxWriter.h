#pragma once

#include <string>
#include <vector>

#include "geom/Point3d.h"
#include "sample/SampleScene.h"

namespace pcp_sample
{

// One structured scan for a PTX file: its grid of returns (column by column, rows bottom to top, as
// scanRoom makes them), the scanner's position and its heading.
// Writes the scans as one PTX file: per scan the ten header lines (columns, rows, position, axes, the pose
// as a 4 x 4 matrix whose last line is the translation), then "x y z intensity r g b" in the scanner's own
// frame with the intensity in [0, 1]. Returns below a polar angle of 150 degrees, which the tripod hides from
// a real scanner, are written as missing points "0 0 0 0.5 0 0 0". Returns the bytes written.
uint64_t writePtxFile(const std::string& path, const std::vector<StationScan>& scans);

}  // namespace pcp_sample
