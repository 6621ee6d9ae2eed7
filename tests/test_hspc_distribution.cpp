// The point distribution's threads and the data set they write: sorted runs written through the input
// handler, a layout of leaves over them, and the data set read back through its tree and node blocks.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "hspc/convert/FinalTree.h"
#include "hspc/convert/MortonRecords.h"
#include "hspc/convert/PointDistribution.h"
#include "hspc/convert/TakeTable.h"
#include "hspc/format/AttributeRecord.h"
#include "hspc/format/NodeBlobName.h"
#include "hspc/format/NodeDecompressor.h"
#include "hspc/store/CustomStore.h"
#include "hspc/store/DiskArchive.h"
#include "hspc/store/FolderStore.h"
#include "hspc/tree/SerializeTree.h"
#include "support/MessageLog.h"
#include "support/TempFolder.h"

using namespace HSPC;

namespace
{

using Record = std::vector<uint8_t>;

// Records: the position's Morton code, a U32 id and a U16 intensity.
template <typename W>
constexpr uint32_t kRecordSize = MortonIndex3D<W>::kBytes + 6;

template <typename W>
std::vector<Attribute> attributes()
{
    return {{MortonIndex3D<W>::kAttributeTypeCode, AttributeRole::POSITION, "POSITION"},
            {AttributeType::U32, AttributeRole::CUSTOM, "id"},
            {AttributeType::U16, AttributeRole::INTENSITY, "Intensity"}};
}

template <typename W>
MortonIndex3D<W> codeOf(const Record& record)
{
    return loadMortonKey<W>(record.data());
}

// `count` points in clusters over a cube of 2^16 cells a side around the origin; with `duplicateEvery`, each
// such point repeats the position of the point before it under an id of its own.
template <typename W>
std::vector<Record> makePoints(uint32_t count, uint32_t seed, uint32_t duplicateEvery = 0)
{
    std::mt19937 random(seed);
    std::vector<Record> points;
    std::array<int32_t, 3> centre{};
    std::array<int32_t, 3> position{};
    for (uint32_t id = 0; id < count; ++id)
    {
        if (id % 4000 == 0)
        {
            for (int32_t& axis : centre)
            {
                axis = int32_t(random() % 65536) - 32768;
            }
        }
        if (duplicateEvery == 0 || id % duplicateEvery != duplicateEvery - 1)
        {
            for (unsigned axis = 0; axis < 3; ++axis)
            {
                position[axis] = centre[axis] + int32_t(random() % 2048);
            }
        }
        Record record(kRecordSize<W>);
        storeMortonKey(record.data(), encodeMortonSigned<W>(position[0], position[1], position[2]));
        const uint16_t intensity = uint16_t(random());
        std::memcpy(record.data() + MortonIndex3D<W>::kBytes, &id, 4);
        std::memcpy(record.data() + MortonIndex3D<W>::kBytes + 4, &intensity, 2);
        points.push_back(record);
    }
    return points;
}

template <typename W>
bool byCode(const Record& a, const Record& b)
{
    return codeOf<W>(a) < codeOf<W>(b);
}

// A temp folder, the configuration, and an input handler holding `runCount` sorted runs of the points on
// disk, with a layout whose leaves are the occupied cells at `leafLod`.
template <typename W>
struct DistributionSetup
{
    pcp_test::TempFolder folder;
    pcp_test::LockedMessageLog info;
    pcp_test::LockedMessageLog errors;
    std::mutex progressMutex;
    std::vector<int> progress;
    RuntimeConfig config;
    std::unique_ptr<PointDistributionInputHandler<W>> input;
    DistributionLayout<W> layout;
    ProcessHandle handle;

