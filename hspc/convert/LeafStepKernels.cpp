#include "hspc/convert/LeafStepKernels.h"

#include <algorithm>
#include <cmath>

#include "hspc/convert/MortonRecords.h"

namespace HSPC
{
namespace
{

constexpr unsigned kTableLods = std::tuple_size_v<OccupancyTable>;

// Lods 0 .. commonLodCount - 1 see two different codes in different cells; equal codes share every cell.
template <typename W>
unsigned lodsWithNewCell(const MortonIndex3D<W>& previous, const MortonIndex3D<W>& code)
{
    return previous == code ? 0 : std::min(commonLodCount(previous, code), kTableLods);
}

template <typename W>
unsigned octantOf(const MortonIndex3D<W>& code)
{
    return unsigned(code.words[2] >> (MortonIndex3D<W>::kBitsPerAxis - 3));
}

}  // namespace

template <typename W>
Occupancy occupancyTable(const uint8_t* records, std::size_t count, uint32_t recordSize)
{
    Occupancy occupancy;
    if (count == 0)
    {
        return occupancy;
    }
    const SortedCodes<W> codes(records, count, recordSize);
    // A pair of neighbours that first shares a cell at lod k starts a new cell at every lod below k. The
    // counts go into a histogram of k, summed up at the end; runs are closed only at the lods that change.
    std::array<uint64_t, kTableLods + 1> pairsSharingFrom{};
    std::array<std::size_t, kTableLods> runStart{};
    MortonIndex3D<W> previous = codes[0];
    for (std::size_t i = 1; i < count; ++i)
    {
        const MortonIndex3D<W> code = codes[i];
        const unsigned newCellLods = lodsWithNewCell(previous, code);
        ++pairsSharingFrom[newCellLods];
        for (unsigned lod = 0; lod < newCellLods; ++lod)
        {
            occupancy.largestRun[lod] = std::max<uint64_t>(occupancy.largestRun[lod], i - runStart[lod]);
            runStart[lod] = i;
        }
        previous = code;
    }
    uint64_t newCellsAbove = 0;
    for (unsigned lod = kTableLods; lod-- > 0;)
    {
        newCellsAbove += pairsSharingFrom[lod + 1];
        occupancy.cells[lod] = 1 + newCellsAbove;
        occupancy.largestRun[lod] = std::max<uint64_t>(occupancy.largestRun[lod], count - runStart[lod]);
    }
    return occupancy;
}

unsigned firstLodReaching(const OccupancyTable& cells, uint64_t cellCount)
{
    constexpr unsigned lastLod = kTableLods - 2;
    for (unsigned lod = 0; lod <= lastLod; ++lod)
    {
        if (cells[lod] <= cellCount)
        {
            return lod;
        }
    }
    return lastLod + 1;
}

template <typename W>
std::array<std::optional<OctantRange<W>>, 8> octantRanges(const uint8_t* records, std::size_t count,
                                                          uint32_t recordSize)
{
    const SortedCodes<W> codes(records, count, recordSize);
    std::array<std::optional<OctantRange<W>>, 8> ranges;
    for (std::size_t first = 0; first < count;)
    {
        const MortonIndex3D<W> lowest = codes[first];
        const unsigned octant = octantOf(lowest);
        const MortonIndex3D<W> nextOctant{{0, 0, W(W(octant + 1) << (MortonIndex3D<W>::kBitsPerAxis - 3))}};
        const std::size_t end = octant == 7 ? count : codes.lowerBound(first + 1, nextOctant);
        const MortonIndex3D<W> highest = codes[end - 1];
        // A batch stays below 4 GiB, so no octant of it holds 2^32 points.
        ranges[octant] = OctantRange<W>{lowest, highest, commonLodCount(lowest, highest), uint32_t(end - first)};
        first = end;
    }
    return ranges;
}

template <typename W>
unsigned octantCommonLodCap(const uint8_t* records, std::size_t count, uint32_t recordSize)
{
    unsigned cap = 0;
    for (const std::optional<OctantRange<W>>& range : octantRanges<W>(records, count, recordSize))
    {
        cap = range ? std::max(cap, range->commonLod) : cap;
    }
    return cap;
}

template <typename W>
std::vector<CellEntry<W>> cellList(const uint8_t* records, std::size_t count, uint32_t recordSize,
                                   unsigned lod)
{
    const SortedCodes<W> codes(records, count, recordSize);
    std::vector<CellEntry<W>> cells;
    for (std::size_t first = 0; first < count;)
    {
        const MortonIndex3D<W> cell = cellStartAtLod(codes[first], lod);
        const MortonIndex3D<W> next = nextIndexAtLod(cell, lod);
        const std::size_t end = next.isInvalid() ? count : codes.lowerBound(first + 1, next);
        // A batch stays below 4 GiB, so no cell of it holds 2^32 points.
        cells.push_back(CellEntry<W>{cell, uint32_t(end - first)});
        first = end;
    }
    return cells;
}

unsigned RunningLodMean::cut(unsigned lod)
{
    mean = (double(count) * mean + double(lod)) / double(count + 1);
    ++count;
    return double(lod) > mean ? unsigned(std::floor(mean)) : lod;
}

template Occupancy occupancyTable<uint32_t>(const uint8_t*, std::size_t, uint32_t);
template Occupancy occupancyTable<uint64_t>(const uint8_t*, std::size_t, uint32_t);
template std::array<std::optional<OctantRange<uint32_t>>, 8> octantRanges<uint32_t>(const uint8_t*,
                                                                                    std::size_t, uint32_t);
template std::array<std::optional<OctantRange<uint64_t>>, 8> octantRanges<uint64_t>(const uint8_t*,
                                                                                    std::size_t, uint32_t);
template unsigned octantCommonLodCap<uint32_t>(const uint8_t*, std::size_t, uint32_t);
template unsigned octantCommonLodCap<uint64_t>(const uint8_t*, std::size_t, uint32_t);
template std::vector<CellEntry<uint32_t>> cellList<uint32_t>(const uint8_t*, std::size_t, uint32_t, unsigned);
template std::vector<CellEntry<uint64_t>> cellList<uint64_t>(const uint8_t*, std::size_t, uint32_t, unsigned);

}  // namespace HSPC
