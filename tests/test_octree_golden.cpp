// The trees that three fixed inputs give, node for node. The expected tables were computed once by the tree
// builder as it stood before its work was reorganised for speed (voxel simplification in one pass, subtrees
// split in memory, a threaded root split), and are kept here as constants: they pin what the builder
// produces, so that a change in how the work is done cannot change the cache. A leaf must hold exactly the
// same records; an inner node the same number of points, with the same radii, and positions and colours
// that may differ only by the rounding of another summation order (one grid step or one colour unit per
// point). The VRM must be the same to the byte.
//
// The inputs are written as the per-scan files a run leaves after reading, from the sample generators, so
// that only the tree builder is pinned, not the importers:
//   - an airborne LAS tile (the terrain survey on a centimetre grid, with classes, no radius): the second
//     style, several levels, inner nodes thinned by the voxel map, small leaves folded into their parents;
//   - a PTX project of two stations with panoramas (the room from two positions, the distance as radius):
//     the panorama style filters every node;
//   - a dense tile: a sparse cloud with a floor sampled far finer than the grid, which the second style
//     filters, and whose filtered node is still too big and is split further; and two small dense clouds
//     whose filtered children fold into their parent.
// On a mismatch the test prints the table it got, in the form of the constants. A last test cancels a build
// while a worker builds a subtree in memory.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <numbers>
#include <random>
#include <set>
#include <sstream>

#include "cachefiles/CacheFiles.h"
#include "cachefiles/PntFormat.h"
#include "cachefiles/PnzFiles.h"
#include "cachefiles/VrmFile.h"
#include "core/NodePaths.h"
#include "core/StringConversion.h"
#include "octree/BuildTree.h"
#include "octree/Node.h"
#include "sample/AirborneSurvey.h"
#include "sample/SampleScene.h"
#include "support/ErrorText.h"
#include "support/FileText.h"
#include "support/OctreeBuild.h"
#include "support/TempFolder.h"

using namespace pc_preprocess;
namespace fs = std::filesystem;