    DistributionSetup(const std::vector<Record>& points, uint32_t runCount, unsigned leafLod, uint32_t nodeSize)
    {
        config.encodingAttributes = config.inputAttributes = attributes<W>();
        config.encodedRecordSize = config.inputRecordSize = kRecordSize<W>;
        config.attributeId = computeAttributeId(config.encodingAttributes, kRecordSize<W>);
        config.scale = {0.01, 0.01, 0.01};
        config.origin = {100.0, 200.0, 300.0};
        config.batchSize = 1 << 20;
        config.targetMemory = 64 << 20;
        config.nodeSize = config.topNodeSize = nodeSize;
        config.maxNodeSize = nodeSize * 4;
        config.distributionWorkerCount = 2;
        config.nodeWriterCount = 2;
        config.reservedThreads = 2;
        config.tempPath = (folder.path() / "temp").string();
        config.outputPath = (folder.path() / "out").string();
        config.treeName = "tree";
        std::filesystem::create_directories(config.tempPath);
        setTempPrefixes(config, 5);
        config.infoLogger = info.logger();
        config.warningLogger = errors.logger();
        config.errorLogger = errors.logger();
        config.progressLogger = [this](int percent, const std::string&)
        {
            std::lock_guard lock(progressMutex);
            progress.push_back(percent);
        };
        config.requestJsonConfig = [] { return JsonInfo("{}"); };
        input = std::make_unique<PointDistributionInputHandler<W>>(config);

        // Point i goes to run i mod runCount; each run sorted on its own.
        std::vector<std::vector<Record>> runs(runCount);
        for (std::size_t i = 0; i < points.size(); ++i)
        {
            runs[i % runCount].push_back(points[i]);
        }
        FirstStageResults<W> results;
        for (uint32_t run = 0; run < runCount; ++run)
        {
            std::stable_sort(runs[run].begin(), runs[run].end(), byCode<W>);
            ReadBuffer<W> buffer;
            buffer.fileNumber = run;
            buffer.pointCount = uint32_t(runs[run].size());
            buffer.first = codeOf<W>(runs[run].front());
            buffer.last = codeOf<W>(runs[run].back());
            buffer.fileBytes = uint64_t(buffer.pointCount) * kRecordSize<W>;
            std::ofstream out(input->tempPointFile(run), std::ios::binary);
            for (const Record& record : runs[run])
            {
                out.write(reinterpret_cast<const char*>(record.data()), std::streamsize(record.size()));
            }
            results.runs.push_back(std::move(buffer));
        }
        EXPECT_TRUE(input->addWorkerResults(std::move(results), input->blankStatistics()));
        buildLayout(runs, leafLod);
    }

    void buildLayout(const std::vector<std::vector<Record>>& runs, unsigned leafLod)
    {
        std::map<MortonIndex3D<W>, std::vector<RunSlice>> cells;
        for (uint32_t run = 0; run < runs.size(); ++run)
        {
            for (std::size_t i = 0; i < runs[run].size();)
            {
                const MortonIndex3D<W> cell = cellStartAtLod(codeOf<W>(runs[run][i]), leafLod);
                std::size_t end = i;
                while (end < runs[run].size() && cellStartAtLod(codeOf<W>(runs[run][end]), leafLod) == cell)
                {
                    ++end;
                }
                cells[cell].push_back(RunSlice{run, i, uint32_t(end - i)});
                i = end;
            }
        }
        std::vector<LeafEntry<W>> leaves;
        layout.sliceBegin.push_back(0);
        for (const auto& [cell, slices] : cells)
        {
            uint32_t count = 0;
            for (const RunSlice& slice : slices)
            {
                count += slice.pointCount;
                layout.slices.push_back(slice);
            }
            layout.sliceBegin.push_back(uint32_t(layout.slices.size()));
            leaves.push_back(LeafEntry<W>{cell, count, uint8_t(leafLod)});
            layout.totalPoints += count;
        }
        layout.takes = computeTakeTable(config, leafLod);
        layout.upper = buildUpperTree(std::move(leaves), layout.takes).value();
    }

