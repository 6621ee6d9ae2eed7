// The distribution's plan from the cell counts: leaf entries read back through bounded windows, the merge of
// the leaf arrays into read cells and critical cells, the take per lod and the upper tree, on hand-built
// entries and on what a real raw sort leaves behind.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "hspc/convert/BufferInputStructure.h"
#include "hspc/convert/LeafMerge.h"
#include "hspc/convert/MortonRecords.h"
#include "hspc/convert/ProcessHandle.h"
#include "hspc/convert/RawSort.h"
#include "hspc/convert/TakeTable.h"
#include "hspc/convert/UpperTree.h"
#include "support/MessageLog.h"
#include "support/MortonRecordRuns.h"
#include "support/TempFolder.h"

using namespace HSPC;

namespace
{

template <typename W>
MortonIndex3D<W> code(uint64_t value)
{
    if constexpr (sizeof(W) == 4)
    {
        return MortonIndex3D<W>{{W(value), W(value >> 32), 0}};
    }
    else
    {
        return MortonIndex3D<W>{{value, 0, 0}};
    }
}

template <typename W>
LeafEntry<W> entry(uint64_t index, uint32_t count, uint8_t lod)
{
    return LeafEntry<W>{code<W>(index), count, lod};
}

template <typename W>
bool sameEntries(const std::vector<LeafEntry<W>>& a, const std::vector<LeafEntry<W>>& b)
{
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](const LeafEntry<W>& x, const LeafEntry<W>& y)
                      { return x.index == y.index && x.count == y.count && x.lod == y.lod; });
}

template <typename W>
std::string writeLeafFile(const std::filesystem::path& path, const std::vector<LeafEntry<W>>& entries)
{
    std::vector<uint8_t> bytes(entries.size() * LeafEntry<W>::kPackedSize);
    for (std::size_t i = 0; i < entries.size(); ++i)
    {
        storeLeafEntry(bytes.data() + i * LeafEntry<W>::kPackedSize, entries[i]);
    }
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
    return path.string();
}

template <typename W>
std::vector<LeafEntry<W>> drain(BufferInputStructureBase<W>& source)
{
    std::vector<LeafEntry<W>> seen;
    for (; source.hasEntry(); source.advance())
    {
        seen.push_back(source.current());
    }
    return seen;
}

// Sorted entries of cells that do not overlap, at lods 0 to 3, with counts up to `largest`.
template <typename W>
std::vector<LeafEntry<W>> randomEntries(std::mt19937_64& random, std::size_t count, uint32_t largest)
{
    std::vector<LeafEntry<W>> entries;
    uint64_t next = 0;
    for (std::size_t i = 0; i < count; ++i)
    {
        const uint8_t lod = uint8_t(random() % 4);
        const uint64_t size = uint64_t(1) << (3 * lod);
        const uint64_t start = (next + random() % (4 * size) + size - 1) / size * size;
        entries.push_back(entry<W>(start, uint32_t(1 + random() % largest), lod));
        next = start + size;
    }
    return entries;
}

template <typename W>
class DistributionPlanTest : public ::testing::Test
{
};

using Words = ::testing::Types<uint32_t, uint64_t>;
TYPED_TEST_SUITE(DistributionPlanTest, Words);

