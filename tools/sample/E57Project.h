#pragma once

#include <cstdint>
#include <string>

namespace pcp_sample
{

// Writes the room as an E57 project: two structured scans from two stations, each in its own frame with its
// pose, in spherical coordinates with row and column indices; the cap the tripod hides has records with a
// direction only. Beside each scan a spherical camera picture (JPEG) taken from the scanner's position, which
// sees the floor below the tripod too. `points` is the number of records of both scans together. Returns the
// file's size.
uint64_t writeE57Project(const std::string& path, uint64_t points);

}  // namespace pcp_sample
