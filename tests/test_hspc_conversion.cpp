// Whole static conversions, read back: every point that entered is in exactly one node of the data set, the
// nodes keep their sizes, the output form does not change a byte of the nodes, and failing leaves fail the run.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <initializer_list>
#include <iterator>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "hspc/convert/EqualDistributionTake.h"
#include "hspc/format/MortonIndex3D.h"
#include "hspc/format/NodeBlobName.h"
#include "hspc/format/NodeDecompressor.h"
#include "hspc/store/CustomStore.h"
#include "hspc/store/DiskArchive.h"
#include "hspc/store/FolderStore.h"
#include "hspc/tree/SerializeTree.h"
#include "hspc/tree/TreeGeometry.h"
#include "support/HspcConversionSetup.h"

using namespace HSPC;
using pcp_test::ConversionSetup;

namespace
{

namespace fs = std::filesystem;

// A point as the tests compare them: its integer cell (millimetres) and its intensity.
struct PointRecord
{
    std::array<int32_t, 3> cell{};
    uint16_t intensity = 0;
    friend auto operator<=>(const PointRecord&, const PointRecord&) = default;
};

// The points that recordsFrom(first, count) generates, as the data set must hold them.
std::vector<PointRecord> generatedPoints(uint64_t first, uint64_t count)
{
    std::vector<PointRecord> points;
    for (uint64_t point = first; point < first + count; ++point)
    {
        PointRecord record;
        for (unsigned axis = 0; axis < 3; ++axis)
            record.cell[axis] = int32_t(point * (7919 + axis * 104729) % 5000003);
        record.intensity = uint16_t(point * 6);
        points.push_back(record);
    }
    return points;
}

struct ReadNode
{
    uint8_t lod = 0;
    std::array<uint64_t, 3> corner{};
    bool inner = false;
    std::vector<PointRecord> points;
};

struct ReadDataSet
{
    Tree tree;
    std::vector<ReadNode> nodes;
};

// Loads the full tree and decodes every node it names, position and intensity.
ReadDataSet readDataSet(RootReader& reader)
{
    ReadDataSet dataSet;
    std::vector<uint8_t> bytes;
    EXPECT_TRUE(reader.read(kQueryTreeName, bytes));
    std::string error;
    EXPECT_TRUE(loadTree(bytes, dataSet.tree, [&](const std::string& text) { error = text; })) << error;
    const std::vector<std::array<uint64_t, 3>> corners = nodeCorners(dataSet.tree);
    const std::vector<uint8_t> lods = nodeLods(dataSet.tree);
    const std::vector<OutputAction> actions{{0, 0, MortonIndex3D<uint32_t>::kAttributeTypeCode},
                                            {4, 12, AttributeType::U16}};
    constexpr size_t kStride = 14;
    for (size_t i = 0; i < dataSet.tree.nodes.size(); ++i)
    {
        const TreeNode& node = dataSet.tree.nodes[i];
        ReadNode read{lods[i], corners[i], node.childMask != 0, {}};
        std::vector<uint8_t> block;
        EXPECT_TRUE(reader.read(nodeBlobName(lods[i], corners[i][0], corners[i][1], corners[i][2]), block))
            << "node " << i;
        const auto decompressor = NodeDecompressor::create(std::max<uint32_t>(node.pointCount, 1));
        std::vector<uint8_t> records(size_t(node.pointCount) * kStride);
        NodeHeader header;
        EXPECT_TRUE(decompressNodeBlock(block, *decompressor, NodeOutput{records, kStride, actions}, header,
                                        [&](const std::string& text) { error = text; }))
            << "node " << i << ": " << error << decompressor->lastError();
        for (uint32_t k = 0; k < node.pointCount; ++k)
        {
            MortonIndex3D<uint32_t> code;
            std::memcpy(code.words.data(), records.data() + k * kStride, 12);
            const auto cell = decodeMortonSigned(code);
            read.points.push_back(PointRecord{{cell[0], cell[1], cell[2]},
                                              pcp_test::get<uint16_t>(records, k * kStride + 12)});
        }
        dataSet.nodes.push_back(std::move(read));
    }
    return dataSet;
}

std::vector<PointRecord> allPoints(const ReadDataSet& dataSet)
{
    std::vector<PointRecord> points;
    for (const ReadNode& node : dataSet.nodes)
        points.insert(points.end(), node.points.begin(), node.points.end());
    std::sort(points.begin(), points.end());
    return points;
}

// Converts points [0, perImporter * importers) through `importers` importers into the setup's output.
int convert(ConversionSetup& setup, uint64_t perImporter, unsigned importers)
{
    Converter converter(setup.basic, setup.advanced, setup.encoding);
    EXPECT_TRUE(converter.isConfigured()) << (setup.errors.lines.empty() ? "" : setup.errors.lines[0]);
    for (unsigned i = 0; i < importers; ++i)
    {
        std::shared_ptr<Importer> importer =
            pcp_test::recordImporter(setup, i * perImporter, perImporter, setup.errors.logger());
        EXPECT_NE(importer, nullptr);
        EXPECT_TRUE(converter.addImporter(importer));
    }
    return converter.run();
}

std::string joined(const std::vector<std::string>& lines)
{
    std::string text;
    for (const std::string& line : lines)
        text += line + "\n";
    return text;
}

}  // namespace

