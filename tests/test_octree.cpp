// The octree build from per-scan point files: where every point ends, how nodes are named, kept, dropped,
// filtered and folded into their parents, and how cancels and failures end a build. The scans are written by
// the tests, the tree is read back through its VRM and node files.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <filesystem>
#include <functional>
#include <set>
#include <thread>

#include "cachefiles/VrmFile.h"
#include "core/StringConversion.h"
#include "octree/Node.h"
#include "support/ErrorText.h"
#include "support/OctreeBuild.h"
#include "support/TempFolder.h"
#include "support/ThreadFaults.h"

using namespace pc_preprocess;
using pcp_test::OctreeBuild;
using pcp_test::pointAt;
using pcp_test::sparsePoints;
using pcp_test::TreeWalk;
using pcp_test::walkTree;
namespace fs = std::filesystem;

namespace
{

std::multiset<std::tuple<int32_t, int32_t, int32_t>> positionsOf(const std::vector<IoLightPoint>& points)
{
    std::multiset<std::tuple<int32_t, int32_t, int32_t>> positions;
    for (const IoLightPoint& p : points)
        positions.insert({p.x, p.y, p.z});
    return positions;
}

}  // namespace

TEST(Octree, EveryPointOfSparseScansEndsInExactlyOneLeaf)
{
    pcp_test::TempFolder temp;
    OctreeBuild build(temp);
    // Two scans spread through the whole box, and one packed into a corner of it: the corner's child of the
    // root holds far more than 65536 points, and so do its child and grandchild, which the split workers queue
    // behind it.
    std::vector<IoLightPoint> all;
    for (const auto& points :
         {sparsePoints(150000, 2'000'000, 1), sparsePoints(400000, 200'000, 2), sparsePoints(90000, 2'000'000, 3)})
    {
        build.addScan(points);
        all.insert(all.end(), points.begin(), points.end());
    }
    build.addScan({});  // an empty scan is skipped, and its files go too
    build.run();

    const TreeWalk tree = walkTree(build);
    EXPECT_GE(tree.leaves, 8u);
    // Root, corner child, its child, grandchild, and the octant of about 97000 points below that.
    EXPECT_GE(tree.depth, 5u);
    EXPECT_EQ(tree.leafPoints, all.size());
    EXPECT_EQ(tree.leafPositions, positionsOf(all));
    // The scans' files are consumed; only the tree's compressed nodes are left.
    for (const auto& entry : fs::directory_iterator(build.data()))
        EXPECT_EQ(entry.path().extension(), ".pnz") << entry.path();
    const std::string count = std::to_string(all.size());
    EXPECT_TRUE(build.logHas("Points: " + count +
                             " entered the tree, 0 removed by the filters, 0 dropped with children of fewer than 5 "
                             "points, 0 outside the boxes of their node, " +
                             count + " in " + std::to_string(tree.leaves) + " leaves"))
        << build.log();
}

TEST(Octree, ASingleNodeHoldsUpTo65536Points)
{
    for (const size_t count : {size_t(0), size_t(65536), size_t(65537)})
    {
        pcp_test::TempFolder temp;
        OctreeBuild build(temp);
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
        OctreeBuild build(temp);
        build.addScan(withCorner(65537));
        build.run();
        const VrmNode root = readVrm(build.files.getTreeFile());
        ASSERT_FALSE(root.children.empty());
        const TreeWalk tree = walkTree(build);  // also checks that the digits are contiguous
        EXPECT_EQ(tree.leafPoints, 65538u);
        EXPECT_FALSE(fs::exists(build.data() / ("0" + std::to_string(root.children.size()) + ".pnz")));
        EXPECT_TRUE(build.logHas("4 dropped with children of fewer than 5 points")) << build.log();
    }
    {
        // Without the four, 65536 points remain below the root, all in leaves: they fold into the root.
        pcp_test::TempFolder temp;
        OctreeBuild build(temp);
        build.addScan(withCorner(65535));
        build.run();
        const VrmNode root = readVrm(build.files.getTreeFile());
        EXPECT_TRUE(root.children.empty());
        EXPECT_EQ(root.numPoints, 65536u);
        EXPECT_EQ(walkTree(build).leafPoints, 65536u);
        EXPECT_FALSE(fs::exists(build.data() / "00.pnz"));
    }
}

TEST(Octree, DenseDataWithoutPanoramasMergesPointsOfOneCell)
{
    pcp_test::TempFolder temp;
    OctreeBuild build(temp);
    // A floor of 600 x 600 mm sampled three times per millimetre cell, twice at height 0 and once at 1. Each
    // child of the root (150 x 300 x 2 cells) holds more points than cells, so it goes through the filter,
    // which merges the points of one cell: two points per column are left, and the grandchildren of 75 x 75
    // columns that hold them are sparse enough to keep.
    std::vector<IoLightPoint> points;
    std::vector<IoLightPoint> distinct;
    for (int32_t x = 0; x < 600; ++x)
        for (int32_t y = 0; y < 600; ++y)
        {
            for (int k = 0; k < 3; ++k)
                points.push_back(pointAt(x, y, k % 2));
            distinct.push_back(pointAt(x, y, 0));
            distinct.push_back(pointAt(x, y, 1));
        }
    build.addScan(points);
    build.run();
    const TreeWalk tree = walkTree(build);
    EXPECT_EQ(tree.leafPoints, distinct.size());
    EXPECT_EQ(tree.leafPositions, positionsOf(distinct));
    EXPECT_TRUE(build.logHas("Points: 1080000 entered the tree, 360000 removed by the filters")) << build.log();
}

TEST(Octree, PanoramaScansKeepOnePointPerCellOfTheirSpacing)
{
    // Floors sampled every millimetre, their points 12 m from the scanner, with the filled area that makes the
    // spacing factor sqrt(filledArea / points) * 1.7 exactly 0.001: every point's radius becomes 12 mm. The
    // filter resolves that in cells of 16 mm (the first level whose 2^(level + 1) cells reach the radius over
    // the half diagonal of a step), keeps one averaged point per cell, and gives it the half diagonal of its
    // cell as radius. A root of 256 x 256 points is filtered alone; one of 512 x 512 is split, and its
    // children, kept from filtering by no rule while they are this small, are filtered each.
    const double halfDiagonal = 0.5 * std::sqrt(3.0) * 0.001;
    const auto cellRadius = static_cast<float>(16 * halfDiagonal);
    for (const int32_t side : {256, 512})
    {
        pcp_test::TempFolder temp;
        OctreeBuild build(temp);
        std::vector<IoLightPoint> floor;
        for (int32_t x = 0; x < side; ++x)
            for (int32_t y = 0; y < side; ++y)
                floor.push_back(pointAt(x, y, 0, 12.0f));
        const double n = double(floor.size());
        build.addScan(floor, n * std::pow(0.001 / 1.7, 2));
        build.run();

        const TreeWalk tree = walkTree(build);
        const uint64_t cells = uint64_t(side / 16) * uint64_t(side / 16);
        EXPECT_EQ(tree.leafPoints, cells) << side;
        EXPECT_EQ(tree.leafRadii.count(cellRadius), cells) << side;
        std::set<std::pair<int32_t, int32_t>> occupied;
        for (const auto& [x, y, z] : tree.leafPositions)
            occupied.insert({x / 16, y / 16});
        EXPECT_EQ(occupied.size(), cells) << side;
    }
}

TEST(Octree, CancelsAndFailuresEndEachStageCleanly)
{
    // Each stage is told apart by the log line that opens it, so that the cancel, or the failure, lands in
    // that stage and no other.
    const std::string stages[] = {"Started splitting root", "Started splitting threaded",
                                  "Started merging threaded"};
    const auto withScan = [](const pcp_test::TempFolder& temp)
    {
        auto build = std::make_unique<OctreeBuild>(temp);
        build->addScan(sparsePoints(400000, 2'000'000, 11));
        return build;
    };
    // With the smallest budget of a subtree in memory, the root split takes a census of the scans first, and
    // nodes go through their files.
    for (const uint64_t budget : {kSubtreePointBudget, kMaxNodePoints + 1})
        for (const std::string& stage : stages)
        {
            SCOPED_TRACE(stage + ", subtree budget " + std::to_string(budget));
            pcp_test::TempFolder temp;
            const auto build = withScan(temp);
            const auto cancelInStage = [&] { return build->logHas(stage); };
            EXPECT_EQ(pcp_test::errorText([&] { build->run(2, cancelInStage, startThread, budget); }),
                      "Preprocessing cancelled by user.");
            EXPECT_FALSE(build->logHas("Finished" + stage.substr(7)));
            EXPECT_FALSE(fs::exists(build->data() / "0.pnz"));
            EXPECT_FALSE(fs::exists(toPath(build->files.getTreeFile())));
            EXPECT_EQ(build->finalPercentage(), "CANCEL");
        }

    // A cancel test that throws on a worker thread, and a worker that cannot be started, fail the stage of
    // their pool with the reason in the log; nothing escapes a thread. The split pool starts the first two
    // threads, the merge pool the next two.
    const std::thread::id host = std::this_thread::get_id();
    for (const size_t pool : {0, 1})
    {
        const std::string stage = pool == 0 ? "splitting" : "merging";
        const std::string failure = "buildTree ERROR : " + stage + " threaded failed.";
        const std::string logged = pool == 0 ? "ERROR splitting threaded :\n\t" : "ERROR merging threaded:\n\t";
        {
            pcp_test::TempFolder temp;
            const auto build = withScan(temp);
            const auto onWorkerInStage = [&]
            { return std::this_thread::get_id() != host && build->logHas(stages[pool + 1]); };
            EXPECT_EQ(pcp_test::errorText([&] { build->run(2, pcp_test::cancelThatThrowsWhen(onWorkerInStage)); }),
                      failure);
            const std::string log = build->logWithHeldErrors();
            EXPECT_NE(log.find(logged + pcp_test::cancelFailureText()), std::string::npos) << log;
            EXPECT_EQ(build->finalPercentage(), "FAIL");
        }
        {
            pcp_test::TempFolder temp;
            const auto build = withScan(temp);
            EXPECT_EQ(pcp_test::errorText([&] { build->run(2, nullptr, pcp_test::threadStartFailingAt(2 * pool + 2)); }),
                      failure);
            const std::string log = build->logWithHeldErrors();
            EXPECT_NE(log.find(logged + "Could not start worker thread 2 of 2"), std::string::npos) << log;
            EXPECT_EQ(build->finalPercentage(), "FAIL");
        }
    }

    // A leaf's file that vanishes before the merge (taken away here when the split stage asks for a cancel):
    // the merging worker's error fails the build and is held in the log.
    pcp_test::TempFolder temp;
    const auto build = withScan(temp);
    std::atomic<bool> removed = false;
    const std::string error = pcp_test::errorText(
        [&]
        {
            build->run(2,
                       [&]
                       {
                           if (!removed && build->logHas(stages[1]) && !build->logHas(stages[2]) &&
                               fs::remove(build->data() / "00.pnz"))
                               removed = true;
                           return false;
                       });
        });
    EXPECT_TRUE(removed);
    EXPECT_EQ(error, "buildTree ERROR : merging threaded failed.");
    EXPECT_EQ(build->finalPercentage(), "FAIL");
}
