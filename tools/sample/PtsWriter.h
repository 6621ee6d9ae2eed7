#pragma once

#include <string>
#include <vector>

#include "sample/SampleScene.h"

namespace pcp_sample
{

// Writes simulated returns as a PTS file the way scanner software exports them: the point count on the first
// line, then "x y z intensity r g b" per point with the intensity on the signed 12-bit scale (-2048..2047)
// and 8-bit colour, or "x y z intensity" without colour. Returns the bytes written; throws when the file
// cannot be written.
uint64_t writePtsScan(const std::string& path, const std::vector<SampleHit>& hits, bool withColour);

}  // namespace pcp_sample
