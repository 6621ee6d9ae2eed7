// Thinning of dense points: the voxel simplifier that merges points on a doubling grid, the filter tree that
// keeps the finest detail at each place, and the two node filters that run them over a node's point file.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <set>
#include <tuple>

#include "cachefiles/PntFiles.h"
#include "octree/FilterTree.h"
#include "octree/NodeFilters.h"
#include "octree/VxMap.h"
#include "support/ErrorText.h"
#include "support/TempFolder.h"

using namespace pc_preprocess;
using filter::FilterTree;
using voxelizer::vxMap;
using voxelizer::vxSimplifyData;
using voxelizer::workerSimplify;

namespace
{

IoTransfo transfoWithScale(double sx, double sy, double sz)
{
    IoTransfo t;
    t.scale = {sx, sy, sz};
    t.offset = {100.0, -50.0, 3.0};
    return t;
}

IoTransfo millimetres()
{
    return transfoWithScale(0.001, 0.001, 0.001);
}

IoLightPoint pointAt(int32_t x, int32_t y, int32_t z, float radius, uint16_t colour = 1000)
{
    IoLightPoint p;
    p.x = x;
    p.y = y;
    p.z = z;
    p.radius = radius;
    p.r = colour;
    p.g = static_cast<uint16_t>(colour / 2);
    p.b = static_cast<uint16_t>(colour / 4);
    p.intensity = colour;
    return p;
}

// Half the diagonal of one integer step.
double halfDiagonalOf(const IoTransfo& t)
{
    const auto& s = t.scale;
    return 0.5 * std::sqrt(s[0] * s[0] + s[1] * s[1] + s[2] * s[2]);
}

// Half the diagonal of a cell 2^collapses steps wide, as the simplifier gives it to merged points.
float mergedRadius(const IoTransfo& t, int collapses)
{
    const auto& s = t.scale;
    return static_cast<float>(std::sqrt((s[0] * s[0] + s[1] * s[1] + s[2] * s[2]) * (2.0 / 3.0)) * 0.5 *
                              std::ldexp(1.0, collapses));
}

bool inside(const ExtentsI32& box, const std::vector<IoLightPoint>& points)
{
    return std::all_of(points.begin(), points.end(), [&](const IoLightPoint& p) { return box.contains(p); });
}

ExtentsI32 boxOf(const std::vector<IoLightPoint>& points)
{
    ExtentsI32 box;
    for (const IoLightPoint& p : points)
        box.extend(p);
    return box;
}

const IoLightPoint* findAt(const std::vector<IoLightPoint>& points, int32_t x, int32_t y, int32_t z)
{
    for (const IoLightPoint& p : points)
        if (p.x == x && p.y == y && p.z == z)
            return &p;
    return nullptr;
}

// Clusters of different density around negative and positive coordinates, so that leaves fill and split at
// many levels.
std::vector<IoLightPoint> clusteredCloud(size_t count, uint32_t seed)
{
    std::mt19937 random(seed);
    std::uniform_int_distribution<int32_t> centre(-3000000, 3000000);
    std::uniform_int_distribution<int32_t> spread(0, 3);
    std::uniform_real_distribution<float> radius(0.001f, 0.01f);
    std::vector<IoLightPoint> points;
    points.reserve(count);
    while (points.size() < count)
    {
        const int32_t cx = centre(random), cy = centre(random), cz = centre(random);
        const int32_t extent = 1 << (4 * spread(random));  // 1, 16, 256 or 4096 cells wide
        std::uniform_int_distribution<int32_t> offset(0, extent - 1);
        for (int i = 0; i < 500 && points.size() < count; ++i)
            points.push_back(pointAt(cx + offset(random), cy + offset(random), cz + offset(random),
                                     radius(random), static_cast<uint16_t>(random())));
    }
    return points;
}

// A flat, square patch of a scan: `side` x `side` points `spacing` steps apart at height z.
std::vector<IoLightPoint> plane(int32_t x0, int32_t y0, int32_t z, int side, int32_t spacing, float radius,
                                uint16_t colour)
{
    std::vector<IoLightPoint> points;
    points.reserve(size_t(side) * size_t(side));
    for (int i = 0; i < side; ++i)
        for (int j = 0; j < side; ++j)
            points.push_back(pointAt(x0 + i * spacing, y0 + j * spacing, z, radius, colour));
    return points;
}

// The points a filter tree keeps of the given ones, added in their order.
std::vector<IoLightPoint> filtered(const std::vector<IoLightPoint>& points, const ExtentsI32& box,
                                   bool keepMultiple = false)
{
    FilterTree tree(box, millimetres(), keepMultiple);
    for (const IoLightPoint& p : points)
        tree.add(p);
    return tree.points();
}

using CellKey = std::tuple<uint32_t, uint32_t, uint32_t>;

// The cell of a grid 2^shift steps wide, aligned in biased coordinates, that holds the point; shift goes up
// to 32, one cell for everything.
CellKey cellOf(const IoLightPoint& p, int shift)
{
    const auto at = [shift](int32_t c) { return uint32_t(uint64_t(voxelizer::biased(c)) >> shift); };
    return {at(p.x), at(p.y), at(p.z)};
}

// The cells of a grid 2^shift steps wide that hold at least one point.
std::set<CellKey> occupiedCells(const std::vector<IoLightPoint>& points, int shift)
{
    std::set<CellKey> cells;
    for (const IoLightPoint& p : points)
        cells.insert(cellOf(p, shift));
    return cells;
}

}  // namespace