TYPED_TEST(DistributionPlanTest, DiskWindowsGiveTheEntriesOfTheArrayAndBadFilesFailClearly)
{
    using W = TypeParam;
    constexpr uint64_t kEntry = LeafEntry<W>::kPackedSize;
    pcp_test::TempFolder folder;
    std::mt19937_64 random(11);
    const std::vector<LeafEntry<W>> entries = randomEntries<W>(random, 1000, 5000);
    const std::string path = writeLeafFile<W>(folder.path() / "leaves.dat", entries);

    BufferMemInputStructure<W> memory(entries);
    EXPECT_TRUE(sameEntries(drain(memory), entries));
    // One entry, less than one entry, a window that ends inside an entry, the smallest merge window, more
    // than the file.
    for (uint64_t window :
         std::vector<uint64_t>{kEntry, kEntry - 1, 3 * kEntry + 5, 170, 1000 * kEntry + 1, 1u << 20})
    {
        pcp_test::MessageLog errors;
        BufferDiskInputStructure<W> disk(path, window, errors.logger());
        EXPECT_TRUE(sameEntries(drain(disk), entries)) << "window " << window;
        EXPECT_TRUE(disk.valid());
        EXPECT_TRUE(errors.lines.empty());
    }

    pcp_test::MessageLog errors;
    const std::string empty = writeLeafFile<W>(folder.path() / "empty.dat", {});
    BufferDiskInputStructure<W> emptySource(empty, 170, errors.logger());
    EXPECT_TRUE(emptySource.valid());
    EXPECT_FALSE(emptySource.hasEntry());

    const std::string missing = (folder.path() / "missing.dat").string();
    BufferDiskInputStructure<W> missingSource(missing, 170, errors.logger());
    EXPECT_FALSE(missingSource.valid());
    EXPECT_FALSE(missingSource.hasEntry());

    // Cut inside its last entry.
    const std::string cut = writeLeafFile<W>(folder.path() / "cut.dat", entries);
    std::filesystem::resize_file(cut, 10 * kEntry + 3);
    BufferDiskInputStructure<W> cutSource(cut, 170, errors.logger());
    EXPECT_FALSE(cutSource.valid());

    // Out of order in its second window; the first window is still handed out.
    std::vector<LeafEntry<W>> disordered = entries;
    std::swap(disordered[20], disordered[21]);
    const std::string unordered = writeLeafFile<W>(folder.path() / "unordered.dat", disordered);
    BufferDiskInputStructure<W> unorderedSource(unordered, 16 * kEntry, errors.logger());
    EXPECT_EQ(drain(unorderedSource).size(), 16u);
    EXPECT_FALSE(unorderedSource.valid());

    // A lod past the whole space.
    std::vector<LeafEntry<W>> badLod = entries;
    badLod[3].lod = kNoLod;
    const std::string wrongLod = writeLeafFile<W>(folder.path() / "lod.dat", badLod);
    BufferDiskInputStructure<W> wrongLodSource(wrongLod, 170, errors.logger());
    EXPECT_FALSE(wrongLodSource.valid());

    EXPECT_EQ(errors.lines,
              (std::vector<std::string>{
                  "Error: Could not open file = " + missing, "Error: Could not read file = " + cut,
                  "Error: Could not read file = " + unordered, "Error: Could not read file = " + wrongLod}));
}

// Every point counted once: the read cells and the point critical cells hold all points of `inputs`, do not
// overlap, cover every input entry, and the read cells keep within the limit and the max lod. A read cell's
// distribution entries lie inside it, at two lods below it, and hold its points, unless it is critical.
template <typename W>
void expectEveryPointFiledOnce(const DistributionPlan<W>& plan, const std::vector<LeafEntry<W>>& inputs,
                               uint32_t limit)
{
    uint64_t total = 0;
    for (const LeafEntry<W>& input : inputs)
    {
        total += input.count;
    }
    std::vector<LeafEntry<W>> cells;
    std::size_t critical = 0;
    for (const ReadCell<W>& read : plan.readList)
    {
        EXPECT_LE(read.count, limit);
        EXPECT_LE(read.lod, plan.maxLod);
        EXPECT_EQ(cellStartAtLod(read.index, read.lod), read.index);
        cells.push_back(LeafEntry<W>{read.index, read.count, read.lod});
        if (read.distributionBegin == read.distributionEnd)
        {
            ++critical;
            continue;
        }
        uint64_t distributed = 0;
        for (uint32_t i = read.distributionBegin; i < read.distributionEnd; ++i)
        {
            const LeafEntry<W>& part = plan.distributionList[i];
            EXPECT_EQ(part.lod, std::max(int(read.lod) - 2, 0));
            EXPECT_EQ(cellStartAtLod(part.index, read.lod), read.index);
            distributed += part.count;
        }
        EXPECT_EQ(distributed, read.count);
    }
    EXPECT_EQ(critical, plan.distributionCritical.size());
    EXPECT_EQ(plan.distributionCriticalLods.size(), plan.distributionCritical.size());
    for (const LeafEntry<W>& entry : plan.pointCritical)
    {
        EXPECT_GT(entry.count, limit);
        cells.push_back(entry);
    }
    std::sort(cells.begin(), cells.end(), [](const auto& a, const auto& b) { return a.index < b.index; });
    uint64_t filed = 0;
    for (std::size_t i = 0; i < cells.size(); ++i)
    {
        filed += cells[i].count;
        if (i + 1 < cells.size())
        {
            EXPECT_LE(nextIndexAtLod(cells[i].index, cells[i].lod), cells[i + 1].index)
                << "cells overlap at " << i;
        }
    }
    EXPECT_EQ(filed, total);
    for (const LeafEntry<W>& input : inputs)
    {
        const auto after =
            std::upper_bound(cells.begin(), cells.end(), input.index,
                             [](const MortonIndex3D<W>& key, const auto& c) { return key < c.index; });
        // The entry's whole cell lies inside one filed cell, not just its first code: the runs' points
        // anywhere in it are counted there.
        const bool covered =
            after != cells.begin() && std::prev(after)->index <= input.index &&
            nextIndexAtLod(input.index, input.lod) <= nextIndexAtLod(std::prev(after)->index, std::prev(after)->lod);
        EXPECT_TRUE(covered) << "an input entry outside every cell";
    }
}

