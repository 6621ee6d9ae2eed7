// The filters of the raw sort, applied to one batch after it was sorted by Morton code.
#pragma once

#include <array>
#include <cstdint>

#include "hspc/format/TrackedMemory.h"

namespace HSPC
{

struct BatchFilter
{
    // Drop every point whose code equals the one before it: of equal positions in a batch the first stays.
    bool duplicates = true;
    // Drop every point outside the closed box [min, max] (real coordinates; the bounds are inside). The box
    // is put on the grid of `origin` and `scale` by truncation, not rounding.
    bool box = false;
    std::array<double, 3> min{}, max{}, origin{}, scale{};
};

struct FilterCounts
{
    uint64_t seen = 0;
    uint64_t filtered = 0;
};

// Filters the sorted records (each starting with its MortonIndex3D<W>) of `recordSize` bytes and squeezes
// the dropped ones out, keeping the order of the rest; `records` shrinks to the points kept. Counts the
// points seen and dropped. `records` must hold whole records at least as long as their code.
template <typename W>
FilterCounts filterSortedBatch(HSPCBuffer<uint8_t>& records, uint32_t recordSize, const BatchFilter& filter);

extern template FilterCounts filterSortedBatch<uint32_t>(HSPCBuffer<uint8_t>&, uint32_t, const BatchFilter&);
extern template FilterCounts filterSortedBatch<uint64_t>(HSPCBuffer<uint8_t>&, uint32_t, const BatchFilter&);

}  // namespace HSPC
