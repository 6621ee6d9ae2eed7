// The merge of the leaf arrays: the in-memory leaf array and the raster leaf files are read together in
// Morton order, entries nested in a coarser entry are folded into it, and the merged entries are cut into
// cells of at most the merge limit, the units in which the runs are read and distributed.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "hspc/convert/DistributionPlan.h"
#include "hspc/convert/PointDistributionInputHandler.h"
#include "hspc/format/Loggers.h"

namespace HSPC
{

// The highest lod that tells the runs apart: the largest number of levels over which the lowest and the
// highest code of a run's octant differ, over all runs and octants. 0 without runs.
template <typename W>
unsigned maxLodOfRuns(std::span<const ReadBuffer<W>> runs);

// Bytes of each source's window when `memory` is shared by the in-memory array and `files` raster leaf files.
uint64_t mergeWindowBytes(uint64_t memory, std::size_t files);

template <typename W>
struct LeafMergeInput
{
    std::span<const LeafEntry<W>> leaves;
    std::vector<std::string> rasterLeafFiles;
    unsigned maxLod = 0;
    uint32_t mergeLimit = 0;
    uint64_t memory = 0;
    LogFunction infoLogger;
    LogFunction errorLogger;
};

// The plan, or nothing when a source could not be read or a cell cannot be cut; the reason is on the error
// logger. Logs the sizes of the two critical lists.
template <typename W>
std::optional<DistributionPlan<W>> mergeLeafNodes(const LeafMergeInput<W>& input);

// The same over what the raw sort left in `input`, with `memory` bytes for the windows; the raster leaf files
// are read in the order of their numbers. A failure adds the handler's own line on the error logger.
template <typename W>
std::optional<DistributionPlan<W>> mergeLeafNodes(const PointDistributionInputHandler<W>& input,
                                                  uint64_t memory);

// The figures of a finished merge on the info logger: max lod, the fullest read cell against the limit, and
// the sizes of the read and distribution lists.
template <typename W>
void logMergeSummary(const DistributionPlan<W>& plan, uint32_t mergeLimit, const LogFunction& infoLogger);

}  // namespace HSPC