TEST(WorkerSimplify, FewEnoughPointsComeBackUnchanged)
{
    std::vector<IoLightPoint> points;
    for (int i = 0; i < 100; ++i)
    {
        IoLightPoint p = pointAt(i, -i, i * 3, 0.5f + static_cast<float>(i), static_cast<uint16_t>(i * 7));
        p.scanId = static_cast<uint16_t>(i % 5 + 1);
        p.classification = static_cast<uint8_t>(i % 3 + 2);
        points.push_back(p);
    }
    for (const size_t maxPoints : {size_t(100), size_t(1000000)})
    {
        const std::vector<IoLightPoint> result = workerSimplify(points, millimetres(), maxPoints);
        ASSERT_EQ(result.size(), points.size());
        for (size_t i = 0; i < points.size(); ++i)
            ASSERT_EQ(std::tie(result[i].x, result[i].y, result[i].z, result[i].r, result[i].radius,
                               result[i].scanId, result[i].classification),
                      std::tie(points[i].x, points[i].y, points[i].z, points[i].r, points[i].radius,
                               points[i].scanId, points[i].classification));
    }
    std::vector<IoLightPoint> none;
    EXPECT_TRUE(workerSimplify(none, millimetres(), 0).empty());
}

TEST(WorkerSimplify, ReducesToAtMostTheWantedCountInsideTheInputsBox)
{
    std::vector<IoLightPoint> points = clusteredCloud(60000, 7);
    for (IoLightPoint& p : points)
    {
        p.scanId = 3;
        p.classification = 9;
    }
    const ExtentsI32 box = boxOf(points);
    const IoTransfo transfo = transfoWithScale(0.001, 0.002, 0.0005);
    for (const size_t maxPoints : {size_t(30000), size_t(5000), size_t(100), size_t(1)})
    {
        SCOPED_TRACE(maxPoints);
        const std::vector<IoLightPoint> result = workerSimplify(points, transfo, maxPoints);
        EXPECT_LE(result.size(), maxPoints);
        // One doubling merges at most eight cells into one.
        EXPECT_GT(result.size() * 8, maxPoints);
        EXPECT_TRUE(inside(box, result));
        for (const IoLightPoint& p : result)
        {
            ASSERT_EQ(p.scanId, 0);
            ASSERT_EQ(p.classification, 0);
        }
    }
}

