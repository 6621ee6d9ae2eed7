#include "hspc/convert/UpperTree.h"

#include <algorithm>

#include "hspc/convert/EqualDistributionTake.h"
#include "hspc/convert/MortonRecords.h"

namespace HSPC
{

namespace
{

// The lod of the smallest cell that holds the cells of both leaves.
template <typename W>
unsigned commonCellLod(const LeafEntry<W>& first, const LeafEntry<W>& last)
{
    const unsigned apart = first.index == last.index ? 0 : commonLodCount(first.index, last.index);
    return std::min<unsigned>(std::max<unsigned>({apart, first.lod, last.lod}), MortonIndex3D<W>::kBitsPerAxis);
}

template <typename W>
class UpperTreeBuilder
{
public:
    UpperTreeBuilder(std::vector<LeafEntry<W>> leaves, const TakeTable& take)
        : m_take(take), m_left(leaves.size()), m_leafTakes(leaves.size())
    {
        m_tree.leaves = std::move(leaves);
        for (std::size_t i = 0; i < m_tree.leaves.size(); ++i)
        {
            m_left[i] = m_tree.leaves[i].count;
        }
    }

    std::optional<UpperTree<W>> build()
    {
        if (!m_tree.leaves.empty())
        {
            unsigned rootLod = commonCellLod(m_tree.leaves.front(), m_tree.leaves.back());
            for (const LeafEntry<W>& leaf : m_tree.leaves)
            {
                rootLod = std::max<unsigned>(rootLod, leaf.lod);
            }
            addNode(cellStartAtLod(m_tree.leaves.front().index, rootLod), rootLod, 0,
                    uint32_t(m_tree.leaves.size()));
        }
        // Appending children while walking the list is the breadth-first order itself.
        for (std::size_t i = 0; i < m_tree.nodes.size(); ++i)
        {
            if (!m_tree.nodes[i].isLeafTop && !distributeNode(uint32_t(i)))
            {
                return std::nullopt;
            }
        }
        m_tree.leafTakeBegin.reserve(m_tree.leaves.size() + 1);
        m_tree.leafTakeBegin.push_back(0);
        for (std::vector<LeafTake>& takes : m_leafTakes)
        {
            m_tree.leafTakes.insert(m_tree.leafTakes.end(), takes.begin(), takes.end());
            m_tree.leafTakeBegin.push_back(uint32_t(m_tree.leafTakes.size()));
            takes = {};
        }
        return std::move(m_tree);
    }

private:
    uint64_t pointsLeft(uint32_t firstLeaf, uint32_t leafEnd) const
    {
        uint64_t points = 0;
        for (uint32_t i = firstLeaf; i < leafEnd; ++i)
        {
            points += m_left[i];
        }
        return points;
    }

    // A node with no points left is not made.
    void addNode(const MortonIndex3D<W>& index, unsigned lod, uint32_t firstLeaf, uint32_t leafEnd)
    {
        NodeDistribution<W> node;
        node.index = index;
        node.lod = uint8_t(lod);
        node.firstLeaf = firstLeaf;
        node.leafEnd = leafEnd;
        node.points = pointsLeft(firstLeaf, leafEnd);
        node.isLeafTop = leafEnd - firstLeaf == 1 && m_tree.leaves[firstLeaf].lod == lod;
        if (node.points == 0)
        {
            return;
        }
        if (!node.isLeafTop)
        {
            node.take = uint32_t(std::min<uint64_t>(m_take[std::min<std::size_t>(lod, m_take.size() - 1)],
                                                    node.points));
        }
        m_tree.nodes.push_back(node);
    }

    // Takes the node's points from its leaves, then gives what is left to its children one lod below. A node
    // that is not a leaf's top holds at least two leaves or one finer than itself, so it is above lod 0.
    bool distributeNode(uint32_t position)
    {
        const NodeDistribution<W> node = m_tree.nodes[position];
        if (!shareOut(position, node.take, node.firstLeaf, node.leafEnd))
        {
            return false;
        }
        if (node.points == node.take)
        {
            return true;
        }
        const unsigned lod = node.lod - 1u;
        const uint32_t firstChild = uint32_t(m_tree.nodes.size());
        for (uint32_t first = node.firstLeaf; first < node.leafEnd;)
        {
            const MortonIndex3D<W> cell = cellStartAtLod(m_tree.leaves[first].index, lod);
            uint32_t end = first + 1;
            while (end < node.leafEnd && cellStartAtLod(m_tree.leaves[end].index, lod) == cell)
            {
                ++end;
            }
            addNode(cell, lod, first, end);
            first = end;
        }
        m_tree.nodes[position].firstChild = firstChild;
        m_tree.nodes[position].childCount = uint32_t(m_tree.nodes.size()) - firstChild;
        return true;
    }

    // Divides `total` points of the node at `position` over the leaves [firstLeaf, leafEnd) the way the
    // distribution picks them: evenly over the occupied cells just below the smallest cell holding those
    // leaves, none giving more than it has left, and so on down to each leaf.
    bool shareOut(uint32_t position, uint64_t total, uint32_t firstLeaf, uint32_t leafEnd)
    {
        if (total == 0)
        {
            return true;
        }
        if (leafEnd - firstLeaf == 1)
        {
            m_leafTakes[firstLeaf].push_back(LeafTake{position, uint32_t(total)});
            m_left[firstLeaf] -= total;
            ++m_tree.nodes[position].feedingLeaves;
            return true;
        }
        const unsigned cellLod = commonCellLod(m_tree.leaves[firstLeaf], m_tree.leaves[leafEnd - 1]) - 1;
        std::vector<uint32_t> cellFirst;
        std::vector<uint32_t> counts;
        for (uint32_t first = firstLeaf; first < leafEnd;)
        {
            const MortonIndex3D<W> cell = cellStartAtLod(m_tree.leaves[first].index, cellLod);
            uint32_t end = first;
            uint64_t points = 0;
            for (; end < leafEnd && cellStartAtLod(m_tree.leaves[end].index, cellLod) == cell; ++end)
            {
                points += m_left[end];
            }
            cellFirst.push_back(first);
            // A take is a 32-bit count: a cell of more points than that gives no more than it anyway.
            counts.push_back(uint32_t(std::min<uint64_t>(points, 0xffffffff)));
            first = end;
        }
        cellFirst.push_back(leafEnd);
        std::vector<uint32_t> shares(counts.size());
        if (!computeEqualDistributionTake(counts, total, shares))
        {
            return false;
        }
        for (std::size_t cell = 0; cell < counts.size(); ++cell)
        {
            if (!shareOut(position, shares[cell], cellFirst[cell], cellFirst[cell + 1]))
            {
                return false;
            }
        }
        return true;
    }

    const TakeTable& m_take;
    UpperTree<W> m_tree;
    // Points of each leaf that no node has taken yet.
    std::vector<uint64_t> m_left;
    std::vector<std::vector<LeafTake>> m_leafTakes;
};

}  // namespace

template <typename W>
std::optional<UpperTree<W>> buildUpperTree(std::vector<LeafEntry<W>> leaves, const TakeTable& take)
{
    return UpperTreeBuilder<W>(std::move(leaves), take).build();
}

template std::optional<UpperTree<uint32_t>> buildUpperTree<uint32_t>(std::vector<LeafEntry<uint32_t>>,
                                                                     const TakeTable&);
template std::optional<UpperTree<uint64_t>> buildUpperTree<uint64_t>(std::vector<LeafEntry<uint64_t>>,
                                                                     const TakeTable&);

}  // namespace HSPC
