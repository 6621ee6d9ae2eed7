#include "hspc/convert/FinalTree.h"

#include <algorithm>
#include <chrono>
#include <limits>
#include <map>

#include "hspc/convert/MortonRecords.h"
#include "hspc/tree/SerializeTree.h"

namespace HSPC
{

namespace
{

template <typename W>
bool comesFirst(const WrittenNode<W>& a, const WrittenNode<W>& b)
{
    return a.index < b.index;
}

// An empty stand-in for the cell of `index` at `lod`: no points, and a box with min above max.
template <typename W>
WrittenNode<W> emptyNode(const MortonIndex3D<W>& index, unsigned lod)
{
    WrittenNode<W> node;
    node.index = index;
    node.lod = uint8_t(lod);
    node.localMin.fill(std::numeric_limits<W>::max());
    return node;
}

// The nodes by lod, each lod in Morton order, with every missing ancestor added up to one root.
template <typename W>
bool levelsOf(std::vector<WrittenNode<W>>& nodes, std::map<unsigned, std::vector<WrittenNode<W>>>& levels)
{
    for (WrittenNode<W>& node : nodes)
    {
        levels[node.lod].push_back(node);
    }
    for (auto& [lod, level] : levels)
    {
        std::sort(level.begin(), level.end(), comesFirst<W>);
        const auto same = std::adjacent_find(level.begin(), level.end(), [](const auto& a, const auto& b)
                                             { return a.index == b.index; });
        if (same != level.end())
        {
            return false;
        }
    }
    for (unsigned lod = levels.begin()->first;; ++lod)
    {
        const std::vector<WrittenNode<W>>& level = levels[lod];
        if (lod >= MortonIndex3D<W>::kBitsPerAxis || (level.size() == 1 && levels.rbegin()->first == lod))
        {
            break;
        }
        std::vector<WrittenNode<W>>& above = levels[lod + 1];
        std::vector<WrittenNode<W>> missing;
        for (const WrittenNode<W>& node : level)
        {
            const WrittenNode<W> parent = emptyNode(cellStartAtLod(node.index, lod + 1), lod + 1);
            if (!std::binary_search(above.begin(), above.end(), parent, comesFirst<W>) &&
                (missing.empty() || !(missing.back().index == parent.index)))
            {
                missing.push_back(parent);
            }
        }
        above.insert(above.end(), missing.begin(), missing.end());
        std::sort(above.begin(), above.end(), comesFirst<W>);
    }
    return true;
}

// The child number of a node at `childLod` within its parent: bit 0 from x, bit 1 from y, bit 2 from z.
template <typename W>
unsigned childNumber(const MortonIndex3D<W>& child, unsigned childLod)
{
    const std::array<W, 3> corner = decodeMorton(child);
    unsigned number = 0;
    for (unsigned axis = 0; axis < 3; ++axis)
    {
        number |= unsigned((corner[axis] >> childLod) & 1u) << axis;
    }
    return number;
}

template <typename W>
TreeNode treeNodeOf(const WrittenNode<W>& node)
{
    TreeNode out;
    out.pointCount = node.pointCount;
    for (unsigned axis = 0; axis < 3; ++axis)
    {
        out.min[axis] = node.localMin[axis];
        out.max[axis] = node.localMax[axis];
    }
    return out;
}

// The box of the points in real units: cells are signed with the sign bit flipped in the code.
template <typename W>
void addRealBounds(const WrittenNode<W>& node, const RuntimeConfig& config, TreeHeader& header, bool first)
{
    const std::array<W, 3> corner = decodeMorton(node.index);
    for (unsigned axis = 0; axis < 3; ++axis)
    {
        using S = std::make_signed_t<W>;
        const double low = double(S(W(corner[axis] + node.localMin[axis]) ^ MortonIndex3D<W>::kSignBit)) *
                               config.scale[axis] + config.origin[axis];
        const double high = double(S(W(corner[axis] + node.localMax[axis]) ^ MortonIndex3D<W>::kSignBit)) *
                                config.scale[axis] + config.origin[axis];
        header.boxMin[axis] = first ? low : std::min(header.boxMin[axis], low);
        header.boxMax[axis] = first ? high : std::max(header.boxMax[axis], high);
    }
}

}  // namespace

template <typename W>
bool buildFinalTree(std::vector<WrittenNode<W>> nodes, const RuntimeConfig& config, Tree& tree)
{
    tree = Tree{};
    TreeHeader& header = tree.header;
    header.nodeSize = config.nodeSize;
    header.maxNodeSize = config.maxNodeSize;
    header.scale = config.scale;
    header.origin = config.origin;
    header.attributeId = config.attributeId;
    header.name = config.treeName;
    header.timeStamp = uint64_t(std::chrono::duration_cast<std::chrono::milliseconds>(
                                    std::chrono::system_clock::now().time_since_epoch())
                                    .count());
    tree.attributes.attributeId = config.attributeId;
    tree.attributes.recordSize = config.encodedRecordSize;
    tree.attributes.attributes = config.encodingAttributes;
    if (nodes.empty())
    {
        // One lod, 0, without nodes: the tree files still state a level for each lod from max to min.
        tree.lodNodeCounts = {0};
        return true;
    }
    bool first = true;
    for (const WrittenNode<W>& node : nodes)
    {
        header.pointCount += node.pointCount;
        addRealBounds(node, config, header, first);
        first = false;
    }
    std::map<unsigned, std::vector<WrittenNode<W>>> levels;
    if (!levelsOf(nodes, levels))
    {
        return false;
    }
    header.minLod = uint8_t(levels.begin()->first);
    header.maxLod = uint8_t(levels.rbegin()->first);
    const std::array<W, 3> rootCorner = decodeMorton(levels.rbegin()->second.front().index);
    for (unsigned axis = 0; axis < 3; ++axis)
    {
        header.rootOffset[axis] = int64_t(rootCorner[axis]);
    }
    for (auto level = levels.rbegin(); level != levels.rend(); ++level)
    {
        const std::size_t firstOfLevel = tree.nodes.size();
        tree.lodNodeCounts.push_back(level->second.size());
        for (const WrittenNode<W>& node : level->second)
        {
            tree.nodes.push_back(treeNodeOf(node));
        }
        if (level == levels.rbegin())
        {
            continue;
        }
        // Parents are the level just before this one in the list, in the same Morton order.
        const std::vector<WrittenNode<W>>& parents = std::prev(level)->second;
        const std::size_t firstParent = firstOfLevel - parents.size();
        for (const WrittenNode<W>& node : level->second)
        {
            const WrittenNode<W> key = emptyNode(cellStartAtLod(node.index, node.lod + 1u), node.lod + 1u);
            const auto parent = std::lower_bound(parents.begin(), parents.end(), key, comesFirst<W>);
            tree.nodes[firstParent + std::size_t(parent - parents.begin())].childMask |=
                uint8_t(1u << childNumber(node.index, node.lod));
        }
    }
    return true;
}

template <typename W>
bool writeFinalTree(std::vector<WrittenNode<W>> nodes, const RuntimeConfig& config,
                    const AttributeStatistics& statistics, RootWriter& writer, std::string& failure)
{
    std::map<unsigned, std::pair<uint64_t, uint64_t>, std::greater<>> structure;
    for (const WrittenNode<W>& node : nodes)
    {
        structure[node.lod].first += node.blockBytes;
        ++structure[node.lod].second;
    }
    Tree tree;
    if (!buildFinalTree(std::move(nodes), config, tree))
    {
        failure = "Could not construct final octree.";
        reportTo(config.errorLogger, failure);
        return false;
    }
    const std::string clientJson = config.requestJsonConfig ? config.requestJsonConfig().text() : "{}";
    if (!serializeTree(writer, tree, clientJson, statistics, config.treeName,
                       TreeOutputLoggers{config.warningLogger, config.errorLogger}))
    {
        failure = "Could not write final octree.";
        reportTo(config.errorLogger, failure);
        return false;
    }
    reportTo(config.infoLogger, "HSPC Info octree structure: ");
    for (const auto& [lod, sizeAndCount] : structure)
    {
        reportTo(config.infoLogger, " lod[" + std::to_string(lod) + "] : size : " +
                                        std::to_string(sizeAndCount.first) +
                                        " nbOfNodes : " + std::to_string(sizeAndCount.second));
    }
    return true;
}

template bool buildFinalTree(std::vector<WrittenNode<uint32_t>>, const RuntimeConfig&, Tree&);
template bool buildFinalTree(std::vector<WrittenNode<uint64_t>>, const RuntimeConfig&, Tree&);
template bool writeFinalTree(std::vector<WrittenNode<uint32_t>>, const RuntimeConfig&,
                             const AttributeStatistics&, RootWriter&, std::string&);
template bool writeFinalTree(std::vector<WrittenNode<uint64_t>>, const RuntimeConfig&,
                             const AttributeStatistics&, RootWriter&, std::string&);

}  // namespace HSPC
