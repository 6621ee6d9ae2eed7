#include "hspc/convert/UpperNodeStore.h"

#include <algorithm>

namespace HSPC
{

namespace
{

// The pieces of one node, in leaf order and so in Morton order, as one node.
template <typename W>
DistributionNode<W> joinPieces(std::vector<std::pair<uint32_t, DistributionNode<W>>>& pieces)
{
    std::sort(pieces.begin(), pieces.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    DistributionNode<W> joined;
    uint64_t bytes = 0;
    for (const auto& piece : pieces)
    {
        bytes += piece.second.data.size();
    }
    joined.data.reserve(bytes);
    joined.index = pieces.front().second.index;
    joined.lod = pieces.front().second.lod;
    joined.localMin = pieces.front().second.localMin;
    joined.localMax = pieces.front().second.localMax;
    for (auto& piece : pieces)
    {
        DistributionNode<W>& part = piece.second;
        joined.data.insert(joined.data.end(), part.data.begin(), part.data.end());
        joined.pointCount += part.pointCount;
        for (unsigned axis = 0; axis < 3; ++axis)
        {
            joined.localMin[axis] = std::min(joined.localMin[axis], part.localMin[axis]);
            joined.localMax[axis] = std::max(joined.localMax[axis], part.localMax[axis]);
        }
        part.data = {};
    }
    return joined;
}

}  // namespace

template <typename W>
std::optional<DistributionNode<W>> UpperNodeStore<W>::deliver(uint32_t node, uint32_t leaf,
                                                                DistributionNode<W>&& piece)
{
    std::vector<std::pair<uint32_t, DistributionNode<W>>> complete;
    {
        std::lock_guard lock(m_mutex);
        auto [open, added] = m_open.try_emplace(node);
        if (added)
        {
            open->second.leavesLeft = m_tree.nodes[node].feedingLeaves;
        }
        if (piece.pointCount > 0)
        {
            open->second.pieces.emplace_back(leaf, std::move(piece));
        }
        if (--open->second.leavesLeft > 0)
        {
            return std::nullopt;
        }
        complete = std::move(open->second.pieces);
        m_open.erase(open);
    }
    // Joined outside the lock: other leaves go on delivering to other nodes meanwhile.
    if (complete.empty())
    {
        return std::nullopt;
    }
    return joinPieces(complete);
}

template <typename W>
std::size_t UpperNodeStore<W>::openNodes() const
{
    std::lock_guard lock(m_mutex);
    return m_open.size();
}

template class UpperNodeStore<uint32_t>;
template class UpperNodeStore<uint64_t>;

}  // namespace HSPC