TEST(Conversion, EveryPointOfSeveralImportersIsInExactlyOneNodeWithinItsSize)
{
    ConversionSetup setup;
    pcp_test::convertRecords(setup);
    // Small batches and a small budget: hundreds of runs, read cells of a few hundred points, spilled leaf
    // arrays merged through disk windows, and several read threads.
    setup.advanced.targetMemory = 24u << 20;
    setup.encoding.nodeSize = 20000;
    setup.encoding.maxNodeSize = 30000;
    constexpr uint64_t kPerImporter = 400000;
    ASSERT_EQ(convert(setup, kPerImporter, 3), 0) << joined(setup.errors.lines);

    FolderReader reader(setup.basic.outputPath);
    const ReadDataSet dataSet = readDataSet(reader);
    std::vector<PointRecord> expected = generatedPoints(0, 3 * kPerImporter);
    std::sort(expected.begin(), expected.end());
    EXPECT_TRUE(allPoints(dataSet) == expected) << "the data set does not hold exactly the input points";
    EXPECT_EQ(dataSet.tree.header.pointCount, expected.size());
    EXPECT_GT(dataSet.tree.header.maxLod - dataSet.tree.header.minLod, 2) << "a tree of several levels";
    for (const ReadNode& node : dataSet.nodes)
    {
        EXPECT_LE(node.points.size(), setup.encoding.maxNodeSize);
        if (node.inner)
        {
            EXPECT_LE(node.points.size(), setup.encoding.nodeSize) << "inner node at lod " << int(node.lod);
        }
    }
    const std::string infos = joined(setup.infos.lines);
    EXPECT_NE(infos.find("HSPC Info octree structure: "), std::string::npos) << infos;
    EXPECT_NE(infos.find("Merging:         elapsed: "), std::string::npos) << infos;
    // Progress ran from the raw sort's 50 up to 100.
    ASSERT_FALSE(setup.progress.empty());
    EXPECT_EQ(setup.progress.back().percent, 100);
    EXPECT_TRUE(fs::is_empty(fs::path(setup.basic.tempPath)));
}