TEST(WorkerSimplify, MergedCellsWeighPointsBySquaredRadius)
{
    const IoTransfo transfo = millimetres();
    {
        // Seven steps apart: one cell after three doublings. Weights 1 and 9 put the mean at 6.3 steps; plain
        // radii would give 5.25, equal weights 3.5.
        std::vector<IoLightPoint> points = {pointAt(0, 0, 0, 1.0f, 0), pointAt(7, 0, 0, 3.0f, 1000)};
        const std::vector<IoLightPoint> result = workerSimplify(points, transfo, 1);
        ASSERT_EQ(result.size(), 1u);
        EXPECT_EQ(result[0].x, 6);
        EXPECT_EQ(result[0].r, 900);
        EXPECT_EQ(result[0].g, 450);
        EXPECT_EQ(result[0].intensity, 900);
        EXPECT_EQ(result[0].radius, mergedRadius(transfo, 3));
    }
    {
        // Two identical points make a cell of weight 1 + 4; with a third point of weight 1 the colour is 600
        // / 6. A merged cell whose weight were squared again would give 600 / 26.
        std::vector<IoLightPoint> points = {pointAt(0, 0, 0, 1.0f, 0), pointAt(0, 0, 0, 2.0f, 0),
                                            pointAt(7, 0, 0, 1.0f, 600)};
        const std::vector<IoLightPoint> result = workerSimplify(points, transfo, 1);
        ASSERT_EQ(result.size(), 1u);
        EXPECT_EQ(result[0].r, 100);
        EXPECT_EQ(result[0].x, 1);
    }
    {
        // Means are rounded half away from zero in the biased range: 1.5 becomes 2, and -1.5 becomes -1.
        vxMap<vxSimplifyData> map;
        EXPECT_EQ(map.add(pointAt(1, -2, 5, 2.0f)), 1u);
        EXPECT_EQ(map.add(pointAt(2, -1, 5, 2.0f)), 2u);
        map.collapse();
        EXPECT_EQ(map.liveCount(), 2u);
        map.collapse();
        EXPECT_EQ(map.liveCount(), 1u);
        const std::vector<IoLightPoint> result = map.convert(transfo);
        ASSERT_EQ(result.size(), 1u);
        EXPECT_EQ(std::tie(result[0].x, result[0].y, result[0].z), std::make_tuple(2, -1, 5));
    }
}

TEST(WorkerSimplify, ALonePointKeepsItsExactValuesThroughCollapses)
{
    std::vector<IoLightPoint> points;
    for (int32_t x = 0; x < 16; ++x)
        for (int32_t y = 0; y < 16; ++y)
            for (int32_t z = 0; z < 4; ++z)
                points.push_back(pointAt(x, y, z, 0.002f));
    IoLightPoint lone = pointAt(1000001, -777777, 12345, 0.37f, 4321);
    lone.intensity = 999;
    points.push_back(lone);

    const std::vector<IoLightPoint> result = workerSimplify(points, millimetres(), 10);
    ASSERT_LE(result.size(), 10u);
    const IoLightPoint* found = findAt(result, lone.x, lone.y, lone.z);
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->radius, lone.radius);
    EXPECT_EQ(std::tie(found->r, found->g, found->b, found->intensity),
              std::tie(lone.r, lone.g, lone.b, lone.intensity));
}

TEST(WorkerSimplify, EvenTheWidestCloudEndsInOnePoint)
{
    // All points equal: one cell from the start, whatever the wanted count.
    std::vector<IoLightPoint> same(500, pointAt(-5, 6, -7, 0.5f, 2000));
    const std::vector<IoLightPoint> one = workerSimplify(same, millimetres(), 0);
    ASSERT_EQ(one.size(), 1u);
    EXPECT_EQ(std::tie(one[0].x, one[0].y, one[0].z, one[0].r), std::make_tuple(-5, 6, -7, uint16_t(2000)));

    // The two ends of the coordinate range share a cell only when it spans the whole range.
    vxMap<vxSimplifyData> map;
    map.add(pointAt(std::numeric_limits<int32_t>::min(), 0, 0, 1.0f));
    map.add(pointAt(std::numeric_limits<int32_t>::max(), 0, 0, 1.0f));
    int rounds = 0;
    while (map.liveCount() > 1 && rounds < 100)
    {
        map.collapse();
        ++rounds;
    }
    EXPECT_EQ(rounds, 32);
    EXPECT_EQ(map.getNumCollapses(), 32);
    map.collapse();
    EXPECT_EQ(map.getNumCollapses(), 32);
    const std::vector<IoLightPoint> result = map.convert(millimetres());
    ASSERT_EQ(result.size(), 1u);
    EXPECT_EQ(result[0].x, 0);  // (-2^31 + 2^31 - 1) / 2 = -0.5, in biased terms 2^31 - 0.5, rounded up
    EXPECT_EQ(result[0].radius, mergedRadius(millimetres(), 32));
}