namespace
{

// What identifies one node of a finished tree. For a leaf, `hash` is that of its sorted records and the sums
// are only informative; for an inner node, `hash` is that of its sorted radii, and the sums of positions,
// colours and intensity stand for its points.
struct GoldenNode
{
    const char* stem;
    char kind;  // 'L' leaf, 'I' inner node
    uint32_t points;
    uint64_t hash;
    std::array<int64_t, 3> positionSums;
    std::array<int64_t, 4> colourSums;  // r, g, b, intensity
};

struct GoldenTree
{
    uint64_t vrmHash;
    std::vector<GoldenNode> nodes;  // in the VRM's order: depth first, children in order
};

uint64_t fnv1a(const uint8_t* bytes, size_t size, uint64_t hash = 14695981039346656037ull)
{
    for (size_t i = 0; i < size; ++i)
        hash = (hash ^ bytes[i]) * 1099511628211ull;
    return hash;
}

GoldenNode describeNode(bool leaf, const std::vector<IoLightPoint>& points)
{
    GoldenNode node{nullptr, leaf ? 'L' : 'I', uint32_t(points.size()), 0, {}, {}};
    uint64_t hash = fnv1a(nullptr, 0);
    if (leaf)
    {
        std::vector<std::array<uint8_t, kPntRecordSize>> records(points.size());
        for (size_t i = 0; i < points.size(); ++i)
            encodePntRecord(points[i], records[i].data());
        std::sort(records.begin(), records.end());
        for (const auto& record : records)
            hash = fnv1a(record.data(), record.size(), hash);
    }
    else
    {
        std::vector<uint32_t> radii(points.size());
        for (size_t i = 0; i < points.size(); ++i)
            std::memcpy(&radii[i], &points[i].radius, sizeof(uint32_t));
        std::sort(radii.begin(), radii.end());
        hash = fnv1a(reinterpret_cast<const uint8_t*>(radii.data()), radii.size() * sizeof(uint32_t));
    }
    node.hash = hash;
    for (const IoLightPoint& p : points)
    {
        node.positionSums[0] += p.x;
        node.positionSums[1] += p.y;
        node.positionSums[2] += p.z;
        node.colourSums[0] += p.r;
        node.colourSums[1] += p.g;
        node.colourSums[2] += p.b;
        node.colourSums[3] += p.intensity;
    }
    return node;
}

struct ObservedNode
{
    std::string stem;
    GoldenNode node;
};

void collect(const fs::path& data, const VrmNode& vrm, std::vector<ObservedNode>& out)
{
    const std::string stem = toPath(vrm.file).stem().string();
    IoTransfo transfo;
    std::vector<IoLightPoint> points;
    readPNZ(toWide(data / (stem + ".pnz")), transfo, points);
    out.push_back({stem, describeNode(vrm.isLeaf(), points)});
    for (const VrmNode& child : vrm.children)
        collect(data, child, out);
}

std::string tableOf(uint64_t vrmHash, const std::vector<ObservedNode>& nodes)
{
    std::ostringstream text;
    text << "{0x" << std::hex << vrmHash << std::dec << "ull,\n {";
    for (const ObservedNode& o : nodes)
    {
        const GoldenNode& n = o.node;
        text << "{\"" << o.stem << "\", '" << n.kind << "', " << n.points << ", 0x" << std::hex << n.hash
             << std::dec << "ull, {" << n.positionSums[0] << ", " << n.positionSums[1] << ", "
             << n.positionSums[2] << "}, {" << n.colourSums[0] << ", " << n.colourSums[1] << ", "
             << n.colourSums[2] << ", " << n.colourSums[3] << "}},\n  ";
    }
    text << "}}";
    return text.str();
}

// The scans of one input: the points of each and the filled area of its panorama.
struct GoldenInput
{
    IoTransfo transfo;
    bool classes = false;
    std::vector<std::pair<std::vector<IoLightPoint>, double>> scans;
};

void expectGoldenTree(const pcp_test::OctreeBuild& build, const GoldenTree& golden);

// Builds the tree of the input twice and compares it with the golden one: with the default budget of a
// subtree in memory, which takes every node of these inputs, and with the smallest, with which the root's
// children take their points straight into their own children and every node of more than 65536 points
// below goes through its files. The tree is the same.
void expectGoldenTree(const GoldenInput& input, const GoldenTree& golden)
{
    for (const uint64_t budget : {kSubtreePointBudget, kMaxNodePoints + 1})
    {
        SCOPED_TRACE("subtree budget " + std::to_string(budget));
        pcp_test::TempFolder temp;
        pcp_test::OctreeBuild build(temp, input.transfo, input.classes);
        for (const auto& [points, filledArea] : input.scans)
            build.addScan(points, filledArea);
        build.run(2, nullptr, startThread, budget);
        expectGoldenTree(build, golden);
    }
}

// Compares the tree that the build made with the golden one. The folder must hold the node files and nothing
// else: no PNT, no side file.
void expectGoldenTree(const pcp_test::OctreeBuild& build, const GoldenTree& golden)
{
    const std::string vrmText = pcp_test::readText(toPath(build.files.getTreeFile()));
    const uint64_t vrmHash = fnv1a(reinterpret_cast<const uint8_t*>(vrmText.data()), vrmText.size());
    std::vector<ObservedNode> observed;
    collect(build.data(), readVrm(build.files.getTreeFile()), observed);
    const std::string table = tableOf(vrmHash, observed);

    EXPECT_EQ(vrmHash, golden.vrmHash) << table;
    ASSERT_EQ(observed.size(), golden.nodes.size()) << table;
    std::set<std::string> expectedFiles;
    for (size_t i = 0; i < observed.size(); ++i)
    {
        const GoldenNode& want = golden.nodes[i];
        const GoldenNode& got = observed[i].node;
        expectedFiles.insert(std::string(want.stem) + ".pnz");
        ASSERT_EQ(observed[i].stem, want.stem) << table;
        ASSERT_EQ(got.kind, want.kind) << want.stem << "\n" << table;
        EXPECT_EQ(got.points, want.points) << want.stem;
        EXPECT_EQ(got.hash, want.hash) << want.stem << (want.kind == 'L' ? ": records" : ": radii");
        // Inner nodes: each point within one step of its old place, each colour within one unit; a leaf's
        // hash covers its sums already.
        for (size_t axis = 0; axis < 3; ++axis)
            EXPECT_LE(std::abs(got.positionSums[axis] - want.positionSums[axis]), int64_t(want.points))
                << want.stem << " axis " << axis;
        for (size_t channel = 0; channel < 4; ++channel)
            EXPECT_LE(std::abs(got.colourSums[channel] - want.colourSums[channel]), int64_t(want.points))
                << want.stem << " channel " << channel;
    }
    std::set<std::string> files;
    for (const auto& entry : fs::directory_iterator(build.data()))
        files.insert(entry.path().filename().string());
    EXPECT_EQ(files, expectedFiles);
}

IoLightPoint gridPoint(const geom::Point3d& position, const IoTransfo& transfo)
{
    IoLightPoint p;
    p.x = int32_t(std::lround((position.x - transfo.offset[0]) / transfo.scale[0]));
    p.y = int32_t(std::lround((position.y - transfo.offset[1]) / transfo.scale[1]));
    p.z = int32_t(std::lround((position.z - transfo.offset[2]) / transfo.scale[2]));
    return p;
}

IoTransfo transfoOf(double scale, std::array<double, 3> offset)
{
    IoTransfo transfo;
    transfo.scale = {scale, scale, scale};
    transfo.offset = offset;
    return transfo;
}

// The tables, computed once by the builder before its rewrite.
#include "test_octree_golden_tables.h"

}  // namespace

