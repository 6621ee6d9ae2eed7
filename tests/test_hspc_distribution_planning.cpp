// The planning half of the distribution on what real raw sorts leave behind: every leaf's slices of the runs
// hold exactly its points and cover every run once, critical cells are recomputed from their points into
// leaves within the merge limit, a cell of one position above the limit fails clearly without the duplicate
// filter and stays one leaf with it, and a cancel reaches the recomputation.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "hspc/convert/CriticalCellSplit.h"
#include "hspc/convert/DistributionPlanning.h"
#include "hspc/convert/MortonRecords.h"
#include "hspc/convert/ProcessHandle.h"
#include "hspc/convert/RawSort.h"
#include "hspc/convert/RunSliceReader.h"
#include "support/MessageLog.h"
#include "support/MortonRecordRuns.h"
#include "support/TempFolder.h"

using namespace HSPC;

namespace
{

using Position = pcp_test::GeneratedPosition;
using Code = MortonIndex3D<uint32_t>;
using pcp_test::mixedBits;

struct Conversion
{
    pcp_test::TempFolder folder;
    pcp_test::LockedMessageLog info, warnings, errors;
    RuntimeConfig config;
    ProcessHandle handle;

    explicit Conversion(uint64_t batchPoints)
    {
        // Small, so that cell lists and leaf arrays spill to disk.
        pcp_test::setUpMortonRecordSort(config, folder.path().string(), batchPoints * pcp_test::kMortonRecordSize,
                                        512 * 1024);
        config.distributionWorkerCount = 2;
        config.infoLogger = info.logger();
        config.warningLogger = warnings.logger();
        config.errorLogger = errors.logger();
        config.nodeSize = config.topNodeSize = 5000;
    }

    // Sorts the points into runs; the points that survive the filters.
    uint64_t sort(PointDistributionInputHandler<uint32_t>& input, uint64_t count,
                  std::function<Position(uint64_t)> positionOf)
    {
        pcp_test::GeneratedMortonImporter importer(0, count, std::move(positionOf));
        const ConversionFailures failures = rawSort<uint32_t>(config, {&importer}, input, handle);
        EXPECT_TRUE(failures.empty()) << failures.front().message;
        uint64_t survivors = 0;
        for (const ReadBuffer<uint32_t>& run : input.readList())
        {
            survivors += run.pointCount;
        }
        return survivors;
    }

    std::string errorText()
    {
        std::lock_guard lock(errors.mutex);
        std::string text;
        for (const std::string& line : errors.lines)
        {
            text += line + "\n";
        }
        return text;
    }

