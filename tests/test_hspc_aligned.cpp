// Data sets on the conversion's grid taken over without a raw sort: a survey converted in tiles and merged
// holds the points of the survey converted whole; misaligned data sets are refused with the reason; aligned
// and raw inputs mixed; a cancel and broken nodes ending the aligned input; pcprep merge as a process.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "hspc/convert/AlignedInput.h"
#include "hspc/convert/AlignedNodeGroups.h"
#include "hspc/convert/DataSetMerge.h"
#include "hspc/convert/InputLeafProcessHandler.h"
#include "hspc/format/NodeBlobName.h"
#include "hspc/query/HSPCImporter.h"
#include "hspc/tree/TreeGeometry.h"
#include "support/HspcConversionSetup.h"

using namespace HSPC;
using pcp_test::ConversionSetup;
using pcp_test::LockedMessageLog;

namespace
{

namespace fs = std::filesystem;

constexpr uint64_t kSurveyPoints = 24000;
// Bytes of one generated record (support/HspcConversionSetup.h): x, y, z as I32, then four U16.
constexpr std::size_t kRecordBytes = 20;
// The middle of the generated coordinates, where the survey is cut into its four tiles.
constexpr int32_t kMiddle = 2500000;

using Records = std::shared_ptr<std::vector<uint8_t>>;

int32_t coordinate(const std::vector<uint8_t>& records, std::size_t record, unsigned axis)
{
    int32_t value = 0;
    std::memcpy(&value, records.data() + record * kRecordBytes + axis * 4, sizeof value);
    return value;
}

// The records of the survey in tile `tile` (0 to 3): west or east of the middle, south or north of it.
Records tileOf(const std::vector<uint8_t>& survey, unsigned tile)
{
    auto part = std::make_shared<std::vector<uint8_t>>();
    for (std::size_t record = 0; record < survey.size() / kRecordBytes; ++record)
    {
        const unsigned east = coordinate(survey, record, 0) >= kMiddle ? 1 : 0;
        const unsigned north = coordinate(survey, record, 1) >= kMiddle ? 2 : 0;
        if (east + north == tile)
            part->insert(part->end(), survey.begin() + std::ptrdiff_t(record * kRecordBytes),
                         survey.begin() + std::ptrdiff_t((record + 1) * kRecordBytes));
    }
    return part;
}

// A conversion of many small nodes, so that a data set has inner nodes over several lods, and many groups.
void smallNodes(ConversionSetup& setup)
{
    pcp_test::convertRecords(setup);
    setup.encoding.nodeSize = 1500;
    setup.encoding.maxNodeSize = 3000;
}

// One data set, converted from `records` by the raw sort; `adjust` changes the grid or the attributes.
struct ConvertedDataSet
{
    ConversionSetup setup;
    // The folder, or the pack archive in it.
    fs::path path() const
    {
        const fs::path out = setup.folder.path() / "out";
        return setup.advanced.useArchive ? out / "tree.hspc.pack" : out;
    }
};

// The generated records as a data set without their intensity delivers them: one attribute fewer.
std::shared_ptr<Importer> importerWithoutIntensity(const ConversionSetup& setup, Records records)
{
    EncodingTarget target;
    target.attributes = {pcp_test::encoded(AttributeType::M96, AttributeRole::POSITION, "POSITION"),
                         pcp_test::encoded(AttributeType::U8, AttributeRole::R, "Red", 255.0),
                         pcp_test::encoded(AttributeType::U8, AttributeRole::G, "Green", 255.0),
                         pcp_test::encoded(AttributeType::U8, AttributeRole::B, "Blue", 255.0)};
    target.origin = setup.basic.origin;
    target.scale = setup.basic.scale;
    return BinaryRecordImporter::create(pcp_test::kRecordDescription, makeMemorySource(std::move(records)), target,
                                        EncodingFlags{}, setup.advanced.errorLogger);
}

enum class Layout
{
    kSurvey,
    kWithoutIntensity,
};

std::unique_ptr<ConvertedDataSet> convertDataSet(const Records& records,
                                                 const std::function<void(ConversionSetup&)>& adjust = {},
                                                 Layout layout = Layout::kSurvey)
{
    auto dataSet = std::make_unique<ConvertedDataSet>();
    ConversionSetup& setup = dataSet->setup;
    smallNodes(setup);
    if (adjust)
        adjust(setup);
    if (layout == Layout::kWithoutIntensity)
        setup.basic.attributes.pop_back();
    auto converter = setup.converter();
    EXPECT_TRUE(converter->addImporter(layout == Layout::kSurvey
                                           ? pcp_test::recordImporterOf(setup, records, setup.errors.logger())
                                           : importerWithoutIntensity(setup, records)));
    EXPECT_EQ(converter->run(), 0) << (setup.errors.lines.empty() ? "" : setup.errors.lines.front());
    return dataSet;
}

std::shared_ptr<HSPCImporter> importerOf(const fs::path& dataSet, const LogFunction& errorLogger)
{
    ImporterConfig config;
    config.path = dataSet.string();
    config.errorLogger = errorLogger;
    auto importer = std::make_shared<HSPCImporter>(config);
    EXPECT_TRUE(importer->isValid()) << dataSet;
    return importer;
}

// Every point of a data set as HSPCImporter reads it back, each the bytes of its raw record (the cell on the
// data set's grid, then the stored attributes), sorted.
std::vector<std::string> pointsOf(const fs::path& dataSet)
{
    const auto importer = importerOf(dataSet, printError);
    std::vector<std::string> points;
    HSPCBuffer<uint8_t> batch;
    const uint32_t recordSize = importer->rawRecordSize();
    while (importer->readBatch(batch, 1 << 20) == ReadResult::kData)
    {
        for (std::size_t offset = 0; offset + recordSize <= batch.size(); offset += recordSize)
            points.emplace_back(reinterpret_cast<const char*>(batch.data() + offset), recordSize);
    }
    std::sort(points.begin(), points.end());
    return points;
}

// A merge (or conversion) of its own into a fresh folder, every logger captured, on the survey's grid.
struct MergeRun
{
    ConversionSetup setup;
    LockedMessageLog errors;
    LockedMessageLog infos;