TYPED_TEST(DistributionPlanTest, MergeFoldsNestedEntriesAndFilesEveryCellByItsRule)
{
    using W = TypeParam;
    pcp_test::TempFolder folder;
    pcp_test::MessageLog info, errors;
    LeafMergeInput<W> input;
    input.maxLod = 10;
    input.mergeLimit = 100;
    input.memory = 1 << 20;
    input.infoLogger = info.logger();
    input.errorLogger = errors.logger();

    // Two cells within the limit, one entry above it alone, and a last entry that ends the merge on its own.
    const std::vector<LeafEntry<W>> single = {entry<W>(0, 60, 0), entry<W>(8, 60, 0), entry<W>(64, 150, 0),
                                              entry<W>(4096, 10, 0)};
    input.leaves = single;
    std::optional<DistributionPlan<W>> plan = mergeLeafNodes<W>(input);
    ASSERT_TRUE(plan);
    ASSERT_EQ(plan->readList.size(), 3u);
    EXPECT_EQ(plan->readList[0].index, code<W>(0));
    EXPECT_EQ(plan->readList[1].index, code<W>(8));
    EXPECT_EQ(plan->readList[2].index, code<W>(4096));
    EXPECT_EQ(plan->readList[1].lod, 1);
    EXPECT_EQ(plan->readList[2].count, 10u);
    EXPECT_TRUE(
        sameEntries(plan->distributionList, {entry<W>(0, 60, 0), entry<W>(8, 60, 0), entry<W>(4096, 10, 0)}));
    EXPECT_TRUE(sameEntries(plan->pointCritical, {entry<W>(64, 150, 0)}));
    EXPECT_TRUE(plan->distributionCritical.empty());
    expectEveryPointFiledOnce(*plan, single, input.mergeLimit);

    // An entry of a raster file inside a coarser entry of the array folds into it; a cell holding an entry
    // too coarse for its distribution lod is critical.
    const std::vector<LeafEntry<W>> array = {entry<W>(0, 30, 2), entry<W>(512, 50, 1)};
    const std::vector<LeafEntry<W>> spilled = {entry<W>(5, 10, 0), entry<W>(70, 20, 0)};
    input.leaves = array;
    input.rasterLeafFiles = {writeLeafFile<W>(folder.path() / "spilled.dat", spilled)};
    info.lines.clear();
    plan = mergeLeafNodes<W>(input);
    ASSERT_TRUE(plan);
    ASSERT_EQ(plan->readList.size(), 2u);
    EXPECT_EQ(plan->readList[0].count, 60u);
    EXPECT_EQ(plan->readList[0].lod, 3);
    EXPECT_TRUE(sameEntries(plan->distributionCritical, {entry<W>(0, 60, 3)}));
    EXPECT_EQ(plan->distributionCriticalLods, std::vector<uint8_t>{1});
    EXPECT_TRUE(sameEntries(plan->distributionList, {entry<W>(512, 50, 1)}));
    std::vector<LeafEntry<W>> all = array;
    all.insert(all.end(), spilled.begin(), spilled.end());
    expectEveryPointFiledOnce(*plan, all, input.mergeLimit);
    EXPECT_EQ(info.lines,
              std::vector<std::string>{"Recomputation: Point critical: 0; Distribution critical: 1"});

    info.lines.clear();
    logMergeSummary(*plan, input.mergeLimit, info.logger());
    EXPECT_EQ(info.lines,
              (std::vector<std::string>{"Max lod = 10", "Merge max point count = 60 < 100 = max points limit",
                                        "Read count         : 2", "Distribution count : 1"}));

    // A raster file that is gone stops the merge.
    input.rasterLeafFiles.push_back((folder.path() / "gone.dat").string());
    EXPECT_FALSE(mergeLeafNodes<W>(input));
    EXPECT_EQ(errors.lines.back(), "Error: Could not open file = " + input.rasterLeafFiles.back());
}