TEST(WorkerSimplify, GivesTheCellsThatTheMapReachesByDoubling)
{
    // The simplifier finds the grid at once; the map doubles its cells until few enough remain. Both must
    // leave the same cells, with the same radii, and each cell's mean within one step (the sums may be added
    // in another order). Clouds narrow enough for 64-bit keys and wide ones that need more.
    std::vector<IoLightPoint> narrow;
    for (const IoLightPoint& p : clusteredCloud(40000, 23))
        narrow.push_back(pointAt(p.x / 8 + 900000, p.y / 8 + 900000, p.z / 8 + 900000, p.radius, p.r));
    for (const std::vector<IoLightPoint>& cloud : {clusteredCloud(40000, 21), narrow})
        for (const size_t maxPoints : {size_t(20000), size_t(3000), size_t(7)})
        {
            SCOPED_TRACE(maxPoints);
            std::vector<IoLightPoint> points = cloud;
            vxMap<vxSimplifyData> map;
            uint64_t live = 0;
            for (const IoLightPoint& p : points)
                live = map.add(p);
            while (live > maxPoints)
            {
                map.collapse();
                live = map.liveCount();
            }
            const int shift = map.getNumCollapses();
            const auto byCell = [shift](std::vector<IoLightPoint> result)
            {
                std::sort(result.begin(), result.end(),
                          [shift](const IoLightPoint& a, const IoLightPoint& b)
                          { return cellOf(a, shift) < cellOf(b, shift); });
                return result;
            };
            const std::vector<IoLightPoint> expected = byCell(map.convert(millimetres()));
            const std::vector<IoLightPoint> result = byCell(workerSimplify(points, millimetres(), maxPoints));
            ASSERT_EQ(result.size(), expected.size());
            EXPECT_EQ(occupiedCells(result, shift), occupiedCells(expected, shift));
            for (size_t i = 0; i < result.size(); ++i)
            {
                ASSERT_EQ(result[i].radius, expected[i].radius) << i;
                ASSERT_LE(std::abs(result[i].x - expected[i].x), 1) << i;
                ASSERT_LE(std::abs(result[i].y - expected[i].y), 1) << i;
                ASSERT_LE(std::abs(result[i].z - expected[i].z), 1) << i;
                ASSERT_LE(std::abs(result[i].r - expected[i].r), 1) << i;
            }
        }
}

TEST(VxMap, CellsAreTheOccupiedCellsOfEachGridAndTheMapEmptiesOnConvert)
{
    const std::vector<IoLightPoint> points = clusteredCloud(30000, 11);
    vxMap<vxSimplifyData> map;
    uint64_t live = 0;
    for (const IoLightPoint& p : points)
        live = map.add(p);
    for (int shift = 0; shift <= 24; shift += 3)
    {
        while (map.getNumCollapses() < shift)
            map.collapse();
        EXPECT_EQ(map.liveCount(), occupiedCells(points, shift).size()) << "cells 2^" << shift << " wide";
    }
    EXPECT_EQ(live, occupiedCells(points, 0).size());

    const std::vector<IoLightPoint> result = map.convert(millimetres());
    EXPECT_EQ(result.size(), occupiedCells(points, 24).size());
    EXPECT_TRUE(inside(boxOf(points), result));
    EXPECT_EQ(map.liveCount(), 0u);
    EXPECT_TRUE(map.convert(millimetres()).empty());
    // An emptied map takes points again.
    EXPECT_EQ(map.add(pointAt(1, 2, 3, 1.0f)), 1u);
    EXPECT_EQ(map.convert(millimetres()).size(), 1u);
}

