#include "hspc/convert/DistributionPlanning.h"

#include <algorithm>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "hspc/convert/LeafMerge.h"
#include "hspc/convert/LeafRecomputation.h"
#include "hspc/convert/MortonRecords.h"
#include "hspc/convert/RunSlices.h"
#include "hspc/convert/StageClock.h"
#include "hspc/convert/TakeTable.h"
#include "hspc/convert/UpperTree.h"

namespace HSPC
{

namespace
{

constexpr const char* kPlanFailure = "Could not compute distribution nodes.";

// The cells the runs are first partitioned into: the read cells and the point-critical cells, in Morton
// order, with which of them are critical.
template <typename W>
struct CoarseCells
{
    std::vector<LeafEntry<W>> cells;
    std::vector<bool> critical;
};

template <typename W>
CoarseCells<W> coarseCellsOf(const DistributionPlan<W>& plan)
{
    CoarseCells<W> coarse;
    coarse.cells.reserve(plan.readList.size() + plan.pointCritical.size());
    auto read = plan.readList.begin();
    auto critical = plan.pointCritical.begin();
    while (read != plan.readList.end() || critical != plan.pointCritical.end())
    {
        const bool takeCritical = read == plan.readList.end() ||
                                  (critical != plan.pointCritical.end() && critical->index < read->index);
        if (takeCritical)
        {
            coarse.cells.push_back(
                LeafEntry<W>{cellStartAtLod(critical->index, critical->lod), critical->count, critical->lod});
            ++critical;
        }
        else
        {
            coarse.cells.push_back(LeafEntry<W>{read->index, read->count, read->lod});
            ++read;
        }
        coarse.critical.push_back(takeCritical);
    }
    return coarse;
}

// Only the point-critical cells are recomputed. Distribution-critical read cells keep their place: the upper
// tree shares its takes over whole read cells and each read cell's distribution counts its own points, so
// their entries two lods below the cell would never be used, and recomputing them reads nearly every point
// twice (on a real raw sort almost all read cells were distribution-critical).
template <typename W>
HSPCBuffer<NodeToProcess<W>> unitsOf(const CoarseCells<W>& coarse, const RunSlices& slices,
                                     const PointDistributionInputHandler<W>& input)
{
    HSPCBuffer<NodeToProcess<W>> units;
    for (std::size_t i = 0; i < coarse.cells.size(); ++i)
    {
        if (!coarse.critical[i])
        {
            continue;
        }
        const LeafEntry<W>& cell = coarse.cells[i];
        const std::span<const RunSlice> cellSlices = slices.of(i);
        units.push_back(NodeToProcess<W>{
            cell.index, cell.lod,
            distributionLodOf(cell.lod, cell.count, input.preferredCount(), input.config().minimumLod), cell.count,
            std::vector<RunSlice>(cellSlices.begin(), cellSlices.end())});
    }
    return units;
}

// The leaves in Morton order: the read cells as they are, each critical cell replaced by its finer leaves.
template <typename W>
void finalLeaves(const CoarseCells<W>& coarse, const RunSlices& coarseSlices,
                 const std::vector<RecomputedLeaves<W>>& recomputed, std::vector<LeafEntry<W>>& leaves,
                 RunSlices& slices)
{
    std::size_t unit = 0;
    for (std::size_t i = 0; i < coarse.cells.size(); ++i)
    {
        if (!coarse.critical[i])
        {
            leaves.push_back(coarse.cells[i]);
            slices.append(coarseSlices.of(i));
            continue;
        }
        const RecomputedLeaves<W>& finer = recomputed[unit++];
        for (std::size_t leaf = 0; leaf < finer.leaves.size(); ++leaf)
        {
            leaves.push_back(finer.leaves[leaf]);
            slices.append(finer.slices.of(leaf));
        }
    }
}

template <typename W>
void deleteSpilledFiles(PointDistributionInputHandler<W>& input, const std::vector<std::string>& paths)
{
    for (const std::string& path : paths)
    {
        if (!input.tempFiles().remove(path))
        {
            reportTo(input.config().warningLogger, "point distribution input handler: Could not delete file=" + path);
        }
    }
}

template <typename W>
std::vector<std::string> rasterLeafPaths(const PointDistributionInputHandler<W>& input)
{
    std::vector<std::string> paths;
    for (uint32_t number : input.rasterLeafFiles())
    {
        paths.push_back(input.rasterLeafFile(number));
    }
    return paths;
}

template <typename W>
std::vector<std::string> cellListPaths(const PointDistributionInputHandler<W>& input)
{
    std::vector<std::string> paths;
    for (const ReadBuffer<W>& run : input.readList())
    {
        if (run.cellFile)
        {
            paths.push_back(input.leafBufferFile(*run.cellFile));
        }
    }
    return paths;
}

ConversionFailures failPlan(const RuntimeConfig& config, ConversionFailures failures)
{
    reportTo(config.errorLogger, kPlanFailure);
    failures.push_back(makeFailure(FailureCode::kStage, kPlanFailure));
    return failures;
}

}  // namespace

template <typename W>
ConversionFailures planDistribution(const RuntimeConfig& config, PointDistributionInputHandler<W>& input,
                                    ProcessHandle& handle, DistributionLayout<W>& layout)
{
    layout = DistributionLayout<W>{};
    if (input.readList().empty())
    {
        return {};
    }
    const StageClock::time_point start = StageClock::now();
    const uint64_t memory = config.targetMemory / 3 * 2;

    const std::optional<DistributionPlan<W>> plan = mergeLeafNodes<W>(input, memory);
    if (!plan)
    {
        return failPlan(config, {});
    }
    deleteSpilledFiles(input, rasterLeafPaths(input));
    logMergeSummary(*plan, input.mergeLimit(), config.infoLogger);

    const CoarseCells<W> coarse = coarseCellsOf(*plan);
    const std::optional<RunSlices> coarseSlices = computeRunSlices<W>(coarse.cells, input);
    if (!coarseSlices)
    {
        return failPlan(config, {});
    }
    deleteSpilledFiles(input, cellListPaths(input));

    Recomputation<W> recomputation =
        recomputeCriticalCells<W>(config, input, handle, unitsOf(coarse, *coarseSlices, input), memory);
    if (!recomputation.failures.empty())
    {
        reportTo(config.errorLogger, "point distribution input handler: Could not recompute merge leaf nodes.");
        return failPlan(config, std::move(recomputation.failures));
    }

    std::vector<LeafEntry<W>> leaves;
    RunSlices slices;
    finalLeaves(coarse, *coarseSlices, recomputation.leaves, leaves, slices);
    const TakeTable takes = computeTakeTable(config, plan->maxLod);
    uint64_t totalPoints = 0;
    for (const LeafEntry<W>& leaf : leaves)
    {
        totalPoints += leaf.count;
    }
    std::optional<UpperTree<W>> upper = buildUpperTree<W>(std::move(leaves), takes);
    if (!upper)
    {
        return failPlan(config, {});
    }

    layout.slices = std::move(slices.slices);
    layout.sliceBegin = std::move(slices.sliceBegin);
    layout.upper = std::move(*upper);
    layout.takes = takes;
    layout.totalPoints = totalPoints;
    reportTo(config.infoLogger, "Merging:         elapsed: " + secondsSince(start) + " [s].");
    return {};
}

template ConversionFailures planDistribution<uint32_t>(const RuntimeConfig&, PointDistributionInputHandler<uint32_t>&,
                                                       ProcessHandle&, DistributionLayout<uint32_t>&);
template ConversionFailures planDistribution<uint64_t>(const RuntimeConfig&, PointDistributionInputHandler<uint64_t>&,
                                                       ProcessHandle&, DistributionLayout<uint64_t>&);

}  // namespace HSPC