TYPED_TEST(DistributionPlanTest, MergeOfManySourcesFilesEveryPointOnce)
{
    using W = TypeParam;
    pcp_test::TempFolder folder;
    std::mt19937_64 random(5);
    for (unsigned round = 0; round < 6; ++round)
    {
        pcp_test::MessageLog errors;
        const uint32_t limit = round == 0 ? 1 : uint32_t(50 + random() % 2000);
        // Some entries above the limit; sources overlap and nest, as the workers' arrays do.
        const std::vector<LeafEntry<W>> entries = randomEntries<W>(random, 3000, limit + limit / 3);
        std::vector<std::vector<LeafEntry<W>>> sources(1 + round);
        for (const LeafEntry<W>& e : entries)
        {
            sources[random() % sources.size()].push_back(e);
        }
        LeafMergeInput<W> input;
        input.leaves = sources[0];
        for (std::size_t i = 1; i < sources.size(); ++i)
        {
            input.rasterLeafFiles.push_back(writeLeafFile<W>(
                folder.path() / ("r" + std::to_string(round) + "_" + std::to_string(i)), sources[i]));
        }
        input.maxLod = unsigned(4 + round * 2);
        input.mergeLimit = limit;
        // Small memory: windows of a few entries, refilled many times.
        input.memory = 0;
        input.errorLogger = errors.logger();
        const std::optional<DistributionPlan<W>> plan = mergeLeafNodes<W>(input);
        ASSERT_TRUE(plan) << "round " << round;
        expectEveryPointFiledOnce(*plan, entries, limit);
        EXPECT_TRUE(errors.lines.empty());
    }
}

TEST(DistributionPlan, MaxLodAndWindowSize)
{
    ReadBuffer<uint32_t> run;
    run.octants[0] = OctantRange<uint32_t>{code<uint32_t>(0), code<uint32_t>(7), 0, 2};
    ReadBuffer<uint32_t> wider;
    wider.octants[3] = OctantRange<uint32_t>{code<uint32_t>(512), code<uint32_t>(1023), 0, 2};
    const std::vector<ReadBuffer<uint32_t>> runs = {std::move(run), std::move(wider)};
    EXPECT_EQ(maxLodOfRuns<uint32_t>(runs), 3u);
    EXPECT_EQ(maxLodOfRuns<uint32_t>({}), 0u);

    EXPECT_EQ(mergeWindowBytes(1000, 9), 170u);
    EXPECT_EQ(mergeWindowBytes(100000, 9), 10000u);
    EXPECT_EQ(mergeWindowBytes(uint64_t(1) << 40, 0), 0x40000000u);
}

TEST(DistributionPlan, TakeTableFollowsTheNodeSizes)
{
    RuntimeConfig config;
    config.nodeSize = config.topNodeSize = 65536;
    config.nodeSizeSteps = 3;
    TakeTable take = computeTakeTable(config, 12);
    EXPECT_TRUE(std::all_of(take.begin(), take.end(), [](uint32_t t) { return t == 65536; }));

    config.nodeSize = 1000;
    config.topNodeSize = 10;
    config.nodeSizeSteps = 0;
    take = computeTakeTable(config, 6);
    for (unsigned lod = 0; lod < take.size(); ++lod)
    {
        EXPECT_EQ(take[lod], lod == 6 ? 10u : 1000u) << lod;
    }

    config.nodeSizeSteps = 2;
    take = computeTakeTable(config, 6);
    EXPECT_EQ(take[6], 10u);
    EXPECT_EQ(take[5], 100u);
    EXPECT_EQ(take[4], 1000u);
    EXPECT_EQ(take[0], 1000u);
    EXPECT_EQ(take[64], 1000u);
}

