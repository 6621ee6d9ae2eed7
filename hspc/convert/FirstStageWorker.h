// A first-stage worker of the raw sort: it takes raw batches from the raw queue until the stage says stop,
// turns each into a sorted, filtered run (processFirstStage) through its own collector, and when it ends hands
// what it found to the input handler.
#pragma once

#include <cstdint>

#include "hspc/convert/StaticPointProcessor.h"
#include "hspc/convert/StaticRawSortProcessHandler.h"

namespace HSPC
{

template <typename W>
struct FirstStageCollector
{
    explicit FirstStageCollector(StaticRawSortProcessHandler<W>& manager)
        : processor(manager, manager.input().blankStatistics())
    {
    }

    StaticPointProcessor<W> processor;
};

struct PointTotals
{
    uint64_t seen = 0;
    uint64_t filtered = 0;
};

// Converts, encodes, sorts, filters and counts one raw batch; a failure goes to the error logger and to the
// manager. The batch's reserved memory is taken back in any case.
template <typename W>
void processFirstStage(StaticRawSortProcessHandler<W>& manager, FirstStageCollector<W>& collector,
                       RawBatch& batch);

// The end of a worker: its results go to the input handler, and the stage learns that it is through.
// Returns the points it has seen and filtered out.
template <typename W>
PointTotals finishWorker(StaticRawSortProcessHandler<W>& manager, StaticPointProcessor<W>& processor);

// The worker's loop; returns the points it has seen and filtered out.
template <typename W>
PointTotals runFirstStageWorker(StaticRawSortProcessHandler<W>& manager);

}  // namespace HSPC