    MergeRun()
    {
        smallNodes(setup);
        setup.advanced.errorLogger = errors.logger();
        setup.advanced.infoLogger = infos.logger();
    }
    fs::path out() const { return setup.folder.path() / "out"; }
    int merge(const std::vector<fs::path>& dataSets)
    {
        std::vector<std::string> paths;
        for (const fs::path& path : dataSets)
            paths.push_back(path.string());
        DataSetMerge merge(paths, setup.basic, setup.advanced, setup.encoding);
        return merge.run();
    }
    bool logged(const std::string& text) { return errors.contains(text) || infos.contains(text); }
    bool loggedStart(const std::string& start)
    {
        std::lock_guard lock(infos.mutex);
        return std::any_of(infos.lines.begin(), infos.lines.end(),
                           [&](const std::string& line) { return line.rfind(start, 0) == 0; });
    }
    bool reported(int percent, const std::string& message) const
    {
        return std::find(setup.progress.begin(), setup.progress.end(), pcp_test::ProgressReport{percent, message}) !=
               setup.progress.end();
    }
    bool tempFolderEmpty() const { return fs::is_empty(setup.folder.path() / "tmp"); }
};

constexpr const char* kAllAligned = "All input data is aligned HSPC: no raw sort required.";
constexpr const char* kRawSortCount = "Total  point count after raw sort = ";
constexpr const char* kAlignedElapsed = "HSPC tree input computation: elapsed: ";

class Survey : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        s_survey = pcp_test::recordsFrom(0, kSurveyPoints);
        s_whole = convertDataSet(s_survey).release();
        // The last tile is a pack archive, whose blocks the aligned input's readers share one file for.
        for (unsigned tile = 0; tile < 4; ++tile)
            s_tiles[tile] =
                convertDataSet(tileOf(*s_survey, tile), [tile](ConversionSetup& s) { s.advanced.useArchive = tile == 3; })
                    .release();
    }
    static void TearDownTestSuite()
    {
        delete s_whole;
        for (ConvertedDataSet*& tile : s_tiles)
            delete tile;
    }
    static std::vector<fs::path> tilePaths()
    {
        std::vector<fs::path> paths;
        for (const ConvertedDataSet* tile : s_tiles)
            paths.push_back(tile->path());
        return paths;
    }

    static inline Records s_survey;
    static inline ConvertedDataSet* s_whole = nullptr;
    static inline ConvertedDataSet* s_tiles[4] = {};
};

