// The octree build from per-scan point files: where every point ends, how nodes are named, kept, dropped and
// folded into their parents, and how cancels and failures end a build. The scans are written by the tests,
// the tree is read back through its VRM and node files.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <random>
#include <set>

#include "cachefiles/CacheFiles.h"
#include "cachefiles/MetaFile.h"
#include "cachefiles/PntFiles.h"
#include "cachefiles/PnzFiles.h"
#include "cachefiles/VrmFile.h"
#include "core/StringConversion.h"
#include "octree/BuildTree.h"
#include "services/Logger.h"
#include "support/ErrorText.h"
#include "support/FileText.h"
#include "support/TempFolder.h"

using namespace pc_preprocess;
namespace fs = std::filesystem;

namespace
{

IoTransfo millimetres()
{
    IoTransfo transfo;
    transfo.scale = {0.001, 0.001, 0.001};
    transfo.offset = {0.0, 0.0, 0.0};
    return transfo;
}

IoLightPoint pointAt(int32_t x, int32_t y, int32_t z)
{
    IoLightPoint p;
    p.x = x;
    p.y = y;
    p.z = z;
    p.radius = 0.0f;
    p.r = p.g = p.b = 1000;
    p.intensity = 500;
    return p;
}

// Points spread thinly through a cube of `edge` cells, far sparser than one per cell: no filter touches them.
std::vector<IoLightPoint> sparsePoints(size_t count, int32_t edge, uint32_t seed)
{
    std::mt19937 random(seed);
    std::uniform_int_distribution<int32_t> coordinate(0, edge);
    std::vector<IoLightPoint> points;
    points.reserve(count);
    for (size_t i = 0; i < count; ++i)
        points.push_back(pointAt(coordinate(random), coordinate(random), coordinate(random)));
    return points;
}

// A cache folder with its logger, and scans written into its "Data" folder as a run leaves them.
struct Build
{
    explicit Build(const pcp_test::TempFolder& temp)
        : folder(toWide(temp.path() / "cache")), files(folder, L"cache", false, false)
    {
        fs::create_directories(toPath(folder) / "Data");
        logger = std::make_shared<Logger>(files.getLogFile(), false, false);
        logger->increaseStep("Read");
    }

    void addScan(const std::vector<IoLightPoint>& points, double filledArea = 0.0)
    {
        const std::wstring stem =
            toWide(toPath(folder) / "Data" / ("scan-" + std::to_string(scans.size()) + "-0000-temp"));
        ScanFiles scan;
        scan.pntFile = stem + L".pnt";
        scan.metaFile = stem + L".meta";
        writeTuncatePNT(scan.pntFile, millimetres(), points);
        MetaData meta;
        for (const IoLightPoint& p : points)
            meta.extents.extend(p);
        if (points.empty())
            meta.extents = ExtentsI32(0, 0, 0, 0, 0, 0);
        meta.numPoints = points.size();
        meta.filledArea = filledArea;
        writeMetaFile(scan.metaFile, meta);
        scans.push_back(scan);
    }

    void run(uint64_t threads = 2, const std::function<bool()>& cancel = nullptr)
    {
        SupportedAttributes attributes;
        buildTree(scans, folder, files, millimetres(), attributes, threads, logger, false, false, false, "",
                  geom::UnitsValue::kUnitsMeters, cancel);
    }

    fs::path data() const { return toPath(folder) / "Data"; }
    std::string log() const { return pcp_test::readText(toPath(files.getLogFile())); }

