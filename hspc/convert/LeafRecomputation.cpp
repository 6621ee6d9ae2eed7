#include "hspc/convert/LeafRecomputation.h"

#include <algorithm>
#include <optional>
#include <string>
#include <system_error>

#include "hspc/convert/LeafRecomputationProcessManager.h"
#include "hspc/convert/RunSliceReader.h"
#include "hspc/convert/StageClock.h"
#include "hspc/convert/StageThreads.h"

namespace HSPC
{

namespace
{

constexpr const char* kReadFailure = "Could not read temp data.";

template <typename W>
void runRecomputationReader(LeafRecomputationProcessManager<W>& manager,
                            const PointDistributionInputHandler<W>& input)
{
    const LogFunction& errorLogger = input.config().errorLogger;
    RunSliceReader<W> reader(input);
    std::optional<uint32_t> lastRun;
    while (manager.shouldContinue())
    {
        const std::optional<BufferToProcess> item = manager.nextRead();
        if (!item)
        {
            break;
        }
        // Reads come in run order: a run decoded for one slice is kept only while its slices follow.
        if (lastRun && *lastRun != item->slice.run)
        {
            reader.release(*lastRun);
        }
        lastRun = item->slice.run;
        manager.waitForMemory();
        RawTempBuffer<W> piece{item->unit, item->piece, {}};
        if (!reader.readCodes(item->slice, piece.codes))
        {
            reportTo(errorLogger, kReadFailure);
            manager.markFailed(makeFailure(FailureCode::kStage, kReadFailure));
            break;
        }
        manager.deliver(std::move(piece));
    }
    manager.reportInputFinished();
}

template <typename W>
void runRecomputationWorker(LeafRecomputationProcessManager<W>& manager, const RuntimeConfig& config,
                            const CellSplitLimits& limits)
{
    while (manager.hasWork())
    {
        const std::optional<ReadyUnit<W>> ready = manager.nextReadyUnit();
        if (!ready)
        {
            return;
        }
        RecomputedLeaves<W> leaves;
        std::string failure;
        if (!splitCriticalCell<W>(manager.units()[ready->position], ready->pieces, limits, config.errorLogger,
                                  leaves, failure))
        {
            reportTo(config.errorLogger, failure);
            manager.markFailed(makeFailure(FailureCode::kStage, failure));
            return;
        }
        manager.finishUnit(*ready, std::move(leaves));
    }
}

}  // namespace

template <typename W>
Recomputation<W> recomputeCriticalCells(const RuntimeConfig& config, const PointDistributionInputHandler<W>& input,
                                        ProcessHandle& handle, HSPCBuffer<NodeToProcess<W>>&& units,
                                        uint64_t memoryLimit)
{
    Recomputation<W> result;
    if (units.empty())
    {
        return result;
    }
    const StageClock::time_point start = StageClock::now();
    const uint32_t readerCount = uint32_t(std::max(config.reservedThreads, 1));
    const uint32_t workerCount = std::max<uint32_t>(config.distributionWorkerCount, 1);
    const CellSplitLimits limits{input.mergeLimit(), config.filterDuplicates};
    LeafRecomputationProcessManager<W> manager(memoryLimit, readerCount);
    manager.initializeComputation(std::move(units));
    std::string readSeconds;
    {
        const CurrentStage current(handle, manager);
        StageThreads threads;
        try
        {
            for (uint32_t reader = 0; reader < readerCount; ++reader)
            {
                threads.start(threads.readers, [&manager, &input] { runRecomputationReader(manager, input); });
            }
            for (uint32_t worker = 0; worker < workerCount; ++worker)
            {
                threads.start(threads.workers,
                              [&manager, &config, &limits] { runRecomputationWorker(manager, config, limits); });
            }
        }
        catch (const std::system_error&)
        {
            // The threads that did start stop at once and are joined before the error goes on to the caller.
            manager.markFailed(makeFailure(FailureCode::kStage, "Recomputation: could not start a thread."));
            threads.joinAll();
            throw;
        }
        for (std::thread& reader : threads.readers)
        {
            reader.join();
        }
        readSeconds = secondsSince(start);
        threads.joinAll();
    }
    result.failures = manager.failures();
    reportTo(config.infoLogger, "Recomputation:   elapsed: " + secondsSince(start) + " [s].");
    reportTo(config.infoLogger, "Read Array:      elapsed: " + readSeconds + " [s.]");
    if (result.failures.empty())
    {
        result.leaves = manager.takeResults();
    }
    return result;
}

template Recomputation<uint32_t> recomputeCriticalCells<uint32_t>(const RuntimeConfig&,
                                                                  const PointDistributionInputHandler<uint32_t>&,
                                                                  ProcessHandle&,
                                                                  HSPCBuffer<NodeToProcess<uint32_t>>&&, uint64_t);
template Recomputation<uint64_t> recomputeCriticalCells<uint64_t>(const RuntimeConfig&,
                                                                  const PointDistributionInputHandler<uint64_t>&,
                                                                  ProcessHandle&,
                                                                  HSPCBuffer<NodeToProcess<uint64_t>>&&, uint64_t);

}  // namespace HSPC