    bool logged(const std::string& prefix)
    {
        std::lock_guard lock(info.mutex);
        return std::any_of(info.lines.begin(), info.lines.end(),
                           [&](const std::string& line) { return line.rfind(prefix, 0) == 0; });
    }
};

// Each leaf's slices lie in increasing runs and hold exactly its count of points, every one of them inside
// the leaf's cell (read back from the runs); together the slices cover every run once, front to back.
void expectSlicesHoldTheLeaves(const DistributionLayout<uint32_t>& layout,
                               const PointDistributionInputHandler<uint32_t>& input, uint64_t survivors)
{
    const std::vector<LeafEntry<uint32_t>>& leaves = layout.upper.leaves;
    ASSERT_EQ(layout.sliceBegin.size(), leaves.size() + 1);
    ASSERT_EQ(layout.sliceBegin.back(), layout.slices.size());
    std::vector<std::vector<RunSlice>> byRun(input.readList().size());
    RunSliceReader<uint32_t> reader(input);
    uint64_t total = 0;
    uint64_t outside = 0;
    for (std::size_t leaf = 0; leaf < leaves.size(); ++leaf)
    {
        uint64_t points = 0;
        for (uint32_t s = layout.sliceBegin[leaf]; s < layout.sliceBegin[leaf + 1]; ++s)
        {
            const RunSlice& slice = layout.slices[s];
            if (s > layout.sliceBegin[leaf])
            {
                EXPECT_GT(slice.run, layout.slices[s - 1].run);
            }
            ASSERT_LT(slice.run, byRun.size());
            byRun[slice.run].push_back(slice);
            points += slice.pointCount;
            std::vector<Code> codes;
            ASSERT_TRUE(reader.readCodes(slice, codes));
            ASSERT_EQ(codes.size(), slice.pointCount);
            for (const Code& code : codes)
            {
                outside += cellStartAtLod(code, leaves[leaf].lod) != leaves[leaf].index;
            }
        }
        EXPECT_EQ(points, leaves[leaf].count) << "leaf " << leaf;
        total += points;
    }
    EXPECT_EQ(outside, 0u);
    EXPECT_EQ(total, survivors);
    EXPECT_EQ(layout.totalPoints, survivors);
    EXPECT_EQ(layout.upper.nodes.front().points, survivors);
    for (std::size_t run = 0; run < byRun.size(); ++run)
    {
        std::sort(byRun[run].begin(), byRun[run].end(),
                  [](const RunSlice& a, const RunSlice& b) { return a.firstPoint < b.firstPoint; });
        uint64_t next = 0;
        for (const RunSlice& slice : byRun[run])
        {
            EXPECT_EQ(slice.firstPoint, next) << "run " << run;
            next = slice.firstPoint + slice.pointCount;
        }
        EXPECT_EQ(next, input.readList()[run].pointCount) << "run " << run;
    }
}

bool anySpilledCellList(const PointDistributionInputHandler<uint32_t>& input)
{
    return std::any_of(input.readList().begin(), input.readList().end(),
                       [](const ReadBuffer<uint32_t>& run) { return run.cellFile.has_value(); });
}

TEST(DistributionPlanning, SlicesOfARealRawSortCoverEveryRunOnceAndEachLeafsCount)
{
    Conversion conversion(4096);
    PointDistributionInputHandler<uint32_t> input(conversion.config);
    const uint64_t survivors = conversion.sort(input, 400000, pcp_test::blockPosition);
    ASSERT_GT(input.readList().size(), 50u);
    ASSERT_TRUE(anySpilledCellList(input));
    ASSERT_FALSE(input.rasterLeafFiles().empty());

    DistributionLayout<uint32_t> layout;
    const ConversionFailures failures = planDistribution<uint32_t>(conversion.config, input, conversion.handle, layout);
    ASSERT_TRUE(failures.empty()) << failures.front().message;
    expectSlicesHoldTheLeaves(layout, input, survivors);
    for (const LeafEntry<uint32_t>& leaf : layout.upper.leaves)
    {
        EXPECT_LE(leaf.count, input.mergeLimit());
    }
    // Without critical cells nothing is recomputed; the spilled counts are gone, the runs stay for reading.
    EXPECT_TRUE(conversion.logged("Recomputation: Point critical: 0;"));
    EXPECT_FALSE(conversion.logged("Recomputation:   elapsed: "));
    EXPECT_TRUE(conversion.logged("Merging:         elapsed: "));
    for (const ReadBuffer<uint32_t>& run : input.readList())
    {
        EXPECT_TRUE(std::filesystem::exists(input.tempPointFile(run.fileNumber)));
        if (run.cellFile)
        {
            EXPECT_FALSE(std::filesystem::exists(input.leafBufferFile(*run.cellFile)));
        }
    }
    for (uint32_t number : input.rasterLeafFiles())
    {
        EXPECT_FALSE(std::filesystem::exists(input.rasterLeafFile(number)));
    }
    EXPECT_TRUE(conversion.warnings.lines.empty());

    // Nothing sorted: an empty layout and no failure.
    PointDistributionInputHandler<uint32_t> empty(conversion.config);
    EXPECT_TRUE(planDistribution<uint32_t>(conversion.config, empty, conversion.handle, layout).empty());
    EXPECT_TRUE(layout.slices.empty());
    EXPECT_TRUE(layout.upper.leaves.empty());
    EXPECT_EQ(layout.totalPoints, 0u);
}

TEST(DistributionPlanning, ADamagedSpilledCellListFailsThePartitionClearly)
{
    Conversion conversion(4096);
    PointDistributionInputHandler<uint32_t> input(conversion.config);
    conversion.sort(input, 200000, pcp_test::blockPosition);
    const auto spilled = std::find_if(input.readList().begin(), input.readList().end(),
                                      [](const ReadBuffer<uint32_t>& run) { return run.cellFile.has_value(); });
    ASSERT_NE(spilled, input.readList().end());
    const std::string path = input.leafBufferFile(*spilled->cellFile);
    std::filesystem::resize_file(path, std::filesystem::file_size(path) - 3);

    DistributionLayout<uint32_t> layout;
    const ConversionFailures failures = planDistribution<uint32_t>(conversion.config, input, conversion.handle, layout);
    ASSERT_EQ(failures.size(), 1u);
    EXPECT_EQ(failures[0].code, FailureCode::kStage);
    EXPECT_EQ(failures[0].message, "Could not compute distribution nodes.");
    EXPECT_EQ(conversion.errors.lines,
              (std::vector<std::string>{"Error: Could not read file = " + path,
                                        "Point distribution input handler: error: could not compute read partition.",
                                        "Could not compute distribution nodes."}));
}

// Corners of three cubes of 16 cells a side, each a cell of lod 4.
constexpr std::array<Position, 3> kCubes = {Position{1024, 2048, 3072}, Position{-4096, 512, 8192},
                                            Position{65536, -65536, 0}};

// Points anywhere, and a share of them in the cubes, so dense that each cube's cell passes the merge limit
// in one leaf entry.
Position spreadWithClusters(uint64_t id)
{
    const uint64_t share = mixedBits(id + 77) % 16;
    if (share >= kCubes.size())
    {
        return pcp_test::blockPosition(id);
    }
    const uint64_t inCube = mixedBits(id + 5);
    const Position& corner = kCubes[share];
    return Position{int32_t(corner[0] + inCube % 16), int32_t(corner[1] + (inCube >> 8) % 16),
                    int32_t(corner[2] + (inCube >> 16) % 16)};
}

TEST(DistributionPlanning, CriticalCellsOfMixedPositionsAreRecomputedIntoLeavesWithinTheLimit)
{
    Conversion conversion(4096);
    PointDistributionInputHandler<uint32_t> input(conversion.config);
    const uint64_t survivors = conversion.sort(input, 200000, spreadWithClusters);
    // Too little memory for even one cell's codes: readers wait for a worker to free some whenever a cell is
    // ready, and read on when none is.
    conversion.config.targetMemory = 64;

    DistributionLayout<uint32_t> layout;
    const ConversionFailures failures = planDistribution<uint32_t>(conversion.config, input, conversion.handle, layout);
    ASSERT_TRUE(failures.empty()) << failures.front().message;
    EXPECT_FALSE(conversion.logged("Recomputation: Point critical: 0;"));
    EXPECT_TRUE(conversion.logged("Recomputation:   elapsed: "));
    EXPECT_TRUE(conversion.logged("Read Array:      elapsed: "));
    expectSlicesHoldTheLeaves(layout, input, survivors);
    std::array<std::size_t, kCubes.size()> leavesInCube{};
    for (const LeafEntry<uint32_t>& leaf : layout.upper.leaves)
    {
        EXPECT_LE(leaf.count, input.mergeLimit());
        for (std::size_t cube = 0; cube < kCubes.size(); ++cube)
        {
            const Code corner = encodeMortonSigned<uint32_t>(kCubes[cube][0], kCubes[cube][1], kCubes[cube][2]);
            leavesInCube[cube] += cellStartAtLod(leaf.index, 4) == corner;
        }
    }
    // Each cube's points are more than one leaf may hold: the recomputation cut them into several.
    for (std::size_t cube = 0; cube < kCubes.size(); ++cube)
    {
        EXPECT_GT(leavesInCube[cube], 1u) << "cube " << cube;
    }
}

// 200 batches of 200 points; ten points of each batch share one position.
constexpr int32_t kShared = 4242;
Position spreadWithOnePosition(uint64_t id)
{
    return id % 20 == 0 ? Position{kShared, kShared, kShared} : pcp_test::blockPosition(id);
}

TEST(DistributionPlanning, OnePositionAboveTheLimitFailsWithoutTheFilterAndIsOneLeafWithIt)
{
    {
        Conversion conversion(200);
        conversion.config.filterDuplicates = false;
        PointDistributionInputHandler<uint32_t> input(conversion.config);
        ASSERT_EQ(conversion.sort(input, 40000, spreadWithOnePosition), 40000u);
        DistributionLayout<uint32_t> layout;
        testing::internal::CaptureStderr();
        const ConversionFailures failures =
            planDistribution<uint32_t>(conversion.config, input, conversion.handle, layout);
        const std::string diagnostics = testing::internal::GetCapturedStderr();
        EXPECT_NE(diagnostics.find("## 1 pathological array size = 2000\n"), std::string::npos) << diagnostics;
        EXPECT_NE(diagnostics.find("recompute node read index = "), std::string::npos);
        ASSERT_EQ(failures.size(), 2u) << conversion.errorText();
        EXPECT_EQ(failures[0].message, "Could not recompute node.");
        EXPECT_EQ(failures[1].code, FailureCode::kStage);
        EXPECT_EQ(failures[1].message, "Could not compute distribution nodes.");
        EXPECT_TRUE(conversion.errors.contains("Error: inner iteration failed."));
        EXPECT_TRUE(
            conversion.errors.contains("point distribution input handler: Could not recompute merge leaf nodes."));
    }
    {
        // With the filter a batch keeps one of its ten: 200 points of one position, one leaf above the limit.
        Conversion conversion(200);
        PointDistributionInputHandler<uint32_t> input(conversion.config);
        const uint64_t survivors = conversion.sort(input, 40000, spreadWithOnePosition);
        ASSERT_EQ(survivors, 40000u - 200u * 9u);
        DistributionLayout<uint32_t> layout;
        const ConversionFailures failures =
            planDistribution<uint32_t>(conversion.config, input, conversion.handle, layout);
        ASSERT_TRUE(failures.empty()) << failures.front().message;
        expectSlicesHoldTheLeaves(layout, input, survivors);
        const Code shared = encodeMortonSigned<uint32_t>(kShared, kShared, kShared);
        const auto leaf = std::find_if(layout.upper.leaves.begin(), layout.upper.leaves.end(),
                                       [&](const LeafEntry<uint32_t>& l) { return l.index == shared; });
        ASSERT_NE(leaf, layout.upper.leaves.end());
        EXPECT_EQ(leaf->lod, 0);
        EXPECT_EQ(leaf->count, 200u);
    }
}

TEST(DistributionPlanning, CancelReachesTheRecomputation)
{
    Conversion conversion(4096);
    PointDistributionInputHandler<uint32_t> input(conversion.config);
    conversion.sort(input, 200000, spreadWithClusters);
    // The cancel comes as the merge reports its critical cells, before the recomputation starts its threads.
    conversion.config.infoLogger = [&](const std::string& line)
    {
        if (line.rfind("Recomputation: Point critical:", 0) == 0)
        {
            conversion.handle.cancel();
        }
    };
    DistributionLayout<uint32_t> layout;
    const ConversionFailures failures = planDistribution<uint32_t>(conversion.config, input, conversion.handle, layout);
    ASSERT_EQ(failures.size(), 2u);
    EXPECT_EQ(failures[0].code, FailureCode::kCancelled);
    EXPECT_EQ(failures[0].message, "Recomputation: process got cancelled!");
    EXPECT_EQ(failures[1].message, "Could not compute distribution nodes.");
}

}  // namespace

