#include "hspc/convert/PointDistribution.h"

#include <algorithm>
#include <string>
#include <system_error>

#include "hspc/convert/DistributionStage.h"
#include "hspc/convert/StageThreads.h"
#include "hspc/store/FolderStore.h"

namespace HSPC
{

namespace
{

std::shared_ptr<RootWriter> outputWriter(const RuntimeConfig& config)
{
    if (config.rootWriter)
    {
        return config.rootWriter;
    }
    if (config.rootWriterFactory)
    {
        return config.rootWriterFactory(config.outputPath);
    }
    return std::make_shared<FolderWriter>(config.outputPath, config.errorLogger);
}

// The first leaf whose slices or upper takes the layout does not hold, or whose slices lie outside the runs;
// leafCount when there is none.
template <typename W>
std::size_t firstBrokenLeaf(const DistributionLayout<W>& layout, std::size_t runCount)
{
    const std::size_t leafCount = layout.upper.leaves.size();
    if (layout.sliceBegin.size() != leafCount + 1 || layout.upper.leafTakeBegin.size() != leafCount + 1 ||
        layout.sliceBegin.back() > layout.slices.size() ||
        layout.upper.leafTakeBegin.back() > layout.upper.leafTakes.size())
    {
        return 0;
    }
    for (std::size_t leaf = 0; leaf < leafCount; ++leaf)
    {
        if (layout.sliceBegin[leaf] > layout.sliceBegin[leaf + 1] ||
            layout.upper.leafTakeBegin[leaf] > layout.upper.leafTakeBegin[leaf + 1])
        {
            return leaf;
        }
        for (uint32_t s = layout.sliceBegin[leaf]; s < layout.sliceBegin[leaf + 1]; ++s)
        {
            if (layout.slices[s].run >= runCount)
            {
                return leaf;
            }
        }
        for (uint32_t t = layout.upper.leafTakeBegin[leaf]; t < layout.upper.leafTakeBegin[leaf + 1]; ++t)
        {
            if (layout.upper.leafTakes[t].node >= layout.upper.nodes.size())
            {
                return leaf;
            }
        }
    }
    return leafCount;
}

uint32_t readThreadCount(const RuntimeConfig& config, std::size_t runCount, std::size_t leafCount)
{
    const std::size_t wanted =
        runCount < kRunsForParallelReading ? 1 : std::size_t(std::max(config.reservedThreads, 1));
    return uint32_t(std::min(wanted, leafCount));
}

ConversionFailures failWith(const RuntimeConfig& config, const std::string& message)
{
    reportTo(config.errorLogger, message);
    return {makeFailure(FailureCode::kStage, message)};
}

}  // namespace

template <typename W>
ConversionFailures distributePoints(const RuntimeConfig& config, PointDistributionInputHandler<W>& input,
                                    const DistributionLayout<W>& layout, ProcessHandle& handle)
{
    const std::size_t leafCount = layout.upper.leaves.size();
    const std::size_t brokenLeaf = firstBrokenLeaf(layout, input.readList().size());
    if (brokenLeaf != leafCount)
    {
        input.discardAll();
        return failWith(config, "Could not get handler for iRead=" + std::to_string(brokenLeaf));
    }
    const std::shared_ptr<RootWriter> writer = outputWriter(config);
    if (!writer)
    {
        input.discardAll();
        return failWith(config, "Could not open the output for " + config.outputPath);
    }
    uint64_t totalPoints = 0;
    for (const LeafEntry<W>& leaf : layout.upper.leaves)
    {
        totalPoints += leaf.count;
    }
    const uint32_t workerCount = std::max<uint32_t>(config.distributionWorkerCount, 1);
    std::vector<DistributionWorkerTools> tools(workerCount);
    for (uint32_t worker = 0; worker < workerCount; ++worker)
    {
        tools[worker].statistics = input.blankStatistics();
        tools[worker].compressor = NodeCompressor::create(config.encodingAttributes,
                                                          std::max(config.maxNodeSize, config.nodeSize));
        tools[worker].random.seed(worker + 1);
        if (!tools[worker].compressor)
        {
            input.discardAll();
            return failWith(config, "Could not compress node.");
        }
    }

    const uint32_t readerCount = readThreadCount(config, input.readList().size(), leafCount);
    StaticPointDistributionProcessHandler<W> manager(config, readerCount, workerCount, totalPoints);
    DistributionStage<W> stage(config, input, layout, manager, *writer);
    {
        const CurrentStage current(handle, manager);
        StageThreads threads;
        try
        {
            for (uint32_t reader = 0; reader < readerCount; ++reader)
            {
                threads.start(threads.readers,
                              [&stage, reader, readerCount] { runLeafReader(stage, reader, readerCount); });
            }
            for (uint32_t worker = 0; worker + 1 < workerCount; ++worker)
            {
                threads.start(threads.workers, [&stage, &tools, worker]
                              { runDistributionWorker(stage, tools[worker]); });
            }
            for (uint32_t writerThread = 0; writerThread < std::max<uint32_t>(config.nodeWriterCount, 1);
                 ++writerThread)
            {
                threads.start(threads.writers, [&stage] { runNodeWriter(stage); });
            }
        }
        catch (const std::system_error&)
        {
            // The threads that did start stop at once and are joined before the error goes on to the caller.
            manager.markFailed(makeFailure(FailureCode::kStage, "distributePoints: could not start a thread."));
            threads.joinAll();
            input.discardAll();
            throw;
        }
        runDistributionWorker(stage, tools.back());
        threads.joinAll();
    }

    ConversionFailures failures = manager.failures();
    if (failures.empty() && (manager.pointsDone() != totalPoints || stage.upperNodes.openNodes() != 0))
    {
        failures = failWith(config, "Could not distribute points onto nodes.");
    }
    for (const DistributionWorkerTools& worker : tools)
    {
        if (failures.empty() && !input.statistics().mergeHistograms(worker.statistics, config.errorLogger))
        {
            failures = failWith(config, "Could not compute histogram.");
        }
    }
    std::string failure;
    if (failures.empty() && !writeFinalTree(std::move(stage.written), config, input.statistics(), *writer, failure))
    {
        failures.push_back(makeFailure(FailureCode::kStage, failure));
    }
    if (!failures.empty())
    {
        input.discardAll();
    }
    return failures;
}

template ConversionFailures distributePoints<uint32_t>(const RuntimeConfig&, PointDistributionInputHandler<uint32_t>&,
                                                       const DistributionLayout<uint32_t>&, ProcessHandle&);
template ConversionFailures distributePoints<uint64_t>(const RuntimeConfig&, PointDistributionInputHandler<uint64_t>&,
                                                       const DistributionLayout<uint64_t>&, ProcessHandle&);

}  // namespace HSPC
