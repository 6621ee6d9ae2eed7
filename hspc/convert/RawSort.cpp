#include "hspc/convert/RawSort.h"

#include <algorithm>
#include <string>
#include <system_error>

#include "hspc/convert/FirstStageWorker.h"
#include "hspc/convert/RawSortThreads.h"
#include "hspc/convert/StageThreads.h"
#include "hspc/convert/StaticRawSortProcessHandler.h"
#include "hspc/format/Loggers.h"

namespace HSPC
{

namespace
{

// Importer i goes to input thread i mod n, so that each thread reads its importers one after the other.
std::vector<std::vector<AssignedImporter>> shareOutImporters(const std::vector<Importer*>& importers,
                                                            const RuntimeConfig& config)
{
    const std::size_t inputThreads = std::size_t(std::max(config.reservedThreads, 1));
    std::vector<std::vector<AssignedImporter>> shares(std::min(importers.size(), inputThreads));
    for (std::size_t i = 0; i < importers.size(); ++i)
    {
        shares[i % shares.size()].push_back(AssignedImporter{uint32_t(i), importers[i]});
    }
    return shares;
}

}  // namespace

template <typename W>
ConversionFailures rawSort(const RuntimeConfig& config, const std::vector<Importer*>& importers,
                           PointDistributionInputHandler<W>& input, ProcessHandle& handle)
{
    const std::vector<std::vector<AssignedImporter>> shares = shareOutImporters(importers, config);
    const uint32_t workerCount = std::max<uint32_t>(config.workerCount, 1);
    StaticRawSortProcessHandler<W> manager(config, input, uint32_t(shares.size()), workerCount);
    std::vector<PointTotals> totals(workerCount);
    {
        const CurrentStage current(handle, manager);
        StageThreads threads;
        try
        {
            for (const std::vector<AssignedImporter>& share : shares)
            {
                threads.start(threads.readers, [&manager, &share] { runInputThread(manager, share); });
            }
            for (uint32_t worker = 0; worker + 1 < workerCount; ++worker)
            {
                threads.start(threads.workers,
                              [&manager, &totals, worker] { totals[worker] = runFirstStageWorker(manager); });
            }
            for (uint32_t writer = 0; writer < std::max<uint32_t>(config.tempWriterCount, 1); ++writer)
            {
                threads.start(threads.writers, [&manager] { runTempWriter(manager); });
            }
        }
        catch (const std::system_error&)
        {
            // The threads that did start stop at once and are joined before the error goes on to the caller.
            manager.markFailed(makeFailure(FailureCode::kStage, "rawSort: could not start a thread."));
            threads.joinAll();
            input.discardAll();
            throw;
        }
        totals.back() = runFirstStageWorker(manager);
        threads.joinAll();
    }

    if (!input.queuesEmpty() && manager.state() != ConversionState::kFailed)
    {
        manager.markFailed(makeFailure(FailureCode::kTempFile, "Cleanup main thread: queue structure not empty!"));
    }
    ConversionFailures failures = manager.failures();
    PointTotals total;
    for (const PointTotals& worker : totals)
    {
        total.seen += worker.seen;
        total.filtered += worker.filtered;
    }
    reportTo(config.infoLogger, "Total  point count after raw sort = " + std::to_string(total.seen));
    reportTo(config.infoLogger, "Filter point count after raw sort = " + std::to_string(total.filtered));
    if (!failures.empty())
    {
        // A failed raw sort ends the conversion: nothing of it is read again.
        input.discardAll();
    }
    return failures;
}

template ConversionFailures rawSort<uint32_t>(const RuntimeConfig&, const std::vector<Importer*>&,
                                              PointDistributionInputHandler<uint32_t>&, ProcessHandle&);
template ConversionFailures rawSort<uint64_t>(const RuntimeConfig&, const std::vector<Importer*>&,
                                              PointDistributionInputHandler<uint64_t>&, ProcessHandle&);

}  // namespace HSPC