TEST(OctreeGolden, AirborneTileInTheSecondStyle)
{
    const IoTransfo transfo =
        transfoOf(0.01, {pcp_sample::TerrainTilePlace::kEast, pcp_sample::TerrainTilePlace::kNorth, 0.0});
    GoldenInput input{transfo, true, {}};
    std::vector<IoLightPoint> points;
    pcp_sample::surveyTerrainTile(700000,
                                  [&](const pcp_sample::SampleHit& hit, const pcp_sample::PulseInfo&)
                                  {
                                      IoLightPoint p = gridPoint(hit.position, transfo);
                                      p.r = hit.r;
                                      p.g = hit.g;
                                      p.b = hit.b;
                                      p.intensity = hit.intensity;
                                      p.classification = hit.classification;
                                      p.radius = 0.0f;  // a LAS file gives no spacing
                                      points.push_back(p);
                                  });
    input.scans.emplace_back(points, 0.0);
    expectGoldenTree(input, kAirborneTile);
}

TEST(OctreeGolden, PtxProjectInThePanoramaStyle)
{
    const IoTransfo transfo = transfoOf(0.001, {3.0, 2.0, 1.5});
    GoldenInput input{transfo, false, {}};
    // The share of the sphere that the tripod leaves each scanner, as its panorama measures it.
    const double visibleSphere =
        4.0 * std::numbers::pi - 2.0 * std::numbers::pi * (1.0 - std::cos(std::numbers::pi / 6));
    const std::pair<geom::Point3d, double> stations[] = {{{1.6, 1.3, 1.55}, 0.97}, {{4.4, 2.6, 1.45}, 1.0}};
    for (const auto& [scanner, share] : stations)
    {
        std::vector<IoLightPoint> points;
        for (const pcp_sample::SampleHit& hit : pcp_sample::scanRoom(scanner, {400, 800}))
        {
            if (pcp_sample::hiddenByTripod(hit, scanner))
                continue;
            IoLightPoint p = gridPoint(hit.position, transfo);
            p.r = hit.r;
            p.g = hit.g;
            p.b = hit.b;
            p.intensity = hit.intensity;
            p.radius = float(hit.distance);
            points.push_back(p);
        }
        input.scans.emplace_back(points, visibleSphere * share);
    }
    expectGoldenTree(input, kPtxProject);
}