TEST(FilterTree, RadiusChoosesTheCellThatMergesPoints)
{
    const double s = 0.001;
    const IoTransfo transfo = millimetres();
    const float halfDiagonal = static_cast<float>(halfDiagonalOf(transfo));
    const ExtentsI32 box(-2000, -2000, -2000, 2000, 2000, 2000);
    EXPECT_EQ(pcp_test::errorText([&] { FilterTree(box, transfoWithScale(0.001, 0.0, 0.001), false); }),
              "Not all transfo scale are positive.\n");
    EXPECT_EQ(pcp_test::errorText([&] { FilterTree(box, transfoWithScale(-0.001, 0.001, 0.001), true); }),
              "Not all transfo scale are positive.\n");
    {
        FilterTree tree(box, transfo, false);
        EXPECT_DOUBLE_EQ(tree.radiusToCells(), 2.0 / s);
        EXPECT_EQ(tree.level(0.0), -1);
        EXPECT_EQ(tree.level(s), -1);
        EXPECT_EQ(tree.level(1.6 * s), 0);
        EXPECT_EQ(tree.level(2.6 * s), 1);
        EXPECT_EQ(tree.level(1e9), 8);
    }
    {
        // Radius 0: every integer position its own cell, only equal positions merge.
        const std::vector<IoLightPoint> result =
            filtered({pointAt(-1, 0, 0, 0.0f, 100), pointAt(0, 0, 0, 0.0f, 200), pointAt(1, 0, 0, 0.0f, 300),
                      pointAt(1, 0, 0, 0.0f, 400)},
                     box);
        ASSERT_EQ(result.size(), 3u);
        EXPECT_EQ(findAt(result, -1, 0, 0)->r, 100);
        EXPECT_EQ(findAt(result, 0, 0, 0)->r, 200);
        EXPECT_EQ(findAt(result, 1, 0, 0)->r, 350);
        for (const IoLightPoint& p : result)
            EXPECT_EQ(p.radius, halfDiagonal);
    }
    {
        // Radius 2 steps: cells 2 wide; radius 3 steps: cells 4 wide, aligned in biased coordinates. The
        // merged point is the mean rounded half away from zero and keeps the first point's scan and class.
        std::vector<IoLightPoint> points;
        for (int32_t x = -4; x < 4; ++x)
            for (int32_t y = 0; y < 4; ++y)
                for (int32_t z = 0; z < 4; ++z)
                {
                    points.push_back(pointAt(x, y, z, static_cast<float>((x < 0 ? 2.0 : 3.0) * s)));
                    points.back().scanId = static_cast<uint16_t>(10 + x);
                    points.back().classification = static_cast<uint8_t>(20 + x);
                }
        const std::vector<IoLightPoint> result = filtered(points, box);
        EXPECT_EQ(std::count_if(result.begin(), result.end(),
                                [&](const IoLightPoint& p) { return p.radius == 2 * halfDiagonal; }),
                  2 * 2 * 2);
        const IoLightPoint* coarse = findAt(result, 2, 2, 2);  // mean 1.5 of 0..3, rounded away from zero
        ASSERT_NE(coarse, nullptr);
        EXPECT_EQ(coarse->radius, 4 * halfDiagonal);
        EXPECT_EQ(coarse->scanId, 10);
        EXPECT_EQ(coarse->classification, 20);
        EXPECT_NE(findAt(result, -4, 1, 1), nullptr);  // mean -3.5 of -4..-3
        EXPECT_EQ(result.size(), 9u);
    }
    {
        // Uneven scales: the half diagonal of one step counts.
        FilterTree tree(box, transfoWithScale(0.001, 0.002, 0.002), false);
        EXPECT_DOUBLE_EQ(tree.radiusToCells(), std::sqrt(3.0) / (0.5 * std::sqrt(0.000009)));
    }
}

TEST(FilterTree, FineEvictsCoarseWhateverTheOrder)
{
    const ExtentsI32 box(-500, -500, -500, 500, 500, 500);
    const float coarse = 0.008f;  // cells 8 steps wide
    // Two points of single steps and one of cells 2 steps wide.
    const std::vector<IoLightPoint> fine = {pointAt(1, 1, 1, 0.0f, 10), pointAt(6, 2, 3, 0.0f, 20),
                                            pointAt(2, 2, 2, 0.002f, 30)};
    const IoLightPoint shadowed = pointAt(3, 3, 3, coarse, 40);  // in the cell of the fine points
    const IoLightPoint elsewhere = pointAt(100, 3, 3, coarse, 50);
    for (const std::vector<IoLightPoint>& order :
         {std::vector{shadowed, elsewhere, fine[0], fine[1], fine[2]},
          std::vector{fine[0], fine[1], elsewhere, fine[2], shadowed}})
    {
        const std::vector<IoLightPoint> result = filtered(order, box);
        ASSERT_EQ(result.size(), 4u);
        EXPECT_NE(findAt(result, 1, 1, 1), nullptr);
        EXPECT_NE(findAt(result, 6, 2, 3), nullptr);
        ASSERT_NE(findAt(result, 2, 2, 2), nullptr);
        EXPECT_EQ(findAt(result, 2, 2, 2)->r, 30);
        EXPECT_NE(findAt(result, 100, 3, 3), nullptr);
        EXPECT_EQ(findAt(result, 3, 3, 3), nullptr);
    }
}