TEST(Conversion, OneLeafsTopNodeSpreadsItsTakeOverItsCellsFairly)
{
    ConversionSetup setup;
    pcp_test::convertRecords(setup);
    // 20000 points within a metre: one cell of lod 10, read as its eight children of about 2500 points. Each
    // such leaf needs one level below it (cells of lod 8, about 320 points, fit a node of 600), so a node of
    // the leaf shares its take over the leaf's cells of lod 8.
    setup.advanced.batchSize = 8u << 20;
    setup.encoding.nodeSize = 100;
    setup.encoding.maxNodeSize = 600;
    auto bytes = std::make_shared<std::vector<uint8_t>>();
    std::vector<PointRecord> input;
    for (uint32_t point = 0; point < 20000; ++point)
    {
        const PointRecord record{{int32_t(point * 7919 % 1009), int32_t(point * 104729 % 1013),
                                  int32_t(point * 15485863 % 1019)},
                                 uint16_t(point * 6)};
        for (int32_t value : record.cell)
            pcp_test::put(*bytes, value);
        for (unsigned channel = 0; channel < 4; ++channel)
            pcp_test::put(*bytes, uint16_t(point * (channel + 3)));
        input.push_back(record);
    }
    Converter converter(setup.basic, setup.advanced, setup.encoding);
    ASSERT_TRUE(converter.addImporter(pcp_test::recordImporterOf(setup, bytes, setup.errors.logger())));
    ASSERT_EQ(converter.run(), 0) << joined(setup.errors.lines);
    FolderReader reader(setup.basic.outputPath);
    const ReadDataSet dataSet = readDataSet(reader);
    // The nodes one lod below the root are the leaves' own top nodes, which take their share from what the
    // root left in their cell.
    ASSERT_GT(dataSet.nodes.size(), 2u);
    const ReadNode& root = dataSet.nodes[0];
    const ReadNode& node = dataSet.nodes[1];
    ASSERT_EQ(node.lod + 1, root.lod);
    ASSERT_EQ(node.points.size(), 100u);

    auto inNode = [&](const PointRecord& point) {
        for (unsigned axis = 0; axis < 3; ++axis)
        {
            // Node corners are in the code's unsigned axes: the signed cell with its sign bit flipped.
            const uint64_t cell = uint32_t(point.cell[axis]) ^ 0x80000000u;
            if (cell < node.corner[axis] || cell >= node.corner[axis] + (uint64_t(1) << node.lod))
                return false;
        }
        return true;
    };
    std::multiset<PointRecord> unused;
    for (const PointRecord& point : input)
    {
        if (inNode(point))
            unused.insert(point);
    }
    for (const PointRecord& point : root.points)
    {
        if (inNode(point))
            unused.erase(unused.find(point));
    }
    // Points per cell of `lod`, the cells in Morton order (x in the lowest bit), the order in which a share's
    // rest goes to the first cells. The cells here are below 2^21 on every axis.
    auto cellsAt = [](const auto& points, unsigned lod) {
        std::map<uint64_t, uint32_t> cells;
        for (const PointRecord& point : points)
        {
            uint64_t key = 0;
            for (unsigned axis = 0; axis < 3; ++axis)
            {
                const uint64_t cell = uint64_t(uint32_t(point.cell[axis])) >> lod;
                for (unsigned bit = 0; bit < 21; ++bit)
                    key |= ((cell >> bit) & 1) << (3 * bit + axis);
            }
            ++cells[key];
        }
        return cells;
    };
    // Counted by hand: the unused points per cell of lod 8, and what a fair share of 100 over those cells
    // gives each.
    const unsigned lod = 8;
    const auto unusedCells = cellsAt(unused, lod);
    ASSERT_EQ(unusedCells.size(), 8u);
    std::vector<uint32_t> counts;
    for (const auto& [cell, count] : unusedCells)
        counts.push_back(count);
    std::vector<uint32_t> shares(counts.size());
    ASSERT_TRUE(computeEqualDistributionTake(counts, 100, shares));
    const auto nodeCells = cellsAt(node.points, lod);
    size_t i = 0;
    for (const auto& [cell, count] : unusedCells)
    {
        const auto found = nodeCells.find(cell);
        EXPECT_EQ(found == nodeCells.end() ? 0u : found->second, shares[i++]) << "cell " << i - 1;
    }
    EXPECT_EQ(nodeCells.size(), std::count_if(shares.begin(), shares.end(), [](uint32_t n) { return n > 0; }));
}

TEST(Conversion, FolderPackArchiveAndCallbacksGetTheSameBlobs)
{
    // One worker: how the tree is cut follows the raw sort's cell counts per worker, so only a conversion on
    // one worker repeats itself byte for byte.
    auto configure = [](ConversionSetup& setup) {
        pcp_test::convertRecords(setup);
        setup.advanced.workerCount = 1;
        setup.encoding.nodeSize = 5000;
        setup.encoding.maxNodeSize = 8000;
    };
    ConversionSetup folder;
    configure(folder);
    ASSERT_EQ(convert(folder, 60000, 2), 0) << joined(folder.errors.lines);

    ConversionSetup pack;
    configure(pack);
    pack.advanced.useArchive = true;
    ASSERT_EQ(convert(pack, 60000, 2), 0) << joined(pack.errors.lines);
    const fs::path archive = fs::path(pack.basic.outputPath) / "tree.hspc.pack";
    ASSERT_TRUE(fs::is_regular_file(archive));

    ConversionSetup custom;
    configure(custom);
    std::mutex blobsMutex;
    std::map<std::string, std::vector<uint8_t>> blobs;
    custom.advanced.outputWriterFactory = [&] {
        return std::make_shared<CustomWriter>([&](const std::string& name, const std::vector<uint8_t>& bytes) {
            std::lock_guard lock(blobsMutex);
            blobs[name] = bytes;
            return true;
        });
    };
    ASSERT_EQ(convert(custom, 60000, 2), 0) << joined(custom.errors.lines);

    FolderReader folderReader(folder.basic.outputPath);
    DiskReadArchive packReader(archive.string());
    size_t nodeBlobs = 0;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(folder.basic.outputPath))
    {
        if (!entry.is_regular_file() || entry.path().extension() != ".apr")
            continue;
        const std::string name = "/" + fs::relative(entry.path(), folder.basic.outputPath).generic_string();
        std::vector<uint8_t> inFolder;
        std::vector<uint8_t> inPack;
        ASSERT_TRUE(folderReader.read(name, inFolder)) << name;
        ASSERT_TRUE(packReader.read(name, inPack)) << name;
        EXPECT_TRUE(inFolder == inPack) << name;
        EXPECT_TRUE(blobs[name] == inFolder) << name;
        ++nodeBlobs;
    }
    // The tree files differ in their time stamps only: compare what they describe.
    CustomReader customReader([&](const std::string& name, std::vector<uint8_t>& bytes) {
        const auto found = blobs.find(name);
        if (found == blobs.end())
            return false;
        bytes.insert(bytes.end(), found->second.begin(), found->second.end());
        return true;
    });
    const ReadDataSet fromFolder = readDataSet(folderReader);
    for (RootReader* other : std::initializer_list<RootReader*>{&packReader, &customReader})
    {
        const ReadDataSet dataSet = readDataSet(*other);
        EXPECT_EQ(dataSet.tree.lodNodeCounts, fromFolder.tree.lodNodeCounts);
        EXPECT_EQ(dataSet.tree.header.pointCount, fromFolder.tree.header.pointCount);
        EXPECT_EQ(dataSet.tree.header.rootOffset, fromFolder.tree.header.rootOffset);
    }
    EXPECT_EQ(nodeBlobs, fromFolder.nodes.size());
    EXPECT_EQ(blobs.size(), nodeBlobs + 3) << "the node blobs, both tree files and the info file";
    EXPECT_EQ(allPoints(fromFolder).size(), 120000u);
}