// The leaves of a plan as the upper tree takes them: the read cells and the point critical cells, in Morton
// order.
template <typename W>
std::vector<LeafEntry<W>> planLeaves(const DistributionPlan<W>& plan)
{
    std::vector<LeafEntry<W>> leaves;
    for (const ReadCell<W>& cell : plan.readList)
    {
        leaves.push_back(LeafEntry<W>{cell.index, cell.count, cell.lod});
    }
    for (const LeafEntry<W>& critical : plan.pointCritical)
    {
        leaves.push_back(LeafEntry<W>{cellStartAtLod(critical.index, critical.lod), critical.count, critical.lod});
    }
    std::sort(leaves.begin(), leaves.end(), [](const auto& a, const auto& b) { return a.index < b.index; });
    return leaves;
}

// Takes never exceed the points or the table; a node's take is shared out over its leaves exactly, no leaf
// giving more than it has and each giving to one node per lod, coarsest first; a node with points left over
// has children one lod below, whose leaves are the parent's and whose points are the parent's less its take;
// what a leaf does not give to the upper tree is what its own top node holds.
template <typename W>
void expectConsistentTree(const UpperTree<W>& tree, const TakeTable& take)
{
    ASSERT_FALSE(tree.nodes.empty());
    ASSERT_EQ(tree.leafTakeBegin.size(), tree.leaves.size() + 1);
    uint64_t total = 0;
    for (const LeafEntry<W>& leaf : tree.leaves)
    {
        total += leaf.count;
    }
    EXPECT_EQ(tree.nodes[0].points, total);
    std::vector<uint64_t> takenByNode(tree.nodes.size(), 0);
    std::vector<uint32_t> feeding(tree.nodes.size(), 0);
    std::vector<uint64_t> leftInLeaf(tree.leaves.size());
    for (std::size_t leaf = 0; leaf < tree.leaves.size(); ++leaf)
    {
        uint64_t given = 0;
        unsigned previousLod = 65;
        for (uint32_t t = tree.leafTakeBegin[leaf]; t < tree.leafTakeBegin[leaf + 1]; ++t)
        {
            const LeafTake& share = tree.leafTakes[t];
            const NodeDistribution<W>& node = tree.nodes[share.node];
            EXPECT_LT(node.lod, previousLod);
            previousLod = node.lod;
            EXPECT_GT(node.lod, tree.leaves[leaf].lod);
            EXPECT_EQ(cellStartAtLod(tree.leaves[leaf].index, node.lod), node.index);
            takenByNode[share.node] += share.points;
            ++feeding[share.node];
            given += share.points;
        }
        EXPECT_LE(given, tree.leaves[leaf].count);
        leftInLeaf[leaf] = tree.leaves[leaf].count - given;
    }
    uint64_t taken = 0;
    uint64_t leftToLeaves = 0;
    for (std::size_t i = 0; i < tree.nodes.size(); ++i)
    {
        const NodeDistribution<W>& node = tree.nodes[i];
        EXPECT_GT(node.points, 0u);
        EXPECT_EQ(takenByNode[i], node.take);
        EXPECT_EQ(feeding[i], node.feedingLeaves);
        if (node.isLeafTop)
        {
            EXPECT_EQ(node.take, 0u);
            EXPECT_EQ(node.childCount, 0u);
            EXPECT_EQ(node.leafEnd, node.firstLeaf + 1);
            EXPECT_EQ(node.points, leftInLeaf[node.firstLeaf]);
            leftToLeaves += node.points;
            continue;
        }
        EXPECT_LE(node.take, node.points);
        EXPECT_LE(node.take, take[node.lod]);
        taken += node.take;
        EXPECT_EQ(node.childCount > 0, node.points > node.take);
        uint64_t childPoints = 0;
        for (uint32_t c = node.firstChild; c < node.firstChild + node.childCount; ++c)
        {
            const NodeDistribution<W>& child = tree.nodes[c];
            EXPECT_EQ(child.lod + 1, node.lod);
            EXPECT_GE(child.firstLeaf, node.firstLeaf);
            EXPECT_LE(child.leafEnd, node.leafEnd);
            childPoints += child.points;
            for (uint32_t l = child.firstLeaf; l < child.leafEnd; ++l)
            {
                EXPECT_EQ(cellStartAtLod(tree.leaves[l].index, child.lod), child.index);
            }
        }
        EXPECT_EQ(childPoints, node.points - node.take);
    }
    EXPECT_EQ(taken + leftToLeaves, total);
}

