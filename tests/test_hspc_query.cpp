// Queries of converted data sets: whole-box round trips in every layout, box, lod and budget queries against
// brute force, new data sets written by a query, the tree checks of the query front, the layout change of a
// busy pipeline, broken nodes, and many queries at once.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "hspc/format/MortonIndex3D.h"
#include "hspc/format/NodeBlobName.h"
#include "hspc/query/QueryExecutor.h"
#include "hspc/store/FolderStore.h"
#include "hspc/tree/SerializeTree.h"
#include "hspc/tree/TreeGeometry.h"
#include "support/FuzzCorpus.h"
#include "support/HspcConversionSetup.h"

using namespace HSPC;
using pcp_test::ConversionSetup;

namespace
{

namespace fs = std::filesystem;

constexpr uint64_t kPointCount = 40000;
constexpr double kScale = 0.001;

// A point as queries return it: its cell (millimetres), colours and intensity.
using Point = pcp_test::StoredPoint;

double realOf(int64_t cell)
{
    return double(cell) * kScale;
}

std::vector<Point> generatedPoints()
{
    return pcp_test::storedPointsFrom(kPointCount);
}

bool inBox(const Point& p, const std::array<double, 6>& box)
{
    for (unsigned axis = 0; axis < 3; ++axis)
        if (!(box[axis] <= realOf(p.cell[axis]) && realOf(p.cell[axis]) <= box[axis + 3]))
            return false;
    return true;
}

// One data set for the whole program: conversions take a while.
struct SharedDataSet
{
    ConversionSetup setup;
    fs::path folder;
    std::vector<Point> points = generatedPoints();

    SharedDataSet()
    {
        pcp_test::convertRecords(setup);
        setup.encoding.nodeSize = 1500;
        setup.encoding.maxNodeSize = 2000;
        Converter converter(setup.basic, setup.advanced, setup.encoding);
        converter.addImporter(pcp_test::recordImporter(setup, 0, kPointCount, setup.errors.logger()));
        EXPECT_EQ(converter.run(), 0) << (setup.errors.lines.empty() ? "" : setup.errors.lines[0]);
        folder = setup.basic.outputPath;
    }
};

SharedDataSet& dataSet()
{
    static SharedDataSet shared;
    return shared;
}

struct Logs
{
    pcp_test::LockedMessageLog errors;
    pcp_test::LockedMessageLog infos;
    pcp_test::LockedMessageLog warnings;

    QueryConfig config(const fs::path& path)
    {
        QueryConfig config;
        config.path = path.string();
        config.workerCount = 2;
        config.errorLogger = errors.logger();
        config.infoLogger = infos.logger();
        config.warningLogger = warnings.logger();
        return config;
    }

    std::string firstError()
    {
        std::lock_guard lock(errors.mutex);
        return errors.lines.empty() ? std::string() : errors.lines.front();
    }
};

// Every record a query delivers, with the node it came from.
struct Collected
{
    std::vector<std::vector<uint8_t>> records;
    std::vector<std::array<int64_t, 3>> anchors;
    std::vector<uint32_t> nodes;
    uint64_t points = 0;

    QueryRecordSink sink()
    {
        return [this](const QueryNodeRecords& node)
        {
            records.emplace_back(node.records.begin(), node.records.end());
            anchors.push_back(node.anchor);
            nodes.push_back(node.nodeIndex);
            points += node.pointCount;
            return true;
        };
    }
};

template <typename T>
T field(const uint8_t* record, size_t offset)
{
    T value;
    std::memcpy(&value, record + offset, sizeof(T));
    return value;
}

// Turns each record of `collected` into a point with `read`, sorted.
template <typename Read>
std::vector<Point> pointsOf(const Collected& collected, size_t stride, Read read)
{
    std::vector<Point> points;
    for (size_t n = 0; n < collected.records.size(); ++n)
        for (size_t at = 0; at < collected.records[n].size(); at += stride)
            points.push_back(read(collected.records[n].data() + at, collected.anchors[n]));
    std::sort(points.begin(), points.end());
    return points;
}

Point storedPoint(const uint8_t* record, const std::array<int64_t, 3>&)
{
    MortonIndex3D<uint32_t> code;
    std::memcpy(code.words.data(), record, 12);
    const auto cell = decodeMortonSigned(code);
    return {{cell[0], cell[1], cell[2]}, {record[12], record[13], record[14]}, field<uint16_t>(record, 15)};
}

class QueryTest : public ::testing::Test
{
protected:
    SharedDataSet& data = dataSet();
    Logs logs;

