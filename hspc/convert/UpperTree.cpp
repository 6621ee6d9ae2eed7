#include "hspc/convert/UpperTree.h"

#include <algorithm>

#include "hspc/convert/EqualDistributionTake.h"
#include "hspc/convert/MortonRecords.h"

namespace HSPC
{

namespace
{

template <typename W>
std::vector<LeafEntry<W>> leavesOf(const DistributionPlan<W>& plan)
{
    std::vector<LeafEntry<W>> read;
    read.reserve(plan.readList.size());
    for (const ReadCell<W>& cell : plan.readList)
    {
        read.push_back(LeafEntry<W>{cell.index, cell.count, cell.lod});
    }
    std::vector<LeafEntry<W>> critical;
    critical.reserve(plan.pointCritical.size());
    for (const LeafEntry<W>& entry : plan.pointCritical)
    {
        critical.push_back(LeafEntry<W>{cellStartAtLod(entry.index, entry.lod), entry.count, entry.lod});
    }
    std::vector<LeafEntry<W>> leaves(read.size() + critical.size());
    std::merge(read.begin(), read.end(), critical.begin(), critical.end(), leaves.begin(),
               [](const LeafEntry<W>& a, const LeafEntry<W>& b) { return a.index < b.index; });
    return leaves;
}

template <typename W>
class UpperTreeBuilder
{
public:
    UpperTreeBuilder(const DistributionPlan<W>& plan, const TakeTable& take) : m_take(take)
    {
        m_tree.leaves = leavesOf(plan);
        m_cutLod = plan.maxLod;
        for (const LeafEntry<W>& leaf : m_tree.leaves)
        {
            m_cutLod = std::max<unsigned>(m_cutLod, leaf.lod);
        }
    }

    std::optional<UpperTree<W>> build()
    {
        uint64_t total = 0;
        for (const LeafEntry<W>& leaf : m_tree.leaves)
        {
            total += leaf.count;
        }
        NodeDistribution<W> root;
        root.lod = uint8_t(MortonIndex3D<W>::kBitsPerAxis);
        root.leafEnd = uint32_t(m_tree.leaves.size());
        addNode(root, total);
        // Appending children while walking the list is the breadth-first order itself.
        for (std::size_t i = 0; i < m_tree.nodes.size(); ++i)
        {
            if (m_tree.nodes[i].points > m_tree.nodes[i].take && !m_tree.nodes[i].continuesInLeaf &&
                !addChildren(i))
            {
                return std::nullopt;
            }
        }
        return std::move(m_tree);
    }

private:
    void addNode(NodeDistribution<W> node, uint64_t points)
    {
        node.points = points;
        node.take =
            uint32_t(std::min<uint64_t>(m_take[std::min<std::size_t>(node.lod, m_take.size() - 1)], points));
        const bool oneLeaf =
            node.leafEnd - node.firstLeaf == 1 && m_tree.leaves[node.firstLeaf].lod == node.lod;
        // A cell of lod 0 has no children: whatever its take leaves is for the leaf's own part.
        node.continuesInLeaf = (oneLeaf || node.lod == 0) && points > node.take;
        m_tree.nodes.push_back(node);
    }

    uint64_t rawPoints(uint32_t firstLeaf, uint32_t leafEnd) const
    {
        uint64_t points = 0;
        for (uint32_t i = firstLeaf; i < leafEnd; ++i)
        {
            points += m_tree.leaves[i].count;
        }
        return points;
    }

    bool addChildren(std::size_t parentPosition)
    {
        const NodeDistribution<W> parent = m_tree.nodes[parentPosition];
        const unsigned lod = std::min<unsigned>(parent.lod - 1u, m_cutLod);
        std::vector<NodeDistribution<W>> children;
        std::vector<uint32_t> cellPoints;
        uint64_t cellTotal = 0;
        for (uint32_t first = parent.firstLeaf; first < parent.leafEnd;)
        {
            NodeDistribution<W> child;
            child.index = cellStartAtLod(m_tree.leaves[first].index, lod);
            child.lod = uint8_t(lod);
            child.firstLeaf = first;
            uint32_t end = first;
            while (end < parent.leafEnd && cellStartAtLod(m_tree.leaves[end].index, lod) == child.index)
            {
                ++end;
            }
            child.leafEnd = end;
            children.push_back(child);
            cellPoints.push_back(uint32_t(std::min<uint64_t>(rawPoints(first, end), 0xffffffff)));
            cellTotal += cellPoints.back();
            first = end;
        }
        // What the parent and its ancestors took from the parent's cell is spread fairly over the children,
        // as the distribution picks its points: evenly over the occupied cells, none giving more than it has.
        const uint64_t takenAbove =
            rawPoints(parent.firstLeaf, parent.leafEnd) - (parent.points - parent.take);
        std::vector<uint32_t> shares(children.size());
        // Shares are of 32-bit counts; a child beyond them (billions of points in one cell) gives no more.
        if (!computeEqualDistributionTake(cellPoints, std::min(takenAbove, cellTotal), shares))
        {
            return false;
        }
        m_tree.nodes[parentPosition].firstChild = uint32_t(m_tree.nodes.size());
        m_tree.nodes[parentPosition].childCount = uint32_t(children.size());
        for (std::size_t i = 0; i < children.size(); ++i)
        {
            addNode(children[i], rawPoints(children[i].firstLeaf, children[i].leafEnd) - shares[i]);
        }
        return true;
    }

    const TakeTable& m_take;
    unsigned m_cutLod = 0;
    UpperTree<W> m_tree;
};

}  // namespace

template <typename W>
std::optional<UpperTree<W>> buildUpperTree(const DistributionPlan<W>& plan, const TakeTable& take)
{
    return UpperTreeBuilder<W>(plan, take).build();
}

template std::optional<UpperTree<uint32_t>> buildUpperTree<uint32_t>(const DistributionPlan<uint32_t>&,
                                                                     const TakeTable&);
template std::optional<UpperTree<uint64_t>> buildUpperTree<uint64_t>(const DistributionPlan<uint64_t>&,
                                                                     const TakeTable&);

}  // namespace HSPC