TYPED_TEST(DistributionPlanTest, UpperTreeTakesFromTheTopDown)
{
    using W = TypeParam;
    TakeTable take;
    take.fill(100);

    // One leaf: the root is the leaf's own cell, which the leaf's distribution makes.
    UpperTree<W> tree = buildUpperTree(std::vector<LeafEntry<W>>{entry<W>(0, 50, 3)}, take).value();
    ASSERT_EQ(tree.nodes.size(), 1u);
    EXPECT_TRUE(tree.nodes[0].isLeafTop);
    EXPECT_EQ(tree.nodes[0].lod, 3);
    EXPECT_EQ(tree.nodes[0].points, 50u);
    EXPECT_TRUE(buildUpperTree(std::vector<LeafEntry<W>>{}, take).value().nodes.empty());

    // The root, the smallest cell over both leaves at lod 3, takes 100 of 160 evenly from its two occupied
    // cells; each child then takes its 30, and nothing is left for the leaves' own nodes.
    tree = buildUpperTree(std::vector<LeafEntry<W>>{entry<W>(0, 80, 1), entry<W>(64, 80, 1)}, take).value();
    ASSERT_EQ(tree.nodes.size(), 3u);
    EXPECT_EQ(tree.nodes[0].lod, 3);
    EXPECT_EQ(tree.nodes[0].childCount, 2u);
    EXPECT_EQ(tree.nodes[1].index, code<W>(0));
    EXPECT_EQ(tree.nodes[2].index, code<W>(64));
    EXPECT_EQ(tree.nodes[1].lod, 2);
    EXPECT_EQ(tree.nodes[1].take, 30u);
    EXPECT_EQ(tree.nodes[2].take, 30u);
    EXPECT_EQ(tree.leafTakes.size(), 4u);
    expectConsistentTree(tree, take);

    // A take shared over cells of 1, 1 and 10 points gives 1, 1 and 4; the third leaf's top keeps the 6 left.
    take.fill(6);
    tree = buildUpperTree(std::vector<LeafEntry<W>>{entry<W>(0, 1, 0), entry<W>(1, 1, 0), entry<W>(2, 10, 0)},
                          take)
               .value();
    ASSERT_EQ(tree.nodes.size(), 2u);
    EXPECT_EQ(tree.nodes[0].lod, 1);
    EXPECT_EQ(tree.nodes[0].feedingLeaves, 3u);
    ASSERT_EQ(tree.leafTakes.size(), 3u);
    EXPECT_EQ(tree.leafTakes[0].points, 1u);
    EXPECT_EQ(tree.leafTakes[1].points, 1u);
    EXPECT_EQ(tree.leafTakes[2].points, 4u);
    EXPECT_TRUE(tree.nodes[1].isLeafTop);
    EXPECT_EQ(tree.nodes[1].points, 6u);
    expectConsistentTree(tree, take);

    // Leaves of different lods, one of them far above the merge limit.
    take.fill(100);
    tree = buildUpperTree(
               std::vector<LeafEntry<W>>{entry<W>(0, 90, 2), entry<W>(64, 500, 1), entry<W>(4096, 90, 4)}, take)
               .value();
    expectConsistentTree(tree, take);
    EXPECT_TRUE(std::any_of(tree.nodes.begin(), tree.nodes.end(), [](const auto& n) { return n.isLeafTop; }));
}