    std::wstring folder;
    CacheFiles files;
    std::shared_ptr<Logger> logger;
    std::vector<ScanFiles> scans;
};

struct TreeWalk
{
    uint64_t nodes = 0;
    uint64_t leaves = 0;
    uint64_t leafPoints = 0;
    std::multiset<std::tuple<int32_t, int32_t, int32_t>> leafPositions;
};

// Checks each node of the VRM against its PNZ: the count, the box, the limit of 65536, the name of each child
// as its parent's name with one more digit, and gathers the points of the leaves.
void walk(const fs::path& data, const VrmNode& node, TreeWalk& result)
{
    ++result.nodes;
    const fs::path pnz = data / toPath(node.file).replace_extension(".pnz");
    IoTransfo transfo;
    std::vector<IoLightPoint> points;
    readPNZ(toWide(pnz), transfo, points);
    ASSERT_EQ(points.size(), node.numPoints) << pnz;
    ASSERT_LE(points.size(), 65536u) << pnz;
    for (const IoLightPoint& p : points)
    {
        const double x = p.x * 0.001, y = p.y * 0.001, z = p.z * 0.001;
        ASSERT_TRUE(x >= node.box[0] && y >= node.box[1] && z >= node.box[2] && x <= node.box[3] &&
                    y <= node.box[4] && z <= node.box[5])
            << pnz;
    }
    const std::wstring stem = toPath(node.file).stem().wstring();
    for (size_t index = 0; index < node.children.size(); ++index)
    {
        EXPECT_EQ(toPath(node.children[index].file).stem().wstring(), stem + std::to_wstring(index));
        walk(data, node.children[index], result);
    }
    if (node.children.empty())
    {
        ++result.leaves;
        result.leafPoints += points.size();
        for (const IoLightPoint& p : points)
            result.leafPositions.insert({p.x, p.y, p.z});
    }
}

TreeWalk walkTree(const Build& build)
{
    TreeWalk result;
    walk(build.data(), readVrm(build.files.getTreeFile()), result);
    return result;
}

}  // namespace

TEST(Octree, EveryPointOfSparseScansEndsInExactlyOneLeaf)
{
    pcp_test::TempFolder temp;
    Build build(temp);
    std::vector<IoLightPoint> all;
    for (uint32_t scan = 0; scan < 3; ++scan)
    {
        const auto points = sparsePoints(150000 + 20000 * scan, 2'000'000, scan);
        build.addScan(points);
        all.insert(all.end(), points.begin(), points.end());
    }
    build.addScan({});  // an empty scan is skipped, and its files go too
    build.run();

    const TreeWalk tree = walkTree(build);
    EXPECT_GE(tree.leaves, 8u);
    EXPECT_EQ(tree.leafPoints, all.size());
    std::multiset<std::tuple<int32_t, int32_t, int32_t>> expected;
    for (const IoLightPoint& p : all)
        expected.insert({p.x, p.y, p.z});
    EXPECT_EQ(tree.leafPositions, expected);
    // The scans' files are consumed; only the tree's compressed nodes are left.
    for (const auto& entry : fs::directory_iterator(build.data()))
        EXPECT_EQ(entry.path().extension(), ".pnz") << entry.path();
    const std::string count = std::to_string(all.size());
    EXPECT_NE(build.log().find("Points: " + count +
                               " entered the tree, 0 removed by the filters, 0 dropped with "
                               "children of fewer than 5 points, 0 outside the boxes of their node, " +
                               count + " in " + std::to_string(tree.leaves) + " leaves"),
              std::string::npos)
        << build.log();
}

TEST(Octree, ASingleNodeHoldsUpTo65536Points)
{
    for (const size_t count : {size_t(0), size_t(65536), size_t(65537)})
    {
        pcp_test::TempFolder temp;
        Build build(temp);
        build.addScan(sparsePoints(count, 1'000'000, 7));
        build.run();
        const VrmNode root = readVrm(build.files.getTreeFile());
        EXPECT_EQ(root.file, L"0.pnt");
        EXPECT_EQ(root.children.empty(), count <= 65536) << count;
        const TreeWalk tree = walkTree(build);
        EXPECT_EQ(tree.leafPoints, count);
    }
}

