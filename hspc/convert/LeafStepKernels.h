// What the leaf step of the raw sort learns from one sorted batch: how many cells its points occupy at each
// lod, how far apart its points are within each root octant, and the list of occupied cells at the lod the
// batch is cut at. Lod 0 is a single integer cell; each lod up, a cell holds 8 of the one below.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "hspc/format/MortonIndex3D.h"

namespace HSPC
{

// Indexed by lod, 0 to 31.
using OccupancyTable = std::array<uint64_t, 32>;

struct Occupancy
{
    // Distinct cells that the points occupy at each lod.
    OccupancyTable cells{};
    // The most points in any one cell at each lod.
    OccupancyTable largestRun{};
};

// The occupancy of `count` records of `recordSize` bytes, sorted by the MortonIndex3D<W> that starts each,
// in one pass: two neighbouring points fall into different cells exactly at the lods below their
// commonLodCount. Equal codes share their cell at every lod.
template <typename W>
Occupancy occupancyTable(const uint8_t* records, std::size_t count, uint32_t recordSize);

// The first lod, going up from 0, at which the points occupy no more than `cellCount` cells: the cell
// counts only fall with the lod, so this is where the batch comes down to `cellCount` cells. 0 when the
// finest lod already does (the batch has no more points than that); 31 when no lod up to 30 does.
unsigned firstLodReaching(const OccupancyTable& cells, uint64_t cellCount);

// A root octant's share of a sorted batch: its lowest and highest code, their commonLodCount (the lod
// from which on all its points share one cell) and its number of points.
template <typename W>
struct OctantRange
{
    MortonIndex3D<W> lowest;
    MortonIndex3D<W> highest;
    unsigned commonLod = 0;
    uint32_t count = 0;
};

// The range of each of the 8 root octants (the top three bits of the code) in a sorted batch, found by
// bisection; nothing for an octant without points.
template <typename W>
std::array<std::optional<OctantRange<W>>, 8> octantRanges(const uint8_t* records, std::size_t count,
                                                          uint32_t recordSize);

// The largest commonLod over the octants of a sorted batch: cutting a batch coarser than this gains nothing,
// since each octant's points share one cell there already. 0 for an empty batch.
template <typename W>
unsigned octantCommonLodCap(const uint8_t* records, std::size_t count, uint32_t recordSize);

// One occupied cell of a batch at the lod it is cut at: the cell's first code and its number of points.
// Written to temp files as a raw array; 16 bytes for 32-bit words.
template <typename W>
struct CellEntry
{
    MortonIndex3D<W> index;
    uint32_t count;
};
static_assert(sizeof(CellEntry<uint32_t>) == 16);

// The occupied cells at `lod` of a sorted batch, in order, with their point counts. Each cell's end is found
// by a galloping bisection from its start, so that a batch costs a few probes per cell rather than a look
// at every point.
template <typename W>
std::vector<CellEntry<W>> cellList(const uint8_t* records, std::size_t count, uint32_t recordSize,
                                   unsigned lod);

// The cut lod smoothed over the batches of one worker: the mean of all cuts asked for so far (starting from
// 10) caps each new one, so that one batch of unusual shape does not cut the worker's cells much coarser.
struct RunningLodMean
{
    double mean = 10.0;
    uint64_t count = 0;

    // Takes `lod` into the mean and answers the cut: `lod`, or the mean rounded down when `lod` lies above
    // it.
    unsigned cut(unsigned lod);
};

extern template Occupancy occupancyTable<uint32_t>(const uint8_t*, std::size_t, uint32_t);
extern template std::array<std::optional<OctantRange<uint32_t>>, 8> octantRanges<uint32_t>(const uint8_t*,
                                                                                           std::size_t,
                                                                                           uint32_t);
extern template unsigned octantCommonLodCap<uint32_t>(const uint8_t*, std::size_t, uint32_t);
extern template std::vector<CellEntry<uint32_t>> cellList<uint32_t>(const uint8_t*, std::size_t, uint32_t,
                                                                    unsigned);
extern template Occupancy occupancyTable<uint64_t>(const uint8_t*, std::size_t, uint32_t);
extern template std::array<std::optional<OctantRange<uint64_t>>, 8> octantRanges<uint64_t>(const uint8_t*,
                                                                                           std::size_t,
                                                                                           uint32_t);
extern template unsigned octantCommonLodCap<uint64_t>(const uint8_t*, std::size_t, uint32_t);
extern template std::vector<CellEntry<uint64_t>> cellList<uint64_t>(const uint8_t*, std::size_t, uint32_t,
                                                                    unsigned);

}  // namespace HSPC