TEST(OctreeGolden, DenseTileFilteredInTheSecondStyle)
{
    const IoTransfo transfo = transfoOf(0.001, {0.0, 0.0, 0.0});
    GoldenInput input{transfo, false, {}};
    std::mt19937 random(5);
    std::uniform_int_distribution<int32_t> coordinate(0, 2'000'000);
    std::vector<IoLightPoint> points;
    const auto add = [&](int32_t x, int32_t y, int32_t z)
    {
        IoLightPoint p;
        p.x = x;
        p.y = y;
        p.z = z;
        p.r = uint16_t(x * 97);
        p.g = uint16_t(y * 89);
        p.b = uint16_t(z * 83 + x);
        p.intensity = uint16_t(x + y);
        points.push_back(p);
    };
    // The sparse cloud leaves the upper octant of the box to the two small clouds below.
    for (int i = 0; i < 300000; ++i)
    {
        const int32_t x = coordinate(random), y = coordinate(random), z = coordinate(random);
        if (x <= 1'000'000 || y <= 1'000'000 || z <= 1'000'000)
            add(x, y, z);
    }
    // A floor of 400 x 400 mm, each cell sampled three times on two heights: more points than cells.
    for (int32_t x = 0; x < 400; ++x)
        for (int32_t y = 0; y < 400; ++y)
            for (int32_t k = 0; k < 3; ++k)
                add(300'000 + x, 300'000 + y, 300'000 + k % 2);
    // Two small clouds far apart, each denser than its cells: together too many for a node, they split into
    // two children that the filter thins, which then fold back into their parent.
    std::uniform_int_distribution<int32_t> offset(0, 29);
    for (const int32_t corner : {1'200'000, 1'800'000})
        for (int i = 0; i < 35000; ++i)
            add(corner + offset(random), corner + offset(random), corner + offset(random));
    input.scans.emplace_back(points, 0.0);
    expectGoldenTree(input, kDenseTile);
}

TEST(OctreeInMemory, ACancelInsideASubtreeEndsTheBuild)
{
    // Children of the root of some 90000 points each: every one is split and merged in memory by a worker.
    // The cancel comes once the first of them has taken its node's file, so that a worker is inside the
    // subtree when it sees it.
    pcp_test::TempFolder temp;
    pcp_test::OctreeBuild build(temp);
    std::mt19937 random(9);
    std::uniform_int_distribution<int32_t> coordinate(0, 2'000'000);
    std::vector<IoLightPoint> points(700000);
    for (IoLightPoint& p : points)
    {
        p.x = coordinate(random);
        p.y = coordinate(random);
        p.z = coordinate(random);
        p.r = p.g = p.b = 100;
    }
    build.addScan(points, 0.0);
    std::atomic<bool> rootSplit = false;
    std::atomic<bool> cancelled = false;
    std::chrono::steady_clock::time_point cancelledAt;
    const auto cancel = [&]
    {
        if (cancelled)
            return true;
        const fs::path firstChild = build.data() / "00.pnt";
        rootSplit = rootSplit || fs::exists(firstChild);
        if (!rootSplit || fs::exists(firstChild))
            return false;
        bool first = false;
        if (cancelled.compare_exchange_strong(first, true))
            cancelledAt = std::chrono::steady_clock::now();
        return true;
    };
    EXPECT_EQ(pcp_test::errorText([&] { build.run(2, cancel); }), "Preprocessing cancelled by user.");
    ASSERT_TRUE(cancelled);
    EXPECT_LT(std::chrono::steady_clock::now() - cancelledAt, std::chrono::seconds(2));
    EXPECT_FALSE(fs::exists(build.data() / "00.pnz"));
    EXPECT_EQ(build.finalPercentage(), "CANCEL");
}