TEST(FilterTree, TheOrderOfArrivalChangesNothingButScansAndClasses)
{
    // Scans of three spacings over overlapping patches, with radii of twice their spacing, fed in file order
    // and shuffled.
    std::vector<IoLightPoint> points;
    for (const auto& [origin, spacing] : {std::pair{0, 1}, std::pair{-150, 5}, std::pair{100, 33}})
    {
        std::vector<IoLightPoint> scan =
            plane(origin, origin / 2, origin / 3, 300 / spacing + 40, spacing,
                  static_cast<float>(0.002 * spacing), static_cast<uint16_t>(spacing));
        points.insert(points.end(), scan.begin(), scan.end());
    }
    std::vector<IoLightPoint> shuffled = points;
    std::shuffle(shuffled.begin(), shuffled.end(), std::mt19937(5));
    const ExtentsI32 box = boxOf(points);
    const std::vector<IoLightPoint> results[] = {filtered(points, box), filtered(shuffled, box)};
    ASSERT_EQ(results[0].size(), results[1].size());
    EXPECT_LT(results[0].size(), points.size() / 2);
    for (size_t i = 0; i < results[0].size(); ++i)
    {
        const IoLightPoint& a = results[0][i];
        const IoLightPoint& b = results[1][i];
        ASSERT_EQ(std::tie(a.x, a.y, a.z, a.r, a.radius), std::tie(b.x, b.y, b.z, b.r, b.radius)) << i;
    }
}

TEST(FilterTree, KeepMultipleDropsOnlyLonelyDisplacedCoarsePoints)
{
    const ExtentsI32 box(-1000, -1000, -1000, 1000, 1000, 1000);
    const float coarse = 0.008f;  // cells 8 steps wide
    const float coarseRadius = static_cast<float>(8 * halfDiagonalOf(millimetres()));
    for (const bool fineFirst : {false, true})
    {
        SCOPED_TRACE(fineFirst);
        std::vector<IoLightPoint> points = {
            // A row of four coarse points in neighbouring cells, the first pushed down by a fine point.
            pointAt(4, 4, 4, coarse), pointAt(12, 4, 4, coarse), pointAt(20, 4, 4, coarse),
            pointAt(28, 4, 4, coarse),
            // A lone coarse point pushed down by a fine one, and one that no fine point disturbs.
            pointAt(204, 4, 4, coarse), pointAt(604, 4, 4, coarse),
            // Two equal points: nothing merges.
            pointAt(-300, 0, 0, 0.0f, 1), pointAt(-300, 0, 0, 0.0f, 2)};
        const std::vector<IoLightPoint> fine = {pointAt(5, 5, 5, 0.0f), pointAt(205, 5, 5, 0.0f)};
        points.insert(fineFirst ? points.begin() : points.end(), fine.begin(), fine.end());
        const std::vector<IoLightPoint> result = filtered(points, box, true);
        EXPECT_EQ(result.size(), 9u);
        EXPECT_EQ(findAt(result, 204, 4, 4), nullptr);
        for (const int32_t x : {4, 12, 20, 28, 604})
        {
            const IoLightPoint* kept = findAt(result, x, 4, 4);
            ASSERT_NE(kept, nullptr) << x;
            EXPECT_EQ(kept->radius, coarseRadius);
        }
        EXPECT_EQ(
            std::count_if(result.begin(), result.end(), [](const IoLightPoint& p) { return p.x == -300; }),
            2);
        EXPECT_NE(findAt(result, 5, 5, 5), nullptr);
        EXPECT_NE(findAt(result, 205, 5, 5), nullptr);
    }
}

