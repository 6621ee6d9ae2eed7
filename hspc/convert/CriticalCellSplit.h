// The recomputation of one critical cell: a cell whose count is above the merge limit, so that no cut of the
// counts can split it. Its points' Morton codes, one sorted piece per run that holds some, are looked at, and
// the cell is split down until every cell holds at most the merge limit. Each such cell becomes a leaf of the
// distribution, with its slices of the runs.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "hspc/convert/RawSortRecords.h"
#include "hspc/convert/RunSlices.h"
#include "hspc/format/Loggers.h"

namespace HSPC
{

// One unit of recomputation: a critical cell and where its points lie.
template <typename W>
struct NodeToProcess
{
    MortonIndex3D<W> index;
    uint8_t lod = 0;
    // About where its cells hold the preferred count of points: the cell's lod less log2(count / preferred
    // count), not below the minimum lod. Named in the diagnostics of a cell whose points do not fit it.
    uint8_t distributionLod = 0;
    uint64_t expectedCount = 0;
    // Its points in the runs that hold some, in increasing run position.
    std::vector<RunSlice> slices;
};

// max(lod - log2(count / preferredCount), minimumLod), truncated, and never coarser than the cell itself.
uint8_t distributionLodOf(unsigned lod, uint64_t count, uint32_t preferredCount, unsigned minimumLod);

// The finer leaves of a recomputed cell, in Morton order, and their slices.
template <typename W>
struct RecomputedLeaves
{
    std::vector<LeafEntry<W>> leaves;
    RunSlices slices;
};

struct CellSplitLimits
{
    uint32_t mergeLimit = 0;
    // Points of one position are one point to the distribution: a cell of lod 0 may then stay above the
    // limit. Without the filter such a cell cannot be divided and fails the unit.
    bool filterDuplicates = true;
};

// Splits `unit` over `pieces` (the codes of unit.slices[i] in pieces[i], each sorted) into `out`. False with
// the text to fail the stage with in `failure`, its details already on the error logger and, for an
// undividable cell, on the standard error stream: "Could not compute leaf node." when a piece does not fit
// its slice or its cell, "Could not recompute node." for a cell of lod 0 above the limit.
template <typename W>
bool splitCriticalCell(const NodeToProcess<W>& unit, std::span<const std::vector<MortonIndex3D<W>>> pieces,
                       const CellSplitLimits& limits, const LogFunction& errorLogger, RecomputedLeaves<W>& out,
                       std::string& failure);

extern template bool splitCriticalCell<uint32_t>(const NodeToProcess<uint32_t>&,
                                                 std::span<const std::vector<MortonIndex3D<uint32_t>>>,
                                                 const CellSplitLimits&, const LogFunction&,
                                                 RecomputedLeaves<uint32_t>&, std::string&);
extern template bool splitCriticalCell<uint64_t>(const NodeToProcess<uint64_t>&,
                                                 std::span<const std::vector<MortonIndex3D<uint64_t>>>,
                                                 const CellSplitLimits&, const LogFunction&,
                                                 RecomputedLeaves<uint64_t>&, std::string&);

}  // namespace HSPC
