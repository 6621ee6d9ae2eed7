// The point distribution, second stage of a static conversion: the leaves of the layout are read from the
// sorted runs once, in Morton order, and every point goes to exactly one node; nodes are compressed and
// written as they are finished, and the tree files are written last.
//
// Threads, all joined before it returns: read threads (one when there are fewer than 30 runs, else the input
// thread count) that read the leaves' slices while the stage's memory allows and delete each run's temp file
// once its last slice is read; distribution workers (the calling thread runs the last) that hand leaves on
// in read order, distribute them onto nodes and compress the nodes; node writers that store the compressed
// nodes through the output writer. A cancel through `handle` reaches the stage while it runs. On failure or
// cancel every temp file left is deleted.
#pragma once

#include <cstdint>

#include "hspc/convert/ConversionFailure.h"
#include "hspc/convert/DistributionLayout.h"
#include "hspc/convert/PointDistributionInputHandler.h"
#include "hspc/convert/ProcessHandle.h"
#include "hspc/format/RuntimeConfig.h"

namespace HSPC
{

// The runs of fewer than this many are read by one thread: a second would only wait on the first.
inline constexpr std::size_t kRunsForParallelReading = 30;

// Writes the data set through config.rootWriter when one is set, else through the writer that
// config.rootWriterFactory makes for the output path, else into the folder of the output path. The nodes
// are named by nodeBlobName of their block's corner; the statistics of their points are merged into the
// input handler's.
template <typename W>
ConversionFailures distributePoints(const RuntimeConfig& config, PointDistributionInputHandler<W>& input,
                                    const DistributionLayout<W>& layout, ProcessHandle& handle);

extern template ConversionFailures distributePoints<uint32_t>(const RuntimeConfig&,
                                                              PointDistributionInputHandler<uint32_t>&,
                                                              const DistributionLayout<uint32_t>&, ProcessHandle&);
extern template ConversionFailures distributePoints<uint64_t>(const RuntimeConfig&,
                                                              PointDistributionInputHandler<uint64_t>&,
                                                              const DistributionLayout<uint64_t>&, ProcessHandle&);

}  // namespace HSPC