    bool tempFilesLeft() const { return !std::filesystem::is_empty(config.tempPath); }
};

// One node of a written data set, found by walking its tree from the root.
template <typename W>
struct ReadNode
{
    unsigned lod = 0;
    std::array<uint64_t, 3> corner{};
    TreeNode node;
    std::vector<Record> records;
};

template <typename W>
std::vector<ReadNode<W>> readDataSet(const std::string& folder, Tree& tree)
{
    FolderReader reader(folder);
    std::vector<uint8_t> bytes;
    std::string error;
    const LogFunction log = [&](const std::string& text) { error = text; };
    EXPECT_TRUE(reader.read(kQueryTreeName, bytes));
    EXPECT_TRUE(loadTree(bytes, tree, log)) << error;
    std::vector<ReadNode<W>> nodes(tree.nodes.size());
    if (nodes.empty())
    {
        return nodes;
    }
    nodes[0].lod = tree.header.maxLod;
    for (unsigned axis = 0; axis < 3; ++axis)
    {
        nodes[0].corner[axis] = uint64_t(tree.header.rootOffset[axis]);
    }
    const std::vector<OutputAction> actions = {{0, 0, MortonIndex3D<W>::kAttributeTypeCode},
                                               {1, MortonIndex3D<W>::kBytes, AttributeType::U32},
                                               {2, MortonIndex3D<W>::kBytes + 4, AttributeType::U16}};
    const std::unique_ptr<NodeDecompressor> decompressor = NodeDecompressor::create(tree.header.maxNodeSize);
    for (std::size_t i = 0; i < nodes.size(); ++i)
    {
        ReadNode<W>& read = nodes[i];
        read.node = tree.nodes[i];
        uint32_t child = read.node.link;
        for (unsigned octant = 0; octant < 8 && read.node.childMask != 0; ++octant)
        {
            if ((read.node.childMask >> octant) & 1u)
            {
                nodes[child].lod = read.lod - 1;
                for (unsigned axis = 0; axis < 3; ++axis)
                {
                    nodes[child].corner[axis] = read.corner[axis] + (uint64_t((octant >> axis) & 1u) << (read.lod - 1));
                }
                ++child;
            }
        }
        if (read.node.pointCount == 0)
        {
            continue;
        }
        std::vector<uint8_t> block;
        const std::string name = nodeBlobName(read.lod, read.corner[0], read.corner[1], read.corner[2]);
        EXPECT_TRUE(reader.read(name, block)) << name;
        std::vector<uint8_t> records(std::size_t(read.node.pointCount) * kRecordSize<W>);
        NodeHeader header;
        EXPECT_TRUE(decompressNodeBlock(block, *decompressor, NodeOutput{records, kRecordSize<W>, actions},
                                        header, log))
            << name << error;
        for (std::size_t at = 0; at < records.size(); at += kRecordSize<W>)
        {
            read.records.emplace_back(records.begin() + at, records.begin() + at + kRecordSize<W>);
        }
    }
    return nodes;
}

// Every record lies in its node's cell; nodes hold at most maxNodeSize points, inner nodes at most their
// take; the lod lines of the log count the nodes. Returns all records.
template <typename W>
std::vector<Record> checkedRecords(const std::vector<ReadNode<W>>& nodes, const DistributionSetup<W>& setup)
{
    std::vector<Record> all;
    for (const ReadNode<W>& node : nodes)
    {
        EXPECT_EQ(node.records.size(), node.node.pointCount);
        EXPECT_LE(node.node.pointCount, setup.config.maxNodeSize);
        if (node.node.childMask != 0)
        {
            EXPECT_LE(node.node.pointCount, setup.layout.takes[node.lod]);
        }
        for (const Record& record : node.records)
        {
            const std::array<W, 3> cell = decodeMorton(cellStartAtLod(codeOf<W>(record), node.lod));
            EXPECT_EQ((std::array<uint64_t, 3>{cell[0], cell[1], cell[2]}), node.corner);
            all.push_back(record);
        }
    }
    std::sort(all.begin(), all.end());
    return all;
}

template <typename W>
class DistributionTest : public ::testing::Test
{
};

using Words = ::testing::Types<uint32_t, uint64_t>;
TYPED_TEST_SUITE(DistributionTest, Words);

TYPED_TEST(DistributionTest, EveryPointEndsInExactlyOneNode)
{
    using W = TypeParam;
    std::vector<Record> points = makePoints<W>(120000, 11);
    DistributionSetup<W> setup(points, 3, 9, 3000);
    // The upper tree has nodes that gather their points from several leaves.
    ASSERT_TRUE(std::any_of(setup.layout.upper.nodes.begin(), setup.layout.upper.nodes.end(),
                            [](const auto& node) { return node.feedingLeaves > 1; }));

    const ConversionFailures failures = distributePoints(setup.config, *setup.input, setup.layout, setup.handle);
    ASSERT_TRUE(failures.empty()) << failures.front().message;
    EXPECT_FALSE(setup.tempFilesLeft());

    Tree tree;
    const std::vector<ReadNode<W>> nodes = readDataSet<W>(setup.config.outputPath, tree);
    std::sort(points.begin(), points.end());
    EXPECT_EQ(checkedRecords(nodes, setup), points);
    EXPECT_EQ(tree.header.pointCount, points.size());
    EXPECT_GT(tree.header.maxLod, 9);
    EXPECT_EQ(tree.header.nodeSize, 3000u);

    // Each upper node holds exactly the take the plan gave it, gathered from its leaves.
    std::map<std::pair<unsigned, std::array<uint64_t, 3>>, uint32_t> counts;
    for (const ReadNode<W>& node : nodes)
    {
        counts[{node.lod, node.corner}] = node.node.pointCount;
    }
    for (const NodeDistribution<W>& planned : setup.layout.upper.nodes)
    {
        if (!planned.isLeafTop)
        {
            const std::array<W, 3> corner = decodeMorton(planned.index);
            EXPECT_EQ((counts[{planned.lod, {corner[0], corner[1], corner[2]}}]), planned.take);
        }
    }

    // The log states the structure lod by lod; the progress climbs from above 50 to at most 100.
    ASSERT_TRUE(setup.info.contains("HSPC Info octree structure: "));
    uint64_t logged = 0;
    for (const std::string& line : setup.info.lines)
    {
        const std::size_t at = line.find(" nbOfNodes : ");
        logged += at == std::string::npos ? 0 : std::stoull(line.substr(at + 13));
    }
    const uint64_t withPoints =
        uint64_t(std::count_if(nodes.begin(), nodes.end(), [](const auto& n) { return n.node.pointCount > 0; }));
    EXPECT_EQ(logged, withPoints);
    ASSERT_FALSE(setup.progress.empty());
    EXPECT_TRUE(std::is_sorted(setup.progress.begin(), setup.progress.end()));
    EXPECT_GT(setup.progress.front(), 50);
    EXPECT_GE(setup.progress.back(), 95);
    EXPECT_LE(setup.progress.back(), 100);
}

TEST(Distribution, DuplicatesAreDroppedAndSmallDataSetsAreOneNode)
{
    using W = uint32_t;
    // Every tenth point repeats its predecessor's position: one of the two is kept.
    const std::vector<Record> points = makePoints<W>(30000, 5, 10);
    DistributionSetup<W> setup(points, 4, 8, 2000);
    ASSERT_TRUE(distributePoints(setup.config, *setup.input, setup.layout, setup.handle).empty());
    Tree tree;
    const std::vector<ReadNode<W>> nodes = readDataSet<W>(setup.config.outputPath, tree);
    std::vector<MortonIndex3D<W>> written;
    for (const Record& record : checkedRecords(nodes, setup))
    {
        written.push_back(codeOf<W>(record));
    }
    std::set<MortonIndex3D<W>> distinct;
    for (const Record& point : points)
    {
        distinct.insert(codeOf<W>(point));
    }
    std::sort(written.begin(), written.end());
    EXPECT_EQ(written, std::vector<MortonIndex3D<W>>(distinct.begin(), distinct.end()));
    EXPECT_EQ(tree.header.pointCount, distinct.size());

    // Fewer points than a node holds, over several leaves and runs: one node holds them all.
    const std::vector<Record> few = makePoints<W>(500, 6);
    DistributionSetup<W> small(few, 2, 4, 1000);
    ASSERT_GT(small.layout.upper.leaves.size(), 1u);
    ASSERT_TRUE(distributePoints(small.config, *small.input, small.layout, small.handle).empty());
    const std::vector<ReadNode<W>> one = readDataSet<W>(small.config.outputPath, tree);
    ASSERT_EQ(one.size(), 1u);
    EXPECT_EQ(one[0].records.size(), few.size());
}

TEST(Distribution, EqualPositionsBeyondANodeFailWithoutTheDuplicateFilter)
{
    using W = uint32_t;
    // Every point repeats the first one's position.
    DistributionSetup<W> setup(makePoints<W>(2000, 3, 1), 2, 0, 250);
    setup.config.filterDuplicates = false;
    const ConversionFailures failures = distributePoints(setup.config, *setup.input, setup.layout, setup.handle);
    ASSERT_EQ(failures.size(), 1u);
    EXPECT_EQ(failures[0].code, FailureCode::kStage);
    EXPECT_EQ(failures[0].message, "Could not distribute points onto nodes.");
    EXPECT_TRUE(setup.errors.contains("Failed to distribute points"));
    EXPECT_FALSE(setup.tempFilesLeft());

    // With the filter one point is left, in one node.
    DistributionSetup<W> filtered(makePoints<W>(2000, 3, 1), 2, 0, 250);
    ASSERT_TRUE(distributePoints(filtered.config, *filtered.input, filtered.layout, filtered.handle).empty());
    Tree tree;
    const std::vector<ReadNode<W>> nodes = readDataSet<W>(filtered.config.outputPath, tree);
    ASSERT_EQ(nodes.size(), 1u);
    EXPECT_EQ(nodes[0].records.size(), 1u);
}

// Deletes temp files like the default store, noting which threads did.
class WatchedTempFiles : public TempFileStore
{
public:
    bool remove(const std::string& path) override
    {
        std::lock_guard lock(m_mutex);
        threads.insert(std::this_thread::get_id());
        return TempFileStore::remove(path);
    }
    std::mutex m_mutex;
    std::set<std::thread::id> threads;
};

// Writes into a folder and calls `onNode` before each node blob; a node write fails when it returns false.
class HookedWriter : public FolderWriter
{
public:
    HookedWriter(std::string folder, std::function<bool(const std::string&)> onNode)
        : FolderWriter(std::move(folder)), m_onNode(std::move(onNode))
    {
    }
    bool write(const std::string& name, std::span<const uint8_t> bytes) override
    {
        if (name.ends_with(".apr") && !m_onNode(name))
        {
            return false;
        }
        return FolderWriter::write(name, bytes);
    }

private:
    std::function<bool(const std::string&)> m_onNode;
};

TEST(Distribution, FewRunsAreReadByOneThreadAndEachRunFileGoesOnceRead)
{
    using W = uint32_t;
    DistributionSetup<W> setup(makePoints<W>(40000, 7), 29, 8, 2000);
    const auto files = std::make_shared<WatchedTempFiles>();
    setup.input->setTempFileStore(files);
    ASSERT_TRUE(distributePoints(setup.config, *setup.input, setup.layout, setup.handle).empty());
    EXPECT_EQ(files->threads.size(), 1u);
    EXPECT_EQ(files->threads.count(std::this_thread::get_id()), 0u);
    EXPECT_FALSE(setup.tempFilesLeft());
}

TEST(Distribution, FolderArchiveAndCallbacksGetTheSameNodes)
{
    using W = uint32_t;
    const std::vector<Record> points = makePoints<W>(40000, 13);

    // Into a folder, with so little memory that the read thread has to wait for the workers.
    DistributionSetup<W> inFolder(points, 5, 8, 1500);
    inFolder.config.targetMemory = 256 * 1024;
    ASSERT_TRUE(distributePoints(inFolder.config, *inFolder.input, inFolder.layout, inFolder.handle).empty());

    DistributionSetup<W> inArchive(points, 5, 8, 1500);
    const std::string archive = inArchive.config.outputPath + "/tree.hspc.pack";
    std::filesystem::create_directories(inArchive.config.outputPath);
    inArchive.config.rootWriter = std::make_shared<DiskWriteArchive>(archive);
    ASSERT_TRUE(distributePoints(inArchive.config, *inArchive.input, inArchive.layout, inArchive.handle).empty());
    inArchive.config.rootWriter.reset();

    DistributionSetup<W> byCallback(points, 5, 8, 1500);
    std::mutex mutex;
    std::map<std::string, std::vector<uint8_t>> blobs;
    byCallback.config.rootWriter = std::make_shared<CustomWriter>(
        [&](const std::string& name, const std::vector<uint8_t>& bytes)
        {
            std::lock_guard lock(mutex);
            blobs[name] = bytes;
            return true;
        });
    ASSERT_TRUE(distributePoints(byCallback.config, *byCallback.input, byCallback.layout, byCallback.handle).empty());
    ASSERT_TRUE(blobs.count("/tree.hspc") && blobs.count(kQueryTreeName) && blobs.count(kInfoName));

    FolderReader folder(inFolder.config.outputPath);
    DiskReadArchive packed(archive);
    std::size_t nodes = 0;
    for (const auto& [name, bytes] : blobs)
    {
        if (!name.ends_with(".apr"))
        {
            continue;
        }
        ++nodes;
        std::vector<uint8_t> fromFolder;
        std::vector<uint8_t> fromArchive;
        EXPECT_TRUE(folder.read(name, fromFolder)) << name;
        EXPECT_TRUE(packed.read(name, fromArchive)) << name;
        EXPECT_EQ(fromFolder, bytes) << name;
        EXPECT_EQ(fromArchive, bytes) << name;
    }
    Tree tree;
    EXPECT_EQ(readDataSet<W>(inFolder.config.outputPath, tree).size(), nodes);
}

TEST(Distribution, FinalTreeStandsInEmptyNodesForCellsWithoutPoints)
{
    RuntimeConfig config;
    config.nodeSize = 100;
    config.maxNodeSize = 400;
    const auto written = [](uint32_t x, uint32_t y, unsigned lod, uint32_t points)
    {
        WrittenNode<uint32_t> node;
        node.index = encodeMorton<uint32_t>(x, y, 0);
        node.lod = uint8_t(lod);
        node.pointCount = points;
        node.localMax = {1, 1, 1};
        return node;
    };
    // A root at lod 5 and two nodes at lod 2 whose ancestors at lods 4 and 3 hold nothing.
    Tree tree;
    ASSERT_TRUE(buildFinalTree<uint32_t>({written(0, 4, 2, 7), written(0, 0, 5, 10), written(4, 0, 2, 3)}, config,
                                         tree));
    EXPECT_EQ(tree.header.maxLod, 5);
    EXPECT_EQ(tree.header.minLod, 2);
    EXPECT_EQ(tree.header.pointCount, 20u);
    EXPECT_EQ(tree.lodNodeCounts, (std::vector<uint64_t>{1, 1, 1, 2}));
    ASSERT_EQ(tree.nodes.size(), 5u);
    EXPECT_EQ(tree.nodes[0].childMask, 1);
    EXPECT_EQ(tree.nodes[1].childMask, 1);
    EXPECT_EQ(tree.nodes[1].pointCount, 0u);
    EXPECT_FALSE(hasValidBox(tree.nodes[1]));
    EXPECT_EQ(tree.nodes[2].childMask, 0b110);
    EXPECT_EQ(tree.nodes[3].pointCount, 3u);
    EXPECT_EQ(tree.nodes[4].pointCount, 7u);

    // Two nodes of one name make no tree.
    EXPECT_FALSE(buildFinalTree<uint32_t>({written(4, 0, 2, 3), written(4, 0, 2, 3)}, config, tree));

    // No leaves at all: the data set is an empty tree.
    DistributionSetup<uint32_t> setup(makePoints<uint32_t>(10, 1), 1, 4, 100);
    setup.layout = DistributionLayout<uint32_t>{};
    setup.layout.sliceBegin = {0};
    setup.layout.upper.leafTakeBegin = {0};
    ASSERT_TRUE(distributePoints(setup.config, *setup.input, setup.layout, setup.handle).empty());
    EXPECT_TRUE(readDataSet<uint32_t>(setup.config.outputPath, tree).empty());
    EXPECT_EQ(tree.header.pointCount, 0u);
}

TEST(Distribution, CancelAndFailedWritesEndTheStageCleanly)
{
    using W = uint32_t;
    const std::vector<Record> points = makePoints<W>(60000, 9);
    {
        // A cancel while nodes are being written.
        DistributionSetup<W> setup(points, 3, 8, 1000);
        std::atomic<int> written{0};
        setup.config.rootWriter = std::make_shared<HookedWriter>(setup.config.outputPath, [&](const std::string&)
        {
            if (++written == 5)
            {
                setup.handle.cancel();
            }
            return true;
        });
        const ConversionFailures failures =
            distributePoints(setup.config, *setup.input, setup.layout, setup.handle);
        ASSERT_EQ(failures.size(), 1u);
        EXPECT_EQ(failures[0].code, FailureCode::kCancelled);
        EXPECT_EQ(failures[0].message, "Distribution main thread: process got cancelled!");
        EXPECT_FALSE(setup.tempFilesLeft());
        EXPECT_FALSE(std::filesystem::exists(setup.config.outputPath + "/tree.hspc"));
    }
    {
        // A node writer that fails: the stage names the node's blob.
        DistributionSetup<W> setup(points, 3, 8, 1000);
        std::mutex mutex;
        std::string failedName;
        int seen = 0;
        setup.config.rootWriter = std::make_shared<HookedWriter>(setup.config.outputPath, [&](const std::string& name)
        {
            std::lock_guard lock(mutex);
            if (++seen == 3)
            {
                failedName = name;
                return false;
            }
            return true;
        });
        const ConversionFailures failures =
            distributePoints(setup.config, *setup.input, setup.layout, setup.handle);
        ASSERT_FALSE(failures.empty());
        EXPECT_EQ(failures[0].message, "Failed to write node file=" + failedName);
        EXPECT_TRUE(setup.errors.contains("Failed to write node file=" + failedName));
        EXPECT_FALSE(setup.tempFilesLeft());
    }
    {
        // A run's file lost before it is read: the first leaf with a slice in it cannot be read.
        DistributionSetup<W> setup(points, 3, 8, 1000);
        std::filesystem::remove(setup.input->tempPointFile(2));
        uint32_t leaf = 0;
        while (std::none_of(setup.layout.slices.begin() + setup.layout.sliceBegin[leaf],
                            setup.layout.slices.begin() + setup.layout.sliceBegin[leaf + 1],
                            [](const RunSlice& slice) { return slice.run == 2; }))
        {
            ++leaf;
        }
        const ConversionFailures failures =
            distributePoints(setup.config, *setup.input, setup.layout, setup.handle);
        ASSERT_FALSE(failures.empty());
        EXPECT_EQ(failures[0].message, "Could not read leaf data for iRead=" + std::to_string(leaf));
        EXPECT_TRUE(setup.errors.contains("Failed to read file=" + setup.input->tempPointFile(2) +
                                          "; You might want to check your disk."));
        EXPECT_FALSE(setup.tempFilesLeft());
    }
}

}  // namespace
