#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "sample/SampleScene.h"

namespace pcp_sample
{

// Writes simulated returns as an uncompressed LAS 1.2 file of point format 3 (with GPS time and 16-bit
// colour), on a millimetre grid with the given offset, through LASzip's writer. Throws when LASzip refuses.
void writeLasTile(const std::string& path, const std::vector<SampleHit>& hits, const double offset[3]);

}  // namespace pcp_sample