TEST_F(Survey, FourTilesMergedHoldThePointsOfTheWholeSurveyWithoutARawSort)
{
    MergeRun run;
    // The node sizes come from the tiles, whatever the merge's own records say.
    run.setup.encoding = PointCloudEncodingConfig{};
    ASSERT_EQ(run.merge(tilePaths()), 0) << (run.errors.lines.empty() ? "" : run.errors.lines.front());

    const std::vector<std::string> whole = pointsOf(s_whole->path());
    const std::vector<std::string> merged = pointsOf(run.out());
    ASSERT_EQ(whole.size(), kSurveyPoints);
    EXPECT_TRUE(merged == whole) << merged.size() << " points merged";
    const auto importer = importerOf(run.out(), printError);
    EXPECT_EQ(importer->tree().header.pointCount, kSurveyPoints);
    EXPECT_GT(importer->tree().nodes.size(), 8u);
    EXPECT_EQ(importer->tree().header.nodeSize, s_whole->setup.encoding.nodeSize);

    EXPECT_TRUE(run.reported(50, kAllAligned));
    EXPECT_TRUE(run.loggedStart(kAlignedElapsed));
    EXPECT_FALSE(run.loggedStart(kRawSortCount)) << "a raw sort ran";
    EXPECT_TRUE(run.tempFolderEmpty());
}

TEST_F(Survey, AlignedAndRawInputsMixedHoldEveryPointOnce)
{
    // Two tiles as data sets, the other two as raw records of the same grid.
    MergeRun run;
    auto converter = run.setup.converter();
    for (unsigned tile = 0; tile < 2; ++tile)
        ASSERT_TRUE(converter->addImporter(importerOf(s_tiles[tile]->path(), run.errors.logger())));
    for (unsigned tile = 2; tile < 4; ++tile)
        ASSERT_TRUE(converter->addImporter(
            pcp_test::recordImporterOf(run.setup, tileOf(*s_survey, tile), run.errors.logger())));
    ASSERT_EQ(converter->run(), 0);

    EXPECT_TRUE(pointsOf(run.out()) == pointsOf(s_whole->path()));
    EXPECT_TRUE(run.loggedStart(kRawSortCount));
    EXPECT_TRUE(run.loggedStart(kAlignedElapsed));
    EXPECT_FALSE(run.reported(50, kAllAligned));
    EXPECT_TRUE(run.tempFolderEmpty());
}

TEST_F(Survey, DataSetsOfAnotherGridOrAttributeListAreRefusedWithTheReason)
{
    const Records tile = tileOf(*s_survey, 1);
    const auto otherScale = convertDataSet(tile, [](ConversionSetup& s) { s.basic.scale = {0.001, 0.002, 0.001}; });
    const auto otherOrigin = convertDataSet(tile, [](ConversionSetup& s) { s.basic.origin = {0.0, 0.0, 1.0}; });
    const auto otherAttributes = convertDataSet(tile, {}, Layout::kWithoutIntensity);

    struct Case
    {
        const ConvertedDataSet* dataSet;
        std::string reason;
    };
    const Case cases[] = {
        {otherScale.get(), "its scale on y is 0.002, the target's is 0.001"},
        {otherOrigin.get(), "its origin on z is 1, the target's is 0"},
        {otherAttributes.get(), "it stores 4 attributes, the target 5"},
    };
    for (const Case& refused : cases)
    {
        MergeRun run;
        EXPECT_EQ(run.merge({s_tiles[0]->path(), refused.dataSet->path()}), 1);
        EXPECT_TRUE(run.errors.contains(refused.dataSet->path().string() + " is not aligned: " + refused.reason + "."))
            << refused.reason;
        EXPECT_TRUE(run.errors.contains("Input data is not mergeable."));
        EXPECT_TRUE(run.errors.contains("Failure # 0 : message=Input data is not mergeable. : time=0") ||
                    run.errors.contains("Failure # 0 : message=Input data is not mergeable. : time=1"));
        EXPECT_FALSE(fs::exists(run.out() / "queryTree.hspc"));
    }

    MergeRun empty;
    EXPECT_EQ(empty.merge({}), 1);
    EXPECT_TRUE(empty.errors.contains("No data to merge."));
}