    void open(QueryExecutor& executor, bool passive = false)
    {
        ASSERT_TRUE(openQueryExecutor(executor, logs.config(data.folder), passive)) << logs.firstError();
    }
};

TEST_F(QueryTest, WholeBoxQueriesReturnTheInputInEveryLayout)
{
    QueryExecutor executor;
    open(executor);
    ASSERT_GT(executor.tree().nodes.size(), 8u) << "the data set should have several lods";

    Collected stored;
    ASSERT_TRUE(executor.query({}, stored.sink())) << logs.firstError();
    EXPECT_EQ(pointsOf(stored, 17, storedPoint), data.points);

    // Cells relative to each node's anchor, with intensity and colours after it.
    ASSERT_TRUE(executor.updateAttributeLayout({{AttributeType::I32, AttributeRole::POSITION, "POSITION"},
                                                {AttributeType::U16, AttributeRole::INTENSITY, "Intensity"},
                                                {AttributeType::U8, AttributeRole::R, "Red"},
                                                {AttributeType::U8, AttributeRole::G, "Green"},
                                                {AttributeType::U8, AttributeRole::B, "Blue"}}))
        << logs.firstError();
    EXPECT_EQ(executor.recordSize(), 17u);
    Collected relative;
    ASSERT_TRUE(executor.query({}, relative.sink()));
    EXPECT_EQ(pointsOf(relative, 17,
                       [](const uint8_t* r, const std::array<int64_t, 3>& anchor)
                       {
                           Point p{{anchor[0] + field<int32_t>(r, 0), anchor[1] + field<int32_t>(r, 4),
                                    anchor[2] + field<int32_t>(r, 8)},
                                   {r[14], r[15], r[16]},
                                   field<uint16_t>(r, 12)};
                           return p;
                       }),
              data.points);

    // Real coordinates as doubles, colours widened to 16 bits and intensity to 32.
    ASSERT_TRUE(executor.updateAttributeLayout({{AttributeType::F64, AttributeRole::X, "X"},
                                                {AttributeType::F64, AttributeRole::Y, "Y"},
                                                {AttributeType::F64, AttributeRole::Z, "Z"},
                                                {AttributeType::U16, AttributeRole::R, "Red"},
                                                {AttributeType::U16, AttributeRole::G, "Green"},
                                                {AttributeType::U16, AttributeRole::B, "Blue"},
                                                {AttributeType::U32, AttributeRole::INTENSITY, "Intensity"}}));
    Collected reals;
    ASSERT_TRUE(executor.query({}, reals.sink()));
    std::vector<std::array<double, 3>> realPositions;
    std::vector<std::array<double, 3>> expectedReals;
    for (const auto& node : reals.records)
        for (size_t at = 0; at < node.size(); at += 34)
            realPositions.push_back(
                {field<double>(node.data() + at, 0), field<double>(node.data() + at, 8), field<double>(node.data() + at, 16)});
    for (const Point& p : data.points)
        expectedReals.push_back({realOf(p.cell[0]), realOf(p.cell[1]), realOf(p.cell[2])});
    std::sort(realPositions.begin(), realPositions.end());
    std::sort(expectedReals.begin(), expectedReals.end());
    EXPECT_EQ(realPositions, expectedReals);
    std::multiset<std::array<uint32_t, 4>> widened;
    std::multiset<std::array<uint32_t, 4>> expectedWidened;
    for (const auto& node : reals.records)
        for (size_t at = 0; at < node.size(); at += 34)
            widened.insert({field<uint16_t>(node.data() + at, 24), field<uint16_t>(node.data() + at, 26),
                            field<uint16_t>(node.data() + at, 28), field<uint32_t>(node.data() + at, 30)});
    for (const Point& p : data.points)
        expectedWidened.insert({p.color[0], p.color[1], p.color[2], p.intensity});
    EXPECT_EQ(widened, expectedWidened);

    // Single axes, and an attribute the data set lacks, which reads as zero.
    ASSERT_TRUE(executor.updateAttributeLayout({{AttributeType::F64, AttributeRole::Z, "Z"},
                                                {AttributeType::U8, AttributeRole::CUSTOM, "Missing"},
                                                {AttributeType::F64, AttributeRole::X, "X"}}));
    EXPECT_EQ(executor.recordSize(), 17u);
    Collected axes;
    ASSERT_TRUE(executor.query({}, axes.sink()));
    std::multiset<std::array<double, 2>> zx;
    std::multiset<std::array<double, 2>> expectedZx;
    for (const auto& node : axes.records)
        for (size_t at = 0; at < node.size(); at += 17)
        {
            EXPECT_EQ(node[at + 8], 0);
            zx.insert({field<double>(node.data() + at, 0), field<double>(node.data() + at, 9)});
        }
    for (const Point& p : data.points)
        expectedZx.insert({realOf(p.cell[2]), realOf(p.cell[0])});
    EXPECT_EQ(zx, expectedZx);

    // Floats as the client asked for them, rounded from the doubles.
    ASSERT_TRUE(executor.updateAttributeLayout({{AttributeType::F32, AttributeRole::POSITION, "POSITION"}}));
    Collected floats;
    ASSERT_TRUE(executor.query({}, floats.sink()));
    std::multiset<std::array<float, 3>> floatPositions;
    std::multiset<std::array<float, 3>> expectedFloats;
    for (const auto& node : floats.records)
        for (size_t at = 0; at < node.size(); at += 12)
            floatPositions.insert({field<float>(node.data() + at, 0), field<float>(node.data() + at, 4),
                                   field<float>(node.data() + at, 8)});
    for (const Point& p : data.points)
        expectedFloats.insert({float(realOf(p.cell[0])), float(realOf(p.cell[1])), float(realOf(p.cell[2]))});
    EXPECT_EQ(floatPositions, expectedFloats);
}

TEST_F(QueryTest, LayoutsThatCannotBeServedAreRefusedAndChangeNothing)
{
    QueryExecutor executor;
    open(executor);
    const std::vector<Attribute> before = executor.attributeLayout();
    EXPECT_FALSE(executor.updateAttributeLayout({}));
    EXPECT_FALSE(executor.updateAttributeLayout({{AttributeType::I64, AttributeRole::POSITION, "POSITION"}}));
    EXPECT_FALSE(executor.updateAttributeLayout({{AttributeType::U8, AttributeRole::INTENSITY, "Intensity"}}));
    // Intensity is stored as U16: neither narrower nor signed will do.
    EXPECT_FALSE(executor.updateAttributeLayout({{AttributeType::I32, AttributeRole::POSITION, "POSITION"},
                                                 {AttributeType::U8, AttributeRole::INTENSITY, "Intensity"}}));
    EXPECT_FALSE(executor.updateAttributeLayout({{AttributeType::I32, AttributeRole::POSITION, "POSITION"},
                                                 {AttributeType::I16, AttributeRole::INTENSITY, "Intensity"}}));
    EXPECT_EQ(logs.errors.lines,
              (std::vector<std::string>{
                  "Process handler : error : empty attribute layout.",
                  "Process handler : error : something is wrong with the encoding.",
                  "Process handler : error : something is wrong with the encoding.",
                  " QueryExecutor::updateAttributeLayout: error : final attributes have types which cannot be "
                  "casted from types of source attributes.",
                  " QueryExecutor::updateAttributeLayout: error : final attributes have types which cannot be "
                  "casted from types of source attributes."}));
    EXPECT_EQ(executor.attributeLayout(), before);
}

TEST_F(QueryTest, BoxQueriesEqualABruteForceFilter)
{
    QueryExecutor executor;
    open(executor);
    ASSERT_TRUE(executor.updateAttributeLayout({{AttributeType::I32, AttributeRole::POSITION, "POSITION"},
                                                {AttributeType::U16, AttributeRole::INTENSITY, "Intensity"}}));
    const auto relativePoint = [](const uint8_t* r, const std::array<int64_t, 3>& anchor)
    {
        return Point{{anchor[0] + field<int32_t>(r, 0), anchor[1] + field<int32_t>(r, 4),
                      anchor[2] + field<int32_t>(r, 8)},
                     {},
                     field<uint16_t>(r, 12)};
    };
    // Bounds on points themselves, to test that both ends are inside.
    const Point& low = data.points[data.points.size() / 5];
    const Point& high = data.points[data.points.size() / 2];
    const std::vector<std::array<double, 6>> boxes{
        {realOf(low.cell[0]), 0.0, 0.0, realOf(high.cell[0]), 5000.0, 5000.0},
        {1000.0, 1200.0, 300.0, 2500.0, 3100.0, 4200.0},
        {realOf(low.cell[0]), realOf(low.cell[1]), realOf(low.cell[2]), realOf(low.cell[0]),
         realOf(low.cell[1]), realOf(low.cell[2])},
        {-10.0, -10.0, -10.0, -5.0, -5.0, -5.0}};
    for (const auto& box : boxes)
    {
        std::vector<Point> expected;
        for (const Point& p : data.points)
            if (inBox(p, box))
                expected.push_back({p.cell, {}, p.intensity});
        Collected found;
        ASSERT_TRUE(executor.query(QueryRequest{box, {}, 0}, found.sink())) << logs.firstError();
        EXPECT_EQ(pointsOf(found, 14, relativePoint), expected) << "box from x " << box[0] << " to " << box[3];
    }
    EXPECT_FALSE(executor.query(QueryRequest{std::array<double, 6>{1, 1, 1, 0, 2, 2}, {}, 0}, Collected().sink()));
}

TEST_F(QueryTest, LodLimitsAndBudgetsStopTheWalk)
{
    QueryExecutor executor;
    open(executor);
    const Tree& tree = executor.tree();
    const std::vector<uint8_t> lods = nodeLods(tree);
    const uint8_t limit = uint8_t(tree.header.maxLod - 2);
    std::set<uint32_t> expectedNodes;
    uint64_t expectedPoints = 0;
    for (uint32_t i = 0; i < tree.nodes.size(); ++i)
        if (lods[i] >= limit && tree.nodes[i].pointCount > 0)
        {
            expectedNodes.insert(i);
            expectedPoints += tree.nodes[i].pointCount;
        }
    Collected limited;
    ASSERT_TRUE(executor.query(QueryRequest{{}, limit, 0}, limited.sink()));
    EXPECT_EQ(std::set<uint32_t>(limited.nodes.begin(), limited.nodes.end()), expectedNodes);
    EXPECT_EQ(limited.nodes.size(), expectedNodes.size());
    EXPECT_EQ(limited.points, expectedPoints);
    // Each node's records are what reading that node alone gives.
    for (size_t n = 0; n < limited.nodes.size(); ++n)
    {
        std::vector<uint8_t> records;
        uint64_t count = 0;
        std::string error;
        ASSERT_TRUE(executor.readNode(limited.nodes[n], records, count, error)) << error;
        EXPECT_EQ(records, limited.records[n]);
    }

    // The client's callbacks see the same nodes, one at a time, and the last progress call counts them all.
    QueryConfig config = logs.config(data.folder);
    std::set<uint32_t> written;
    std::pair<uint64_t, uint64_t> lastProgress;
    config.nodeWritten = [&](uint32_t node, uint64_t) { written.insert(node); };
    config.progress = [&](uint64_t done, uint64_t planned) { lastProgress = {done, planned}; };
    QueryExecutor reporting;
    ASSERT_TRUE(openQueryExecutor(reporting, config, false));
    ASSERT_TRUE(reporting.query(QueryRequest{{}, limit, 0}, Collected().sink()));
    EXPECT_EQ(written, expectedNodes);
    EXPECT_EQ(lastProgress, std::make_pair(uint64_t(expectedNodes.size()), uint64_t(expectedNodes.size())));

    // A budget of one point more than the two coarsest lods hold takes exactly one lod more.
    uint64_t coarsePoints = 0;
    for (uint32_t i = 0; i < tree.nodes.size(); ++i)
        if (lods[i] >= tree.header.maxLod - 1)
            coarsePoints += tree.nodes[i].pointCount;
    Collected budgeted;
    ASSERT_TRUE(executor.query(QueryRequest{{}, {}, coarsePoints + 1}, budgeted.sink()));
    std::set<uint8_t> budgetLods;
    for (uint32_t node : budgeted.nodes)
        budgetLods.insert(lods[node]);
    EXPECT_EQ(*budgetLods.begin(), tree.header.maxLod - 2);
    EXPECT_LT(budgeted.points, data.points.size());
}

TEST_F(QueryTest, QueriesWriteNewDataSetsThatQueryTheSame)
{
    QueryExecutor executor;
    open(executor);
    const std::array<double, 6> box{800.0, 500.0, 0.0, 3900.0, 4400.0, 2600.0};
    const fs::path out = data.setup.folder.path() / "cut";
    {
        FolderWriter writer(out.string(), logs.errors.logger());
        ASSERT_TRUE(executor.query(QueryRequest{box, {}, 0}, writer)) << logs.firstError();
    }
    QueryExecutor cut;
    open(cut);
    ASSERT_TRUE(openQueryExecutor(cut, logs.config(out), false)) << logs.firstError();
    std::vector<Point> expected;
    for (const Point& p : data.points)
        if (inBox(p, box))
            expected.push_back(p);
    Collected found;
    ASSERT_TRUE(cut.query({}, found.sink())) << logs.firstError();
    EXPECT_EQ(pointsOf(found, 17, storedPoint), expected);
    DataSetInfo info;
    ASSERT_TRUE(cut.getInfo(AttributeType::F64, info));
    EXPECT_EQ(info.pointCount, expected.size());
    for (unsigned axis = 0; axis < 3; ++axis)
    {
        EXPECT_GE(info.boxMin[axis], box[axis]);
        EXPECT_LE(info.boxMax[axis], box[axis + 3]);
    }
    // The new tree's nodes agree with their blocks, so every one reads.
    for (uint32_t i = 0; i < cut.tree().nodes.size(); ++i)
    {
        std::vector<uint8_t> records;
        uint64_t count = 0;
        std::string error;
        EXPECT_TRUE(cut.readNode(i, records, count, error)) << error;
        EXPECT_EQ(count, cut.tree().nodes[i].pointCount);
    }
}

TEST_F(QueryTest, InfoDescribesTheDataSetInTheRequestedForm)
{
    QueryExecutor executor;
    open(executor, true);
    DataSetInfo info;
    ASSERT_TRUE(executor.getInfo(AttributeType::F64, info));
    EXPECT_EQ(info.pointCount, kPointCount);
    EXPECT_EQ(info.storedPositionType, AttributeType::M96);
    EXPECT_EQ(info.outputRecordSize, 24u + 5u);
    EXPECT_EQ(info.storedRecordSize, 17u);
    EXPECT_EQ(info.attributes.front().role, AttributeRole::X);
    EXPECT_EQ(info.maxNodeSize, 2000u);
    uint64_t sum = 0;
    for (uint64_t count : info.lodPointCounts)
        sum += count;
    EXPECT_EQ(sum, kPointCount);
    EXPECT_FALSE(executor.getInfo(AttributeType::I64, info));
    EXPECT_FALSE(executor.getInfo(AttributeType::U8, info));
    EXPECT_EQ(logs.errors.lines.size(), 2u);
    EXPECT_EQ(logs.firstError(),
              " QueryExecutor::getInfo: could not get data set info, most likely position type incompatible.");
    // Passive: nodes read, queries refused.
    EXPECT_FALSE(executor.query({}, Collected().sink()));
}

// The query tree of the shared data set, to be broken in different ways.
std::vector<uint8_t> queryTreeBytes()
{
    std::ifstream stream(dataSet().folder / "queryTree.hspc", std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

TEST_F(QueryTest, TreeFilesAreCheckedWithTheirOwnMessages)
{
    const std::vector<uint8_t> good = queryTreeBytes();
    ASSERT_GT(good.size(), 200u);
    const auto failure = [&](std::vector<uint8_t> bytes)
    {
        Logs local;
        QueryExecutor executor;
        EXPECT_FALSE(executor.initializeQueryExecutor(local.config(data.folder), bytes, true));
        EXPECT_FALSE(executor.isInitialized());
        std::lock_guard lock(local.errors.mutex);
        EXPECT_EQ(local.errors.lines.back(), "QueryExecutor: failed to load tree.");
        return local.errors.lines.size() > 1 ? local.errors.lines[local.errors.lines.size() - 2] : "";
    };
    std::vector<uint8_t> bytes = good;
    bytes[0] = 'X';
    EXPECT_EQ(failure(bytes), "QueryExecutor : cannot recognize file format :XPRT");

    bytes = good;
    bytes[12] = 23;
    EXPECT_EQ(failure(bytes), "QueryExecutor : version number is not supported: version=23; supported up to "
                              "version=22");
    bytes[12] = 3;
    EXPECT_EQ(failure(bytes), "QueryExecutor : version number is not supported: version=3; supported up to "
                              "version=22");

    const uint64_t headerSize = little_endian::load<uint64_t>(good.data() + 4);
    bytes = good;
    little_endian::store<uint64_t>(bytes.data() + 4, headerSize + 4);
    EXPECT_EQ(failure(bytes), "QueryExecutor : Chunk size is wrong: " + std::to_string(headerSize) + " : " +
                                  std::to_string(headerSize + 4) +
                                  " ; Most likely the data is generated by a newer version than the library used "
                                  "for querying.");

    bytes = good;
    bytes[headerSize] = 'Q';
    EXPECT_EQ(failure(bytes), "QueryExecutor: while loading attributes: cannot regonise file format:QPCA");

    const uint64_t attributesSize = little_endian::load<uint64_t>(good.data() + headerSize + 4);
    bytes = good;
    bytes[headerSize + attributesSize + 3] = 'X';
    EXPECT_EQ(failure(bytes), "QueryExecutor: while loading tree: cannot regonise tree format");

    bytes = good;
    bytes.resize(bytes.size() - 7);
    EXPECT_EQ(failure(bytes).rfind("QueryExecutor: while loading tree: failed to load tree.", 0), 0u);

    // A progressive flag, version 10 on: the byte before the origin and the density base.
    Tree tree;
    ASSERT_TRUE(loadTree(good, tree, {}));
    tree.header.progressive = 1;
    std::vector<uint8_t> progressive;
    std::string error;
    ASSERT_TRUE(writeTreeFile(tree, TreeForm::kFull, progressive, error));
    EXPECT_EQ(failure(progressive), "QueryExecutor: querying during progressive encoding not possible.");
}

TEST_F(QueryTest, LoggersLimitsAndPositionTypesAtInitialization)
{
    const std::vector<uint8_t> good = queryTreeBytes();
    Logs local;
    QueryConfig config = local.config(data.folder);
    config.infoLogger = {};
    QueryExecutor executor;
    EXPECT_FALSE(executor.initializeQueryExecutor(config, good, true));
    config = local.config(data.folder);
    config.warningLogger = {};
    EXPECT_FALSE(executor.initializeQueryExecutor(config, good, true));
    EXPECT_EQ(local.errors.lines, (std::vector<std::string>{"initializeQueryExecutor: error: info logger is not set.",
                                                            "initializeQueryExecutor: error: warning logger is not set."}));

    config = local.config(data.folder);
    config.memoryLimit = 3000;
    ASSERT_TRUE(executor.initializeQueryExecutor(config, good, false));
    EXPECT_EQ(executor.memoryBudget(), 2000u);
    config.memoryLimit = 0;
    ASSERT_TRUE(executor.initializeQueryExecutor(config, good, true));
    EXPECT_EQ(executor.memoryBudget(), UINT64_MAX);

    // I32 cells need 32-bit codes: a data set of 64-bit codes can't give them.
    Tree tree;
    ASSERT_TRUE(loadTree(good, tree, {}));
    tree.attributes.attributes.front().type = AttributeType::M192;
    std::vector<uint8_t> wide;
    std::string error;
    ASSERT_TRUE(writeTreeFile(tree, TreeForm::kFull, wide, error));
    ASSERT_TRUE(executor.initializeQueryExecutor(config, wide, true)) << local.firstError();
    DataSetInfo info;
    EXPECT_FALSE(executor.getInfo(AttributeType::I32, info));
    EXPECT_TRUE(executor.getInfo(AttributeType::I64, info));
    EXPECT_EQ(info.outputRecordSize, 24u + 5u);
}

// The query front takes every tree the loader takes, except one still being written, and refuses the rest
// with a message.
TEST(QueryTreeBadInput, ReplaysTheFuzzCorpus)
{
    size_t opened = 0;
    const size_t replayed = pcp_test::replayFuzzCorpus(
        "hspc_query_tree",
        [&](const std::string& text, const fs::path& file)
        {
            const std::span bytes(reinterpret_cast<const uint8_t*>(text.data()), text.size());
            Logs logs;
            QueryConfig config = logs.config({});
            config.readBlob = [](const std::string&, std::vector<uint8_t>&) { return false; };
            QueryExecutor executor;
            const bool initialized = executor.initializeQueryExecutor(config, bytes, true);
            Tree tree;
            const bool loaded = loadTree(bytes, tree, nullptr);
            EXPECT_EQ(initialized, loaded && tree.header.progressive == 0) << file;
            EXPECT_EQ(logs.errors.lines.empty(), initialized) << file;
            if (initialized)
            {
                ++opened;
                EXPECT_EQ(executor.tree().nodes.size(), tree.nodes.size()) << file;
            }
        });
    EXPECT_GT(replayed, 0u);
    EXPECT_GT(opened, 0u);
}

// A blob reader that holds every node read until released, so that reads queue up.
struct HeldReader
{
    std::mutex mutex;
    std::condition_variable changed;
    bool released = false;
    int waiting = 0;
    fs::path folder;

    bool read(const std::string& name, std::vector<uint8_t>& bytes)
    {
        if (name.find(".apr") != std::string::npos)
        {
            std::unique_lock lock(mutex);
            ++waiting;
            changed.notify_all();
            changed.wait(lock, [&] { return released; });
        }
        FolderReader reader(folder.string());
        bytes.clear();
        return reader.read(name, bytes);
    }
    void waitUntilWaiting(int readers)
    {
        std::unique_lock lock(mutex);
        changed.wait(lock, [&] { return waiting >= readers; });
    }
    void release()
    {
        {
            std::lock_guard lock(mutex);
            released = true;
        }
        changed.notify_all();
    }
};

TEST_F(QueryTest, TheLayoutStaysWhileReadsAreQueued)
{
    HeldReader held;
    held.folder = data.folder;
    QueryConfig config = logs.config({});
    config.readBlob = [&](const std::string& name, std::vector<uint8_t>& bytes) { return held.read(name, bytes); };
    QueryExecutor executor;
    ASSERT_TRUE(openQueryExecutor(executor, config, false)) << logs.firstError();
    const std::vector<Attribute> before = executor.attributeLayout();
    Collected found;
    std::thread query([&] { EXPECT_TRUE(executor.query({}, found.sink())); });
    // Three input threads hold one read each; the walk queues the rest behind them.
    held.waitUntilWaiting(3);
    while (executor.queuedReads() == 0)
        std::this_thread::yield();
    EXPECT_FALSE(executor.updateAttributeLayout({{AttributeType::F64, AttributeRole::POSITION, "POSITION"}}));
    EXPECT_EQ(executor.attributeLayout(), before);
    held.release();
    query.join();
    EXPECT_EQ(pointsOf(found, 17, storedPoint), data.points);
    EXPECT_TRUE(executor.updateAttributeLayout({{AttributeType::F64, AttributeRole::POSITION, "POSITION"}}));
}

// A copy of the shared data set to break.
fs::path copyOfDataSet(const fs::path& where)
{
    fs::copy(dataSet().folder, where, fs::copy_options::recursive);
    return where;
}

TEST_F(QueryTest, BrokenNodesEndTheQueryWithTheirReason)
{
    QueryExecutor original;
    open(original, true);
    const Tree& tree = original.tree();
    const std::vector<uint8_t> lods = nodeLods(tree);
    const std::vector<std::array<uint64_t, 3>> corners = nodeCorners(tree);
    const auto fileOf = [&](const fs::path& root, uint32_t i)
    { return root / nodeBlobName(lods[i], corners[i][0], corners[i][1], corners[i][2]).substr(1); };
    const uint32_t victim = uint32_t(tree.nodes.size() - 1);
    const uint32_t other = uint32_t(tree.nodes.size() - 2);

    struct Case
    {
        std::string name;
        std::function<void(const fs::path&)> breakIt;
        std::string expected;
    };
    const std::vector<Case> cases{
        {"missing", [&](const fs::path& root) { fs::remove(fileOf(root, victim)); }, "Failed to read node file="},
        {"truncated", [&](const fs::path& root) { fs::resize_file(fileOf(root, victim), fs::file_size(fileOf(root, victim)) - 9); },
         "the block holds"},
        {"header only", [&](const fs::path& root) { fs::resize_file(fileOf(root, victim), 40); },
         "not a node block"},
        {"another node's block",
         [&](const fs::path& root) { fs::copy_file(fileOf(root, other), fileOf(root, victim), fs::copy_options::overwrite_existing); },
         "the tree names"},
        {"corrupt payload",
         [&](const fs::path& root)
         {
             std::fstream file(fileOf(root, victim), std::ios::in | std::ios::out | std::ios::binary);
             const auto size = fs::file_size(fileOf(root, victim));
             for (uint64_t at = size - 64; at < size; at += 3)
             {
                 file.seekp(std::streamoff(at));
                 file.put(char(0xA5));
             }
         },
         "failed to read node with index = " + std::to_string(victim)}};
    for (const Case& broken : cases)
    {
        SCOPED_TRACE(broken.name);
        pcp_test::TempFolder temp;
        const fs::path root = copyOfDataSet(temp.path() / "set");
        broken.breakIt(root);
        Logs local;
        QueryExecutor executor;
        ASSERT_TRUE(openQueryExecutor(executor, local.config(root), false));
        EXPECT_FALSE(executor.query({}, Collected().sink()));
        EXPECT_NE(local.firstError().find(broken.expected), std::string::npos) << local.firstError();
        std::vector<uint8_t> records;
        uint64_t count = 0;
        std::string error;
        EXPECT_FALSE(executor.readNode(victim, records, count, error));
        // The executor stays usable: a box away from the broken node still answers.
        EXPECT_TRUE(executor.readNode(0, records, count, error)) << error;
    }
}

TEST_F(QueryTest, ClientsCancelQueries)
{
    QueryConfig config = logs.config(data.folder);
    std::atomic<int> asked{0};
    config.cancelRequested = [&] { return ++asked > 3; };
    QueryExecutor executor;
    ASSERT_TRUE(openQueryExecutor(executor, config, false));
    EXPECT_FALSE(executor.query({}, Collected().sink()));

    QueryExecutor other;
    open(other);
    int calls = 0;
    EXPECT_FALSE(other.query({}, [&](const QueryNodeRecords&) { return ++calls < 2; }));
    EXPECT_EQ(calls, 2);
    Collected after;
    EXPECT_TRUE(other.query({}, after.sink()));
    EXPECT_EQ(after.points, kPointCount);
}

TEST_F(QueryTest, ManyQueriesAtOnceOnOneOrSeveralExecutors)
{
    QueryExecutor shared;
    open(shared);
    // A budget smaller than any node: the pipeline then holds one node at a time, and still answers.
    QueryExecutor second;
    QueryConfig tight = logs.config(data.folder);
    tight.memoryLimit = 3000;
    ASSERT_TRUE(openQueryExecutor(second, tight, false));
    const std::vector<std::array<double, 6>> boxes{{0, 0, 0, 2500, 5000, 5000},
                                                   {2500, 0, 0, 5000, 5000, 5000},
                                                   {1000, 1000, 1000, 4000, 4000, 4000},
                                                   {0, 0, 0, 5000, 5000, 5000}};
    std::vector<std::vector<Point>> found(boxes.size() * 2);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < found.size(); ++i)
        threads.emplace_back(
            [&, i]
            {
                Collected collected;
                QueryExecutor& executor = i % 3 == 2 ? second : shared;
                EXPECT_TRUE(executor.query(QueryRequest{boxes[i % boxes.size()], {}, 0}, collected.sink()));
                found[i] = pointsOf(collected, 17, storedPoint);
            });
    for (std::thread& thread : threads)
        thread.join();
    for (size_t i = 0; i < found.size(); ++i)
    {
        std::vector<Point> expected;
        for (const Point& p : data.points)
            if (inBox(p, boxes[i % boxes.size()]))
                expected.push_back(p);
        EXPECT_EQ(found[i], expected) << "query " << i;
    }
}

}  // namespace
