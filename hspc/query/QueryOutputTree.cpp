#include "hspc/query/QueryOutputTree.h"

#include <algorithm>
#include <bit>
#include <limits>

#include "hspc/tree/HspcInfo.h"
#include "hspc/tree/SerializeTree.h"

namespace HSPC
{
namespace
{

// Whether each node stays: it kept points, or a child that stays leads to some.
std::vector<bool> survivingNodes(const Tree& tree, const std::vector<uint32_t>& visited,
                                 const std::vector<KeptNode>& kept)
{
    std::vector<bool> alive(tree.nodes.size(), false);
    // Children come after their parents in tree order, so one pass from the back settles every child first.
    for (auto it = visited.rbegin(); it != visited.rend(); ++it)
    {
        const TreeNode& node = tree.nodes[*it];
        bool stays = kept[*it].pointCount > 0;
        for (unsigned child = 0; child < unsigned(std::popcount(node.childMask)); ++child)
        {
            stays = stays || alive[node.link + child];
        }
        alive[*it] = stays;
    }
    return alive;
}

uint8_t survivingChildMask(const TreeNode& node, const std::vector<bool>& alive)
{
    uint8_t mask = 0;
    unsigned child = 0;
    for (unsigned bit = 0; bit < 8; ++bit)
    {
        if ((node.childMask >> bit) & 1u)
        {
            if (alive[node.link + child])
            {
                mask |= uint8_t(1u << bit);
            }
            ++child;
        }
    }
    return mask;
}

bool writeBlob(RootWriter& writer, const std::string& name, std::span<const uint8_t> bytes, std::string& error)
{
    if (writer.write(name, bytes))
    {
        return true;
    }
    error = "Failed to write file=" + name + "; You might want to check the disk or write permissions.";
    return false;
}

}  // namespace

bool writeQueryTrees(const QueryExecutorPrivate& executor, const std::vector<uint32_t>& visited,
                     const std::vector<KeptNode>& kept, RootWriter& writer, std::string& error)
{
    const Tree& source = executor.tree;
    const std::vector<bool> alive = survivingNodes(source, visited, kept);
    Tree out;
    out.header = source.header;
    out.attributes = source.attributes;
    out.header.pointCount = 0;
    out.header.boxMin.fill(std::numeric_limits<double>::max());
    out.header.boxMax.fill(std::numeric_limits<double>::lowest());
    out.lodNodeCounts.assign(size_t(source.header.maxLod - source.header.minLod) + 1, 0);
    for (const uint32_t index : visited)
    {
        if (!alive[index])
        {
            continue;
        }
        const KeptNode& node = kept[index];
        TreeNode written;
        written.pointCount = uint32_t(node.pointCount);
        written.childMask = survivingChildMask(source.nodes[index], alive);
        if (node.pointCount > 0)
        {
            written.min = node.min;
            written.max = node.max;
            const std::array<double, 6> box = executor.realBoxOf(index, node.min, node.max);
            for (unsigned axis = 0; axis < 3; ++axis)
            {
                out.header.boxMin[axis] = std::min(out.header.boxMin[axis], box[axis]);
                out.header.boxMax[axis] = std::max(out.header.boxMax[axis], box[axis + 3]);
            }
        }
        else
        {
            // No points of its own: an empty box, which the reader grows over the children.
            written.min.fill(1);
            written.max.fill(0);
        }
        out.header.pointCount += node.pointCount;
        out.nodes.push_back(written);
        ++out.lodNodeCounts[source.header.maxLod - executor.lods[index]];
    }
    // The finest lod that still holds nodes ends the tree.
    while (out.lodNodeCounts.size() > 1 && out.lodNodeCounts.back() == 0)
    {
        out.lodNodeCounts.pop_back();
    }
    out.header.minLod = uint8_t(out.header.maxLod - (out.lodNodeCounts.size() - 1));
    out.header.progressive = 0;
    std::vector<uint8_t> bytes;
    if (!writeTreeFile(out, TreeForm::kReduced, bytes, error) ||
        !writeBlob(writer, treeBlobName("tree"), bytes, error))
    {
        return false;
    }
    bytes.clear();
    if (!writeTreeFile(out, TreeForm::kFull, bytes, error) || !writeBlob(writer, kQueryTreeName, bytes, error))
    {
        return false;
    }
    std::string json;
    if (!makeHspcInfo(out, json, error))
    {
        return false;
    }
    return writeBlob(writer, kInfoName, std::span(reinterpret_cast<const uint8_t*>(json.data()), json.size()),
                     error);
}

}  // namespace HSPC
