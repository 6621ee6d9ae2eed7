#pragma once

#include <cstdint>

namespace pc_preprocess
{

class ScanView;

// The coarsest reduction of the view's grid, as a power of two, at which its points still form a closed
// surface: at least half of the occupied blocks (away from the polar block rows) have all eight neighbours
// occupied, columns wrapping around. The grid keeps at least 64 rows, so a full grid gives at most 5.
uint64_t determineBitShift(const ScanView& view);

}  // namespace pc_preprocess
