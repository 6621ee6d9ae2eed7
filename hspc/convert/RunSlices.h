// Where the points of each distribution cell lie in the sorted runs. Runs are sorted by Morton code, so a
// cell's points inside one run are one consecutive range of its records: a slice. The slices come from the
// runs' cell lists alone, without reading a point: every cell of a run's list lies inside exactly one of the
// distribution cells, and its count says how far the run's records move on.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "hspc/convert/DistributionLayout.h"
#include "hspc/convert/PointDistributionInputHandler.h"

namespace HSPC
{

// The slices of a list of cells: those of cell i are [sliceBegin[i], sliceBegin[i + 1]) of `slices`, in
// increasing run position.
struct RunSlices
{
    std::vector<RunSlice> slices;
    std::vector<uint32_t> sliceBegin{0};

    std::size_t cellCount() const { return sliceBegin.size() - 1; }
    std::span<const RunSlice> of(std::size_t cell) const
    {
        return std::span<const RunSlice>(slices).subspan(sliceBegin[cell], sliceBegin[cell + 1] - sliceBegin[cell]);
    }
    // Adds a cell with the given slices after the last one.
    void append(std::span<const RunSlice> cellSlices)
    {
        slices.insert(slices.end(), cellSlices.begin(), cellSlices.end());
        sliceBegin.push_back(uint32_t(slices.size()));
    }
};

// The slices of `cells` (sorted by index, disjoint, each index the start of its cell at its lod) over every
// run of `input`'s read list. Checked: every run cell lies inside one of `cells`, the runs' cell lists are
// sorted and add up to their runs' point counts, and each of `cells` gets exactly its count. Otherwise, or
// when a spilled cell list cannot be read, nothing, with "Point distribution input handler: error: could not
// compute read partition." on the error logger. Reads each run's cell list twice (count, then fill) through
// a bounded window: besides the slices nothing grows with the input.
template <typename W>
std::optional<RunSlices> computeRunSlices(std::span<const LeafEntry<W>> cells,
                                          const PointDistributionInputHandler<W>& input);

extern template std::optional<RunSlices> computeRunSlices<uint32_t>(std::span<const LeafEntry<uint32_t>>,
                                                                    const PointDistributionInputHandler<uint32_t>&);
extern template std::optional<RunSlices> computeRunSlices<uint64_t>(std::span<const LeafEntry<uint64_t>>,
                                                                    const PointDistributionInputHandler<uint64_t>&);

}  // namespace HSPC