TEST(Conversion, FewerPointsThanANodeMakeOneNodeThatPcprepAccepts)
{
    ConversionSetup setup;
    pcp_test::convertRecords(setup);
    ASSERT_EQ(convert(setup, 3000, 2), 0) << joined(setup.errors.lines);
    FolderReader reader(setup.basic.outputPath);
    const ReadDataSet dataSet = readDataSet(reader);
    ASSERT_EQ(dataSet.nodes.size(), 1u);
    EXPECT_EQ(dataSet.nodes[0].points.size(), 6000u);

    const std::string out = setup.basic.outputPath;
    const fs::path log = setup.folder.path() / "pcprep.txt";
    for (const std::string command : {"verify", "info"})
    {
        const std::string line = std::string(PCPREP_PATH) + " " + command + " '" + out + "' > '" + log.string() + "' 2>&1";
        EXPECT_EQ(std::system(line.c_str()), 0) << command;
        std::ifstream text(log);
        const std::string printed((std::istreambuf_iterator<char>(text)), std::istreambuf_iterator<char>());
        EXPECT_NE(printed.find(command == "verify" ? "data set is sound: 1 node holding 6000 points" : "6000"),
                  std::string::npos)
            << printed;
    }
}

TEST(Conversion, EqualPositionsBeyondAMaximumNodeFailTheRunUnlessDuplicatesAreFiltered)
{
    // 2000 points at one position: one cell down to lod 0, which no node may hold whole.
    auto equalPoints = [](ConversionSetup& setup, uint64_t batchSize, bool filter) {
        pcp_test::convertRecords(setup);
        setup.advanced.batchSize = batchSize;
        setup.encoding.filterDuplicates = filter;
        setup.encoding.nodeSize = 500;
        setup.encoding.maxNodeSize = 1000;
        Converter converter(setup.basic, setup.advanced, setup.encoding);
        auto bytes = std::make_shared<std::vector<uint8_t>>();
        for (unsigned i = 0; i < 2000; ++i)
        {
            for (unsigned axis = 0; axis < 3; ++axis)
                pcp_test::put(*bytes, int32_t(123456));
            for (unsigned channel = 0; channel < 4; ++channel)
                pcp_test::put(*bytes, uint16_t(i));
        }
        converter.addImporter(pcp_test::recordImporterOf(setup, bytes, setup.errors.logger()));
        return converter.run();
    };
    {
        // Read cells hold up to thousands of points: the leaf holds all 2000 and cannot give them to nodes.
        ConversionSetup setup;
        EXPECT_EQ(equalPoints(setup, 1u << 20, false), 1);
        const std::string errors = joined(setup.errors.lines);
        EXPECT_NE(errors.find("Failed to distribute points"), std::string::npos) << errors;
        EXPECT_TRUE(fs::is_empty(fs::path(setup.basic.tempPath)));
    }
    {
        // Read cells of a few hundred points: the cell is recomputed from its points and found undividable.
        ConversionSetup setup;
        EXPECT_EQ(equalPoints(setup, 16u << 10, false), 1);
        const std::string errors = joined(setup.errors.lines);
        EXPECT_NE(errors.find("Error: inner iteration failed."), std::string::npos) << errors;
        EXPECT_TRUE(fs::is_empty(fs::path(setup.basic.tempPath)));
    }
    {
        // With the filter the position is kept once.
        ConversionSetup setup;
        ASSERT_EQ(equalPoints(setup, 16u << 10, true), 0) << joined(setup.errors.lines);
        FolderReader reader(setup.basic.outputPath);
        EXPECT_EQ(allPoints(readDataSet(reader)).size(), 1u);
    }
}