TYPED_TEST(DistributionPlanTest, UpperTreeOfMergedRandomEntries)
{
    using W = TypeParam;
    std::mt19937_64 random(23);
    const std::vector<LeafEntry<W>> entries = randomEntries<W>(random, 5000, 700);
    LeafMergeInput<W> input;
    input.leaves = entries;
    input.maxLod = 9;
    input.mergeLimit = 600;
    input.memory = 1 << 20;
    const std::optional<DistributionPlan<W>> plan = mergeLeafNodes<W>(input);
    ASSERT_TRUE(plan);
    for (uint32_t nodeSize : {100u, 1000u, 100000u})
    {
        RuntimeConfig config;
        config.nodeSize = config.topNodeSize = nodeSize;
        const TakeTable take = computeTakeTable(config, plan->maxLod);
        const std::optional<UpperTree<W>> tree = buildUpperTree(planLeaves(*plan), take);
        ASSERT_TRUE(tree);
        expectConsistentTree(*tree, take);
        EXPECT_EQ(tree->nodes.size() == 1, tree->nodes[0].points <= nodeSize);
    }
}

TEST(DistributionPlan, PlanOfARealRawSortCountsEverySurvivingPoint)
{
    pcp_test::TempFolder folder;
    pcp_test::LockedMessageLog info, errors;
    RuntimeConfig config;
    pcp_test::setUpMortonRecordSort(config, folder.path().string(), 64 * 1024, 3 * 1024 * 1024);
    config.infoLogger = info.logger();
    config.warningLogger = errors.logger();
    config.errorLogger = errors.logger();
    config.nodeSize = config.topNodeSize = 20000;

    PointDistributionInputHandler<uint32_t> input(config);
    ProcessHandle handle;
    pcp_test::GeneratedMortonImporter first(0, 1000000, pcp_test::blockPosition);
    pcp_test::GeneratedMortonImporter second(1000000, 1000000, pcp_test::blockPosition);
    const ConversionFailures failures = rawSort<uint32_t>(config, {&first, &second}, input, handle);
    ASSERT_TRUE(failures.empty()) << failures.front().message;
    // The merge reads spilled leaf entries from disk, not just the array.
    ASSERT_FALSE(input.rasterLeafFiles().empty());
    uint64_t survivors = 0;
    for (const ReadBuffer<uint32_t>& run : input.readList())
    {
        survivors += run.pointCount;
    }
    EXPECT_GT(survivors, 1990000u);

    info.lines.clear();
    const std::optional<DistributionPlan<uint32_t>> plan = mergeLeafNodes<uint32_t>(input, 64 * 1024);
    ASSERT_TRUE(plan);
    uint64_t counted = plan->readPoints();
    for (const LeafEntry<uint32_t>& critical : plan->pointCritical)
    {
        counted += critical.count;
    }
    EXPECT_EQ(counted, survivors);
    EXPECT_EQ(plan->maxLod, maxLodOfRuns<uint32_t>(input.readList()));
    for (const ReadCell<uint32_t>& cell : plan->readList)
    {
        EXPECT_LE(cell.count, input.mergeLimit());
    }
    EXPECT_EQ(info.lines,
              std::vector<std::string>{
                  "Recomputation: Point critical: " + std::to_string(plan->pointCritical.size()) +
                  "; Distribution critical: " + std::to_string(plan->distributionCritical.size())});

    const TakeTable take = computeTakeTable(config, plan->maxLod);
    const std::optional<UpperTree<uint32_t>> tree = buildUpperTree(planLeaves(*plan), take);
    ASSERT_TRUE(tree);
    expectConsistentTree(*tree, take);
    EXPECT_GT(tree->nodes.size(), survivors / config.nodeSize);

    // A raster leaf file lost before the merge: the merge fails with the file's name and the handler's line.
    std::filesystem::remove(input.rasterLeafFile(input.rasterLeafFiles().front()));
    errors.lines.clear();
    EXPECT_FALSE(mergeLeafNodes<uint32_t>(input, 64 * 1024));
    EXPECT_EQ(errors.lines,
              (std::vector<std::string>{
                  "Error: Could not open file = " + input.rasterLeafFile(input.rasterLeafFiles().front()),
                  "point distribution input handler: Could not compute merge leaf nodes."}));
}

}  // namespace