namespace
{

TEST(DistributionPlanning, SplitOfACellGivesEachLeafItsShareOfEveryRunAndChecksThePieces)
{
    NodeToProcess<uint32_t> unit;
    unit.index = encodeMortonSigned<uint32_t>(64, 64, 64);
    unit.lod = 3;
    unit.distributionLod = 2;
    unit.expectedCount = 30;
    unit.slices = {RunSlice{4, 100, 20}, RunSlice{9, 0, 10}};
    std::vector<std::vector<Code>> pieces(2);
    for (int32_t i = 0; i < 20; ++i)
    {
        pieces[0].push_back(encodeMortonSigned<uint32_t>(64 + i % 8, 64 + i / 8, 64));
    }
    for (int32_t i = 0; i < 10; ++i)
    {
        pieces[1].push_back(encodeMortonSigned<uint32_t>(64, 64 + i % 8, 65 + i / 8));
    }
    for (std::vector<Code>& piece : pieces)
    {
        std::sort(piece.begin(), piece.end());
    }
    const CellSplitLimits limits{8, false};
    pcp_test::MessageLog errors;
    RecomputedLeaves<uint32_t> out;
    std::string failure;
    ASSERT_TRUE(splitCriticalCell<uint32_t>(unit, pieces, limits, errors.logger(), out, failure));
    ASSERT_EQ(out.slices.cellCount(), out.leaves.size());
    // Leaf by leaf, each run's slices follow on from each other: the leaves cut the runs' ranges in order.
    std::array<uint64_t, 2> next = {100, 0};
    uint64_t total = 0;
    for (std::size_t leaf = 0; leaf < out.leaves.size(); ++leaf)
    {
        EXPECT_LE(out.leaves[leaf].count, 8u);
        EXPECT_EQ(cellStartAtLod(out.leaves[leaf].index, 3), unit.index);
        uint64_t points = 0;
        for (const RunSlice& slice : out.slices.of(leaf))
        {
            const std::size_t piece = slice.run == 4 ? 0 : 1;
            EXPECT_EQ(slice.firstPoint, next[piece]);
            next[piece] += slice.pointCount;
            points += slice.pointCount;
            // The slice's codes are inside the leaf.
            for (uint64_t i = slice.firstPoint; i < slice.firstPoint + slice.pointCount; ++i)
            {
                const Code code = pieces[piece][i - unit.slices[piece].firstPoint];
                EXPECT_EQ(cellStartAtLod(code, out.leaves[leaf].lod), out.leaves[leaf].index);
            }
        }
        EXPECT_EQ(points, out.leaves[leaf].count);
        total += points;
    }
    EXPECT_EQ(next, (std::array<uint64_t, 2>{120, 10}));
    EXPECT_EQ(total, 30u);
    EXPECT_TRUE(errors.lines.empty());

    // A piece that is not what its slice says: shorter, or with a code outside the cell.
    std::vector<std::vector<Code>> shorter = pieces;
    shorter[1].pop_back();
    EXPECT_FALSE(splitCriticalCell<uint32_t>(unit, shorter, limits, errors.logger(), out, failure));
    EXPECT_EQ(failure, "Could not compute leaf node.");
    std::vector<std::vector<Code>> outside = pieces;
    outside[0].back() = encodeMortonSigned<uint32_t>(72, 64, 64);
    EXPECT_FALSE(splitCriticalCell<uint32_t>(unit, outside, limits, errors.logger(), out, failure));
    EXPECT_EQ(errors.lines, (std::vector<std::string>{"Error: read index = 9; distributionLod = 2 node.distribution = 3",
                                                      "Error: read index = 4; distributionLod = 2 node.distribution = 3"}));
    EXPECT_EQ(distributionLodOf(10, 4000, 100, 7), 7u);
    EXPECT_EQ(distributionLodOf(20, 4000, 100, 7), 14u);
    EXPECT_EQ(distributionLodOf(5, 10, 100, 7), 5u);
}

}  // namespace
