// The leaf step's choice of the lod at which a sorted batch's points are counted: coarse where the worker has
// counted few points so far, finer where a cell of its leaf array would grow too full, so that every counted
// cell stays small enough for the distribution to take in one piece.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "hspc/convert/RawSortRecords.h"

namespace HSPC
{

// Batches of fewer points keep the worker's current lod: counting their cells would cost more than it tells.
inline constexpr uint64_t kLeafStepMinimumPoints = 1000;
// The lod a worker starts at, and the lowest that a batch without overlap is cut at when it is large.
inline constexpr unsigned kInitialCutLod = 10;
inline constexpr unsigned kLowestFreshCutLod = 7;

// The fullest cell of the leaf array that the batch's points fall into, were they added.
struct LeafOverlap
{
    bool found = false;
    uint64_t largestCount = 0;
    uint8_t largestLod = kNoLod;
};

template <typename W>
LeafOverlap findLeafOverlap(const std::vector<LeafEntry<W>>& leaves, const uint8_t* records, std::size_t count,
                            uint32_t recordSize);

// What a worker knows beside its leaf array.
struct CutLodState
{
    // Points a counted cell should not exceed: the worker's share of a batch's points, divided by 40.
    uint64_t spillCount = 0;
    unsigned currentLod = kInitialCutLod;
    // The fullest entry the worker has merged so far, and its lod.
    uint64_t biggestCount = 0;
    uint8_t biggestLod = kNoLod;
};

// The lod to cut the sorted batch at, before the octant cap and the running mean.
template <typename W>
unsigned chooseCutLod(const LeafOverlap& overlap, const uint8_t* records, std::size_t count, uint32_t recordSize,
                      const CutLodState& state);

}  // namespace HSPC