TEST(NodeFilters, TandStyleKeepsAboutOnePointPerCellOfTheLocalSpacing)
{
    pcp_test::TempFolder folder;
    const std::wstring file = folder.file(L"node.pnt");
    // 0.1 mm steps; a fine scan of 200704 points with 1 mm spacing over a quarter of the node, a coarse one
    // with 8 mm spacing over the whole.
    const IoTransfo transfo = transfoWithScale(0.0001, 0.0001, 0.0001);
    const std::vector<IoLightPoint> fine = plane(0, 0, 77, 448, 10, 0.001f, 1000);
    const std::vector<IoLightPoint> coarse = plane(0, 0, 77, 112, 80, 0.008f, 2000);
    std::vector<IoLightPoint> points = fine;
    points.insert(points.end(), coarse.begin(), coarse.end());
    writeTuncatePNT(file, transfo, points);
    const ExtentsI32 box = boxOf(points);

    const FilteredPoints result = filterTandStyle(file, box, transfo, false);
    const float fineRadius = static_cast<float>(16 * halfDiagonalOf(transfo));     // cells 16 steps wide
    const float coarseRadius = static_cast<float>(128 * halfDiagonalOf(transfo));  // cells 128 steps wide
    EXPECT_TRUE(inside(box, result.points));
    EXPECT_EQ(result.maxRadius, coarseRadius);

    std::vector<IoLightPoint> finePart;
    size_t coarseOverFine = 0;
    size_t coarseAlone = 0;
    for (const IoLightPoint& p : result.points)
    {
        if (p.radius == fineRadius)
            finePart.push_back(p);
        else if (p.radius == coarseRadius)
            (p.x <= 4470 && p.y <= 4470 ? coarseOverFine : coarseAlone)++;
        else
            ADD_FAILURE() << "radius " << p.radius;
    }
    // The fine scan: 1 mm points in cells of 1.6 mm, two or three to a cell.
    EXPECT_EQ(finePart.size(), occupiedCells(fine, 4).size());
    EXPECT_GT(finePart.size(), 448u * 448u / 4);
    EXPECT_LT(finePart.size(), 448u * 448u / 2);
    // Where the fine scan is, the coarse one is gone (the fine scan reaches into every 12.8 mm cell up to 448
    // mm); elsewhere one point is left in every coarse cell.
    EXPECT_EQ(coarseOverFine, 0u);
    EXPECT_EQ(coarseAlone, 70u * 70u - 35u * 35u);
    EXPECT_EQ(coarseAlone, occupiedCells(coarse, 7).size() - occupiedCells(fine, 7).size());
}

TEST(NodeFilters, SecondStyleMergesEqualPositionsAndEmptyNodesGiveNothing)
{
    pcp_test::TempFolder folder;
    const std::wstring file = folder.file(L"node.pnt");
    const IoTransfo transfo = millimetres();
    // Three scans over one patch (every position three times, colours 300, 600 and 1201), and a single one
    // beside.
    std::vector<IoLightPoint> points;
    for (const uint16_t colour : {300, 600, 1201})
    {
        std::vector<IoLightPoint> scan = plane(0, 0, -20, 200, 1, 0.05f, colour);
        for (IoLightPoint& p : scan)
        {
            p.classification = 6;
            p.scanId = 2;
        }
        points.insert(points.end(), scan.begin(), scan.end());
    }
    const std::vector<IoLightPoint> beside = plane(300, 0, -20, 100, 2, 0.05f, 800);
    points.insert(points.end(), beside.begin(), beside.end());
    writeTuncatePNT(file, transfo, points);
    const ExtentsI32 box = boxOf(points);
    const auto pointSize = static_cast<float>(box.pointSize(transfo));

    const FilteredPoints result = filterFernalStyle(file, box, transfo);
    ASSERT_EQ(result.points.size(), 200u * 200u + 100u * 100u);
    EXPECT_TRUE(inside(box, result.points));
    const float merged = mergedRadius(transfo, 0);
    EXPECT_EQ(result.maxRadius, std::max(pointSize, merged));
    for (const IoLightPoint& p : result.points)
    {
        ASSERT_EQ(p.classification, 0);
        ASSERT_EQ(p.scanId, 0);
        ASSERT_EQ(p.intensity, 0);
        if (p.x < 300)
        {
            ASSERT_EQ(p.radius, merged);
            ASSERT_EQ(p.r, 700);  // equal weights: the plain mean 700.33, truncated
        }
        else
        {
            ASSERT_EQ(p.radius, pointSize);
            ASSERT_EQ(p.r, 800);
        }
    }
    // An empty node gives no points with either filter.
    writeTuncatePNT(file, transfo, {});
    for (const FilteredPoints& empty :
         {filterTandStyle(file, box, transfo, false), filterFernalStyle(file, box, transfo)})
    {
        EXPECT_TRUE(empty.points.empty());
        EXPECT_EQ(empty.maxRadius, std::numeric_limits<double>::lowest());
    }
}
