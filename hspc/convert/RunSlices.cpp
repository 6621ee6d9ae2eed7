#include "hspc/convert/RunSlices.h"

#include <algorithm>

#include "hspc/convert/MortonRecords.h"
#include "hspc/convert/RunCellStream.h"
#include "hspc/format/Loggers.h"

namespace HSPC
{

namespace
{

constexpr const char* kPartitionFailure = "Point distribution input handler: error: could not compute read partition.";

// Walks one run's cell list and hands each of its slices to `visit(cell position, slice)`: consecutive run
// cells inside the same distribution cell make one slice. False when the list is unreadable, out of order,
// has a cell outside every distribution cell or does not add up to the run's point count.
template <typename W, typename Visit>
bool forEachSliceOfRun(std::span<const LeafEntry<W>> cells, const PointDistributionInputHandler<W>& input,
                       uint32_t runPosition, Visit&& visit)
{
    const ReadBuffer<W>& run = input.readList()[runPosition];
    RunCellStream<W> stream(input, run);
    uint64_t offset = 0;
    std::size_t cursor = 0;
    std::optional<std::size_t> openCell;
    RunSlice open{runPosition, 0, 0};
    MortonIndex3D<W> previousEnd{};
    while (const std::optional<CellEntry<W>> runCell = stream.next())
    {
        const MortonIndex3D<W>& start = runCell->index;
        if (cellStartAtLod(start, run.cutLod) != start || start < previousEnd)
        {
            return false;
        }
        previousEnd = nextIndexAtLod(start, run.cutLod);
        const auto after = std::upper_bound(cells.begin() + std::ptrdiff_t(cursor), cells.end(), start,
                                            [](const MortonIndex3D<W>& key, const LeafEntry<W>& c)
                                            { return key < c.index; });
        if (after == cells.begin())
        {
            return false;
        }
        const std::size_t position = std::size_t(after - cells.begin()) - 1;
        const LeafEntry<W>& cell = cells[position];
        if (cell.lod < run.cutLod || !(start < nextIndexAtLod(cell.index, cell.lod)))
        {
            return false;
        }
        if (openCell != position)
        {
            if (openCell && open.pointCount > 0)
            {
                visit(*openCell, open);
            }
            openCell = position;
            open = RunSlice{runPosition, offset, 0};
        }
        if (uint64_t(open.pointCount) + runCell->count > run.pointCount)
        {
            return false;
        }
        open.pointCount += runCell->count;
        offset += runCell->count;
        cursor = position;
    }
    if (openCell && open.pointCount > 0)
    {
        visit(*openCell, open);
    }
    return !stream.failed() && offset == run.pointCount;
}

template <typename W, typename Visit>
bool forEachSlice(std::span<const LeafEntry<W>> cells, const PointDistributionInputHandler<W>& input,
                  Visit&& visit)
{
    for (uint32_t run = 0; run < input.readList().size(); ++run)
    {
        if (!forEachSliceOfRun<W>(cells, input, run, visit))
        {
            return false;
        }
    }
    return true;
}

template <typename W>
std::optional<RunSlices> partition(std::span<const LeafEntry<W>> cells,
                                   const PointDistributionInputHandler<W>& input)
{
    RunSlices result;
    result.sliceBegin.assign(cells.size() + 1, 0);
    // First the number of slices per cell, so that the slices can be laid out grouped by cell at once.
    if (!forEachSlice<W>(cells, input,
                         [&](std::size_t cell, const RunSlice&) { ++result.sliceBegin[cell + 1]; }))
    {
        return std::nullopt;
    }
    for (std::size_t i = 0; i < cells.size(); ++i)
    {
        result.sliceBegin[i + 1] += result.sliceBegin[i];
    }
    result.slices.resize(result.sliceBegin.back());
    std::vector<uint32_t> next(result.sliceBegin.begin(), result.sliceBegin.end() - 1);
    // The lists are read again: a second read that gives more slices than the first is a changed file.
    bool fits = true;
    if (!forEachSlice<W>(cells, input,
                         [&](std::size_t cell, const RunSlice& slice)
                         {
                             if (next[cell] == result.sliceBegin[cell + 1])
                             {
                                 fits = false;
                                 return;
                             }
                             result.slices[next[cell]++] = slice;
                         }) ||
        !fits)
    {
        return std::nullopt;
    }
    for (std::size_t i = 0; i < cells.size(); ++i)
    {
        uint64_t points = 0;
        for (const RunSlice& slice : result.of(i))
        {
            points += slice.pointCount;
        }
        if (next[i] != result.sliceBegin[i + 1] || points != cells[i].count)
        {
            return std::nullopt;
        }
    }
    return result;
}

}  // namespace

template <typename W>
std::optional<RunSlices> computeRunSlices(std::span<const LeafEntry<W>> cells,
                                          const PointDistributionInputHandler<W>& input)
{
    std::optional<RunSlices> result = partition<W>(cells, input);
    if (!result)
    {
        reportTo(input.config().errorLogger, kPartitionFailure);
    }
    return result;
}

template std::optional<RunSlices> computeRunSlices<uint32_t>(std::span<const LeafEntry<uint32_t>>,
                                                             const PointDistributionInputHandler<uint32_t>&);
template std::optional<RunSlices> computeRunSlices<uint64_t>(std::span<const LeafEntry<uint64_t>>,
                                                             const PointDistributionInputHandler<uint64_t>&);

}  // namespace HSPC