TEST(Octree, TinyChildrenVanishAndTheRestFoldIntoTheirParent)
{
    // Four points alone in the far corner of the box: their child is dropped, and its later siblings take
    // its digit.
    const auto withCorner = [](size_t spread)
    {
        // The spread points keep out of the upper corner octant of the box, which the four have to
        // themselves.
        std::vector<IoLightPoint> points;
        for (const IoLightPoint& p : sparsePoints(spread * 9 / 7, 2'000'000, 3))
            if (points.size() < spread && !(p.x > 990'000 && p.y > 990'000 && p.z > 990'000))
                points.push_back(p);
        EXPECT_EQ(points.size(), spread);
        for (int k = 0; k < 4; ++k)
            points.push_back(pointAt(1'999'990 + k, 1'999'990, 1'999'990));
        points.push_back(pointAt(0, 0, 0));
        return points;
    };
    {
        pcp_test::TempFolder temp;
        Build build(temp);
        build.addScan(withCorner(65537));
        build.run();
        const VrmNode root = readVrm(build.files.getTreeFile());
        ASSERT_FALSE(root.children.empty());
        const TreeWalk tree = walkTree(build);  // also checks that the digits are contiguous
        EXPECT_EQ(tree.leafPoints, 65538u);
        EXPECT_FALSE(fs::exists(build.data() / ("0" + std::to_string(root.children.size()) + ".pnz")));
        EXPECT_NE(build.log().find("4 dropped with children of fewer than 5 points"), std::string::npos)
            << build.log();
    }
    {
        // Without the four, 65536 points remain below the root, all in leaves: they fold into the root.
        pcp_test::TempFolder temp;
        Build build(temp);
        build.addScan(withCorner(65535));
        build.run();
        const VrmNode root = readVrm(build.files.getTreeFile());
        EXPECT_TRUE(root.children.empty());
        EXPECT_EQ(root.numPoints, 65536u);
        EXPECT_EQ(walkTree(build).leafPoints, 65536u);
        EXPECT_FALSE(fs::exists(build.data() / "00.pnz"));
    }
}

TEST(Octree, DenseDataIsThinnedAndTheLogAccountsForEveryPoint)
{
    pcp_test::TempFolder temp;
    Build build(temp);
    // A floor of 600 x 600 mm sampled ten times per cell: the filter must thin it.
    std::vector<IoLightPoint> points;
    for (int32_t x = 0; x < 600; ++x)
        for (int32_t y = 0; y < 600; ++y)
            for (int k = 0; k < 3; ++k)
                points.push_back(pointAt(x, y, k % 2));
    build.addScan(points);
    build.run();
    const TreeWalk tree = walkTree(build);
    EXPECT_LT(tree.leafPoints, points.size());
    EXPECT_GT(tree.leafPoints, 600u * 600u / 16);
    const std::string log = build.log();
    const std::string removed = std::to_string(points.size() - tree.leafPoints);
    EXPECT_NE(log.find("Points: " + std::to_string(points.size()) + " entered the tree, " + removed +
                       " removed by the filters"),
              std::string::npos)
        << log;
}

TEST(Octree, CancelEndsEachStageAndAFailingWorkerFailsTheBuild)
{
    for (const int cancelAt : {1, 3, 6})
    {
        pcp_test::TempFolder temp;
        Build build(temp);
        build.addScan(sparsePoints(400000, 2'000'000, 11));
        std::atomic<int> calls{0};
        EXPECT_EQ(pcp_test::errorText([&] { build.run(2, [&] { return ++calls >= cancelAt; }); }),
                  "Preprocessing cancelled by user.")
            << cancelAt;
        build.logger.reset();
        EXPECT_EQ(pcp_test::readText(toPath(build.files.getLogFile()).replace_extension(".pct")), "CANCEL");
    }

    // A leaf's file that vanishes before the merge (taken away here when the split stage asks for a cancel):
    // the merging worker's error fails the build and is held in the log.
    pcp_test::TempFolder temp;
    Build build(temp);
    build.addScan(sparsePoints(400000, 2'000'000, 12));
    bool removed = false;
    const std::string error = pcp_test::errorText(
        [&]
        {
            build.run(2,
                      [&]
                      {
                          if (!removed && fs::exists(build.data() / "00.pnz") &&
                              !fs::exists(build.data() / "0.pnt"))
                              removed = fs::remove(build.data() / "00.pnz");
                          return false;
                      });
        });
    EXPECT_TRUE(removed);
    EXPECT_EQ(error, "buildTree ERROR : merging threaded failed.");
    build.logger.reset();
    EXPECT_EQ(pcp_test::readText(toPath(build.files.getLogFile()).replace_extension(".pct")), "FAIL");
}
