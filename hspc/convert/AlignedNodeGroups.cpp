#include "hspc/convert/AlignedNodeGroups.h"

#include <bit>
#include <utility>

namespace HSPC
{
namespace
{

uint32_t childCount(const TreeNode& node)
{
    return uint32_t(std::popcount(node.childMask));
}

// Points of every node's subtree. Children stand after their parent in breadth-first order, so one pass from
// the back sees every child before its parent.
std::vector<uint64_t> subtreePoints(const Tree& tree)
{
    std::vector<uint64_t> points(tree.nodes.size());
    for (std::size_t i = tree.nodes.size(); i-- > 0;)
    {
        const TreeNode& node = tree.nodes[i];
        points[i] += node.pointCount;
        for (uint32_t c = 0; c < childCount(node); ++c)
        {
            points[i] += points[node.link + c];
        }
    }
    return points;
}

class GroupBuilder
{
public:
    GroupBuilder(uint32_t dataSet, uint64_t pointLimit) : m_dataSet(dataSet), m_pointLimit(pointLimit) {}

    // Starts a new group first when `points` more would not fit the current one.
    void makeRoomFor(uint64_t points)
    {
        if (!m_current.nodes.empty() && m_current.pointCount + points > m_pointLimit)
        {
            m_groups.push_back(std::move(m_current));
            m_current = AlignedNodeGroup{};
        }
    }

    void add(uint32_t node, uint32_t points)
    {
        m_current.dataSet = m_dataSet;
        m_current.nodes.push_back(node);
        m_current.pointCount += points;
    }

    std::vector<AlignedNodeGroup> finish()
    {
        if (!m_current.nodes.empty())
        {
            m_groups.push_back(std::move(m_current));
        }
        return std::move(m_groups);
    }

private:
    const uint32_t m_dataSet;
    const uint64_t m_pointLimit;
    AlignedNodeGroup m_current;
    std::vector<AlignedNodeGroup> m_groups;
};

// Pushes the children of `node` so that the first child is taken next: depth-first in child order is Morton
// order.
void pushChildren(const TreeNode& node, std::vector<uint32_t>& stack)
{
    for (uint32_t c = childCount(node); c-- > 0;)
    {
        stack.push_back(node.link + c);
    }
}

void addSubtree(const Tree& tree, uint32_t root, GroupBuilder& groups, std::vector<uint32_t>& stack)
{
    stack.assign(1, root);
    while (!stack.empty())
    {
        const uint32_t node = stack.back();
        stack.pop_back();
        groups.add(node, tree.nodes[node].pointCount);
        pushChildren(tree.nodes[node], stack);
    }
}

}  // namespace

std::vector<AlignedNodeGroup> groupAlignedNodes(const Tree& tree, uint32_t dataSet, uint64_t pointLimit)
{
    GroupBuilder groups(dataSet, pointLimit);
    if (tree.nodes.empty())
    {
        return groups.finish();
    }
    const std::vector<uint64_t> points = subtreePoints(tree);
    std::vector<uint32_t> walk{0};
    std::vector<uint32_t> subtree;
    while (!walk.empty())
    {
        const uint32_t node = walk.back();
        walk.pop_back();
        if (points[node] <= pointLimit)
        {
            groups.makeRoomFor(points[node]);
            addSubtree(tree, node, groups, subtree);
            continue;
        }
        groups.makeRoomFor(tree.nodes[node].pointCount);
        groups.add(node, tree.nodes[node].pointCount);
        pushChildren(tree.nodes[node], walk);
    }
    return groups.finish();
}

}  // namespace HSPC