TEST(AlignedTest, GridsWithinTheToleranceAreOneGrid)
{
    RuntimeConfig target;
    target.scale = {0.001, 0.001, 0.001};
    target.origin = {10.0, 20.0, 30.0};
    target.encodingAttributes = {{AttributeType::M96, AttributeRole::POSITION, "POSITION"},
                                 {AttributeType::U16, AttributeRole::INTENSITY, "Intensity"}};
    const DataSetLayout aligned{target.origin, target.scale, target.encodingAttributes, false};
    EXPECT_FALSE(alignmentRefusal(aligned, target));

    DataSetLayout nearly = aligned;
    nearly.scale[0] += 5e-14;
    nearly.origin[2] += 5e-11;
    EXPECT_FALSE(alignmentRefusal(nearly, target)) << *alignmentRefusal(nearly, target);

    auto refusal = [&](const std::function<void(DataSetLayout&)>& change) {
        DataSetLayout layout = aligned;
        change(layout);
        return alignmentRefusal(layout, target).value_or("aligned");
    };
    EXPECT_EQ(refusal([](DataSetLayout& l) { l.scale[0] += 2e-13; }),
              "its scale on x is 0.0010000000002, the target's is 0.001");
    EXPECT_EQ(refusal([](DataSetLayout& l) { l.origin[1] += 2e-10; }),
              "its origin on y is 20.0000000002, the target's is 20");
    EXPECT_EQ(refusal([](DataSetLayout& l) { l.hasTransform = true; }), "its points are transformed on the way in");
    EXPECT_EQ(refusal([](DataSetLayout& l) { l.attributes[0].type = AttributeType::M192; }),
              "its position is stored as M192, the target's as M96");
    EXPECT_EQ(refusal([](DataSetLayout& l) { l.attributes[1].type = AttributeType::U8; }),
              "its attribute 1 is \"Intensity\" (INTENSITY, U8), the target's is \"Intensity\" (INTENSITY, U16)");

    target.filterBox = true;
    EXPECT_EQ(alignmentRefusal(aligned, target).value_or("aligned"), "the target filters points by a box");
}

TEST_F(Survey, GroupsCoverEveryNodeOnceWithinTheirLimit)
{
    const auto importer = importerOf(s_whole->path(), printError);
    const Tree& tree = importer->tree();
    for (const uint64_t limit : {uint64_t(1), uint64_t(2000), uint64_t(7000), kSurveyPoints})
    {
        std::vector<unsigned> seen(tree.nodes.size());
        for (const AlignedNodeGroup& group : groupAlignedNodes(tree, 3, limit))
        {
            EXPECT_EQ(group.dataSet, 3u);
            uint64_t points = 0;
            for (const uint32_t node : group.nodes)
            {
                ++seen[node];
                points += tree.nodes[node].pointCount;
            }
            EXPECT_EQ(points, group.pointCount);
            EXPECT_TRUE(points <= limit || group.nodes.size() == 1) << points << " points in a group of " << limit;
        }
        for (std::size_t node = 0; node < tree.nodes.size(); ++node)
            EXPECT_EQ(seen[node], 1u) << "node " << node << ", limit " << limit;
    }
    uint64_t total = 0;
    for (const TreeNode& node : tree.nodes)
        total += node.pointCount;
    EXPECT_EQ(groupAlignedNodes(tree, 0, total).size(), 1u);
    EXPECT_EQ(groupAlignedNodes(tree, 0, total - 1).size(), 2u) << "the root alone, then its children together";
}

// The aligned input of one data set, run directly with a reader that can be made to cancel or to fail.
struct AlignedStage
{
    MergeRun run;
    std::unique_ptr<Converter> converter = run.setup.converter();
    ProcessHandle handle;

    ConversionFailures add(const AlignedDataSet& dataSet)
    {
        PointDistributionInputHandler<uint32_t> input(converter->runtimeConfig());
        ConversionFailures failures = addAlignedInput<uint32_t>(converter->runtimeConfig(), {dataSet}, input, handle);
        EXPECT_TRUE(input.readList().empty() || failures.empty());
        return failures;
    }
};

TEST_F(Survey, ACancelDuringTheAlignedInputStopsItAndLeavesNoTempFile)
{
    AlignedStage stage;
    const auto importer = importerOf(s_whole->path(), stage.run.errors.logger());
    std::string reason;
    std::optional<AlignedDataSet> dataSet = alignedDataSetOf(*importer, stage.converter->runtimeConfig(), reason);
    ASSERT_TRUE(dataSet) << reason;
    std::atomic<int> reads{0};
    const auto read = dataSet->readNodeBlock;
    dataSet->readNodeBlock = [&](uint32_t node, std::vector<uint8_t>& block, std::string& error) {
        if (++reads == 3)
            stage.handle.cancel();
        return read(node, block, error);
    };
    const ConversionFailures failures = stage.add(*dataSet);
    ASSERT_FALSE(failures.empty());
    EXPECT_EQ(failures.front().code, FailureCode::kCancelled);
    EXPECT_EQ(failures.front().message, "Determing leaf sctructure: process got cancelled!");
    EXPECT_TRUE(stage.run.loggedStart(kAlignedElapsed));
    EXPECT_TRUE(stage.run.tempFolderEmpty());
}

