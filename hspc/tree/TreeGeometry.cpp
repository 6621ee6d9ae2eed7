#include "hspc/tree/TreeGeometry.h"

#include <algorithm>
#include <bit>
#include <limits>

#include "hspc/format/Attribute.h"
#include "hspc/format/MortonNodeBox.h"

namespace HSPC
{
namespace
{

// Lods below the root whose nodes count towards the centre: enough to weigh where the points are without
// visiting the whole tree.
constexpr unsigned kCenterDepth = 2;
constexpr double kNoCenter = -666.6;

uint64_t saturatingAdd(uint64_t a, uint64_t b)
{
    return a > std::numeric_limits<uint64_t>::max() - b ? std::numeric_limits<uint64_t>::max() : a + b;
}

// Calls visit(childIndex, childNumber) for each child of an inner node.
template <typename Visit>
void forEachChild(const TreeNode& node, Visit&& visit)
{
    uint32_t index = node.link;
    for (unsigned number = 0; number < 8; ++number)
    {
        if ((node.childMask >> number) & 1)
        {
            visit(index++, number);
        }
    }
}

uint64_t childOffset(unsigned childNumber, unsigned axis, unsigned childLod)
{
    return ((childNumber >> axis) & 1) ? uint64_t(1) << childLod : 0;
}

template <typename W>
std::array<double, 6> realBox(const Tree& tree, unsigned lod, const std::array<uint64_t, 3>& corner,
                              const TreeNode& node)
{
    std::array<W, 3> place{};
    std::array<W, 3> localMin{};
    std::array<W, 3> localMax{};
    for (unsigned axis = 0; axis < 3; ++axis)
    {
        place[axis] = W(corner[axis]);
        localMin[axis] = W(std::min<uint64_t>(node.min[axis], std::numeric_limits<W>::max()));
        localMax[axis] = W(std::min<uint64_t>(node.max[axis], std::numeric_limits<W>::max()));
    }
    return nodeRealBox<W>(tree.header.formatVersion, lod, tree.header.origin, tree.header.scale, place, localMin,
                          localMax);
}

}  // namespace

std::vector<uint8_t> nodeLods(const Tree& tree)
{
    std::vector<uint8_t> lods;
    lods.reserve(tree.nodes.size());
    unsigned lod = tree.header.maxLod;
    for (const uint64_t count : tree.lodNodeCounts)
    {
        lods.insert(lods.end(), size_t(count), uint8_t(lod));
        --lod;
    }
    return lods;
}

bool linkChildren(Tree& tree, std::string& error)
{
    const std::vector<uint64_t>& counts = tree.lodNodeCounts;
    if (!counts.empty() && counts.front() > 1)
    {
        error = "the tree has " + std::to_string(counts.front()) + " nodes at its top lod, not one root";
        return false;
    }
    uint64_t index = 0;
    uint64_t nextLodStart = counts.empty() ? 0 : counts.front();
    for (size_t level = 0; level < counts.size(); ++level)
    {
        uint64_t children = 0;
        for (uint64_t i = 0; i < counts[level]; ++i)
        {
            TreeNode& node = tree.nodes[size_t(index++)];
            if (node.childMask != 0)
            {
                node.link = uint32_t(nextLodStart + children);
                children += unsigned(std::popcount(node.childMask));
            }
        }
        const uint64_t below = level + 1 < counts.size() ? counts[level + 1] : 0;
        if (children != below)
        {
            error = "the child masks at lod " + std::to_string(tree.header.maxLod - level) + " name " +
                    std::to_string(children) + " children, but the lod below has " + std::to_string(below) +
                    " nodes";
            return false;
        }
        nextLodStart += children;
    }
    return true;
}

void widenParentBoxes(Tree& tree)
{
    const std::vector<uint8_t> lods = nodeLods(tree);
    // Children come after their parents, so walking backwards finishes every child before its parent.
    for (size_t i = tree.nodes.size(); i-- > 0;)
    {
        TreeNode& parent = tree.nodes[i];
        if (parent.childMask == 0)
        {
            continue;
        }
        bool valid = hasValidBox(parent);
        const unsigned childLod = lods[i] - 1u;
        forEachChild(parent,
                     [&](uint32_t childIndex, unsigned number)
                     {
                         const TreeNode& child = tree.nodes[childIndex];
                         if (!hasValidBox(child))
                         {
                             return;
                         }
                         for (unsigned axis = 0; axis < 3; ++axis)
                         {
                             const uint64_t offset = childOffset(number, axis, childLod);
                             const uint64_t low = saturatingAdd(child.min[axis], offset);
                             const uint64_t high = saturatingAdd(child.max[axis], offset);
                             parent.min[axis] = valid ? std::min(parent.min[axis], low) : low;
                             parent.max[axis] = valid ? std::max(parent.max[axis], high) : high;
                         }
                         valid = true;
                     });
    }
}

std::vector<std::array<uint64_t, 3>> nodeCorners(const Tree& tree)
{
    std::vector<std::array<uint64_t, 3>> corners(tree.nodes.size());
    if (corners.empty())
    {
        return corners;
    }
    for (unsigned axis = 0; axis < 3; ++axis)
    {
        corners[0][axis] = uint64_t(tree.header.rootOffset[axis]);
    }
    const std::vector<uint8_t> lods = nodeLods(tree);
    for (size_t i = 0; i < tree.nodes.size(); ++i)
    {
        const TreeNode& parent = tree.nodes[i];
        if (parent.childMask == 0)
        {
            continue;
        }
        forEachChild(parent,
                     [&](uint32_t childIndex, unsigned number)
                     {
                         for (unsigned axis = 0; axis < 3; ++axis)
                         {
                             corners[childIndex][axis] = corners[i][axis] + childOffset(number, axis, lods[i] - 1u);
                         }
                     });
    }
    return corners;
}

std::array<double, 3> computeCenter(const Tree& tree)
{
    if (tree.nodes.empty())
    {
        return {kNoCenter, kNoCenter, kNoCenter};
    }
    const std::vector<std::array<uint64_t, 3>> corners = nodeCorners(tree);
    const std::vector<uint8_t> lods = nodeLods(tree);
    const bool wide = !tree.attributes.attributes.empty() &&
                      tree.attributes.attributes.front().type == AttributeType::M192;
    const unsigned lowestLod = std::max<unsigned>(tree.header.minLod, tree.header.maxLod > kCenterDepth
                                                                          ? tree.header.maxLod - kCenterDepth
                                                                          : 0);
    // Weighted by points; a tree whose counts are all zero weighs its nodes alike.
    std::array<double, 3> weighted{};
    std::array<double, 3> plain{};
    double weight = 0.0;
    double nodes = 0.0;
    for (size_t i = 0; i < tree.nodes.size() && lods[i] >= lowestLod; ++i)
    {
        const std::array<double, 6> box = wide ? realBox<uint64_t>(tree, lods[i], corners[i], tree.nodes[i])
                                               : realBox<uint32_t>(tree, lods[i], corners[i], tree.nodes[i]);
        for (unsigned axis = 0; axis < 3; ++axis)
        {
            const double middle = 0.5 * (box[axis] + box[3 + axis]);
            weighted[axis] += middle * tree.nodes[i].pointCount;
            plain[axis] += middle;
        }
        weight += tree.nodes[i].pointCount;
        nodes += 1.0;
    }
    std::array<double, 3> center{};
    for (unsigned axis = 0; axis < 3; ++axis)
    {
        center[axis] = weight > 0.0 ? weighted[axis] / weight : plain[axis] / nodes;
    }
    return center;
}

}  // namespace HSPC
