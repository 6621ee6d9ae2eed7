// The recomputation of the point-critical cells of a merge: cells that hold more points than the merge limit
// in one leaf entry, which no cut of the counts can split. Their points' Morton codes are read back from the
// runs (a compressed run decodes its position alone) and each cell is split, by looking at its points, into
// leaves within the limit, each with its slices of the runs.
//
// Threads, all joined before it returns: reader threads (the input thread count, at least one) that read the
// slices of the units in read order; computing workers (the distribution worker count) that split a unit once
// all of its slices are read. A cancel through the handle reaches the stage while it runs.
#pragma once

#include <cstdint>
#include <vector>

#include "hspc/convert/ConversionFailure.h"
#include "hspc/convert/CriticalCellSplit.h"
#include "hspc/convert/PointDistributionInputHandler.h"
#include "hspc/convert/ProcessHandle.h"
#include "hspc/format/RuntimeConfig.h"

namespace HSPC
{

template <typename W>
struct Recomputation
{
    ConversionFailures failures;
    // The finer leaves of each unit, in the order of the units given.
    std::vector<RecomputedLeaves<W>> leaves;
};

// Splits each unit within `memoryLimit` bytes of codes held at once (a single unit above it is still read
// whole). Logs "Recomputation:   elapsed: " and "Read Array:      elapsed: " on the info logger. Without
// units it starts no thread and returns at once.
template <typename W>
Recomputation<W> recomputeCriticalCells(const RuntimeConfig& config, const PointDistributionInputHandler<W>& input,
                                        ProcessHandle& handle, HSPCBuffer<NodeToProcess<W>>&& units,
                                        uint64_t memoryLimit);

extern template Recomputation<uint32_t> recomputeCriticalCells<uint32_t>(
    const RuntimeConfig&, const PointDistributionInputHandler<uint32_t>&, ProcessHandle&,
    HSPCBuffer<NodeToProcess<uint32_t>>&&, uint64_t);
extern template Recomputation<uint64_t> recomputeCriticalCells<uint64_t>(
    const RuntimeConfig&, const PointDistributionInputHandler<uint64_t>&, ProcessHandle&,
    HSPCBuffer<NodeToProcess<uint64_t>>&&, uint64_t);

}  // namespace HSPC