// Breaks the block of node `node` of the data set in `folder`: gone, or its payload overwritten.
void breakNode(const fs::path& folder, uint32_t node, bool remove)
{
    const auto importer = importerOf(folder, printError);
    const std::vector<std::array<uint64_t, 3>> corners = nodeCorners(importer->tree());
    const std::vector<uint8_t> lods = nodeLods(importer->tree());
    const fs::path file = folder.string() + nodeBlobName(lods[node], corners[node][0], corners[node][1], corners[node][2]);
    ASSERT_TRUE(fs::exists(file)) << file;
    if (remove)
    {
        fs::remove(file);
        return;
    }
    const auto size = fs::file_size(file);
    std::fstream bytes(file, std::ios::in | std::ios::out | std::ios::binary);
    bytes.seekp(std::streamoff(size / 2));
    const std::string garbage(size - size / 2, '\xa5');
    bytes.write(garbage.data(), std::streamsize(garbage.size()));
}

TEST_F(Survey, ABrokenNodeOfAnAlignedInputFailsTheMergeWithItsMessage)
{
    for (const bool missing : {true, false})
    {
        const auto broken = convertDataSet(tileOf(*s_survey, 2));
        const uint32_t node = 2;
        breakNode(broken->path(), node, missing);
        MergeRun run;
        EXPECT_EQ(run.merge({s_tiles[0]->path(), broken->path()}), 1);
        const std::string expected = missing ? "Failed to read node = 2" : "Failed to decompress node 2";
        EXPECT_TRUE(run.errors.contains(expected)) << expected;
        EXPECT_TRUE(run.errors.contains("Conversion failed."));
        {
            std::lock_guard lock(run.errors.mutex);
            EXPECT_TRUE(std::any_of(run.errors.lines.begin(), run.errors.lines.end(), [](const std::string& line) {
                return line.find("message=Could not add buffers from importers.") != std::string::npos;
            }));
        }
        EXPECT_FALSE(fs::exists(run.out() / "queryTree.hspc"));
        EXPECT_TRUE(run.tempFolderEmpty());
    }
}

#ifdef PCPREP_PATH
std::string runPcprep(const std::string& arguments, int& status)
{
    const pcp_test::TempFolder logFolder;
    const fs::path log = logFolder.path() / "pcprep.log";
    const std::string line = std::string(PCPREP_PATH) + " " + arguments + " > '" + log.string() + "' 2>&1";
    status = std::system(line.c_str());
    std::ifstream text(log);
    return std::string((std::istreambuf_iterator<char>(text)), std::istreambuf_iterator<char>());
}

TEST_F(Survey, PcprepMergeJoinsTilesAndNamesTheOneThatDoesNotFit)
{
    const pcp_test::TempFolder folder;
    std::string tiles;
    for (const fs::path& path : tilePaths())
        tiles += " '" + path.string() + "'";
    int status = 0;
    const fs::path out = folder.path() / "merged";
    std::string printed = runPcprep("merge --threads 2 '" + out.string() + "'" + tiles, status);
    ASSERT_EQ(status, 0) << printed;
    EXPECT_NE(printed.find("4 data sets joined into " + out.string() + ": 24000 points"), std::string::npos)
        << printed;
    EXPECT_TRUE(pointsOf(out) == pointsOf(s_whole->path()));
    EXPECT_FALSE(fs::exists(out / "merge-temp"));

    const fs::path packed = folder.path() / "packed";
    printed = runPcprep("merge --pack '" + packed.string() + "'" + tiles, status);
    ASSERT_EQ(status, 0) << printed;
    EXPECT_NE(printed.find("joined into " + (packed / "tree.hspc.pack").string() + ": 24000 points"),
              std::string::npos)
        << printed;
    EXPECT_FALSE(fs::exists(packed / "queryTree.hspc")) << "the archive holds the whole data set";
    EXPECT_TRUE(pointsOf(packed / "tree.hspc.pack") == pointsOf(s_whole->path()));

    const auto otherScale = convertDataSet(tileOf(*s_survey, 3), [](ConversionSetup& s) { s.basic.scale = {0.01, 0.01, 0.01}; });
    printed = runPcprep("merge '" + (folder.path() / "refused").string() + "'" + tiles + " '" +
                            otherScale->path().string() + "'",
                        status);
    EXPECT_NE(status, 0);
    EXPECT_NE(printed.find(otherScale->path().string() + " is not aligned: its scale on x is 0.01"), std::string::npos)
        << printed;
    EXPECT_NE(printed.find("Input data is not mergeable."), std::string::npos) << printed;

    printed = runPcprep("merge '" + out.string() + "'" + tiles, status);
    EXPECT_NE(status, 0) << "a merge into a folder that holds a data set";
    EXPECT_NE(printed.find("not an empty folder"), std::string::npos) << printed;
}

#endif

}  // namespace
