#include "support/SyntheticCache.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "cachefiles/KeyFile.h"
#include "cachefiles/PntFiles.h"
#include "cachefiles/PnzFiles.h"
#include "core/ExtentsI32.h"
#include "core/StringConversion.h"

namespace pcp_test
{

namespace
{

using pc_preprocess::IoLightPoint;
using pc_preprocess::VrmNode;

struct Shape
{
    std::string stem;
    uint32_t leafPoints;  // for a leaf
    std::vector<Shape> children;
};

const Shape kTree = {
    "0", 0, {{"00", 150, {}}, {"01", 0, {{"010", 90, {}}, {"011", 120, {}}}}, {"02", 60, {}}}};

// Leaf number `leaf` lies in a region of its own, some of it below zero.
std::vector<IoLightPoint> leafPoints(int leaf, uint32_t count, bool withScanIds)
{
    std::vector<IoLightPoint> points(count);
    for (uint32_t j = 0; j < count; ++j)
    {
        IoLightPoint& p = points[j];
        p.x = leaf * 500 - 700 + int32_t(j * 37 % 400);
        p.y = leaf * 300 + int32_t(j * 53 % 300);
        p.z = -100 + int32_t(j * 11 % 200);
        p.radius = 0.5f + 0.01f * float(j);
        p.r = uint16_t(j * 257);
        p.g = uint16_t(leaf * 4000 + j);
        p.b = uint16_t(65535 - j * 100);
        p.intensity = uint16_t(j * 311);
        p.scanId = withScanIds ? uint16_t(j % 3) : 0;
    }
    return points;
}

VrmNode writeNode(const Shape& shape, SyntheticCache& cache, bool plain, int& leaves)
{
    VrmNode node;
    node.file = pc_preprocess::s2ws(shape.stem + ".pnt");
    std::vector<IoLightPoint> points;
    if (shape.children.empty())
        points = leafPoints(leaves++, shape.leafPoints, plain);
    for (const Shape& childShape : shape.children)
    {
        node.children.push_back(writeNode(childShape, cache, plain, leaves));
        const std::vector<IoLightPoint>& childPoints = cache.points.at(childShape.stem);
        for (size_t j = 0; j < childPoints.size(); j += 3)
            points.push_back(childPoints[j]);
    }

    pc_preprocess::ExtentsI32 extents;
    node.maxRadius = 0.0;
    for (const IoLightPoint& p : points)
    {
        extents.extend(p);
        node.maxRadius = std::max(node.maxRadius, double(p.radius));
    }
    node.numPoints = uint32_t(points.size());
    node.box = pc_preprocess::vrmBox(extents, cache.transfo);
    if (plain)
        pc_preprocess::writeTuncatePNT(pc_preprocess::toWide(cache.nodeFile(shape.stem, ".pnt")),
                                       cache.transfo, points);
    else
        pc_preprocess::writeTuncatePNZ(pc_preprocess::toWide(cache.nodeFile(shape.stem, ".pnz")),
                                       cache.transfo, points);
    cache.points[shape.stem] = std::move(points);
    return node;
}

const VrmNode* findIn(const VrmNode& node, const std::wstring& file)
{
    if (node.file == file)
        return &node;
    for (const VrmNode& child : node.children)
        if (const VrmNode* found = findIn(child, file))
            return found;
    return nullptr;
}

}  // namespace

uint64_t SyntheticCache::leafPoints() const
{
    uint64_t total = 0;
    for (const auto& [stem, nodePoints] : points)
        if (findNode(root, stem).isLeaf())
            total += nodePoints.size();
    return total;
}

SyntheticCache writeSyntheticCache(const std::filesystem::path& folder, bool plain)
{
    SyntheticCache cache;
    cache.folder = folder;
    cache.vrm = folder / "cache.vrm";
    cache.data = folder / "Data";
    cache.transfo.scale = {0.001, 0.002, 0.0005};
    cache.transfo.offset = {10.0, -20.0, 3.5};
    std::filesystem::create_directories(cache.data);

    const std::wstring key = pc_preprocess::toWide(folder / "cache.key");
    pc_preprocess::initEmptyKeyFile(key, L"cache");
    int leaves = 0;
    cache.root = writeNode(kTree, cache, plain, leaves);
    pc_preprocess::writeVrm(pc_preprocess::toWide(cache.vrm), cache.root);
    if (!pc_preprocess::finishKeyFile(key, L"cache"))
        throw std::runtime_error("the synthetic cache has no tree file");
    return cache;
}

const VrmNode& findNode(const VrmNode& root, const std::string& stem)
{
    const VrmNode* found = findIn(root, pc_preprocess::s2ws(stem + ".pnt"));
    if (found == nullptr)
        throw std::runtime_error("the synthetic cache has no node " + stem);
    return *found;
}

VrmNode& findNode(VrmNode& root, const std::string& stem)
{
    return const_cast<VrmNode&>(findNode(std::as_const(root), stem));
}

}  // namespace pcp_test
