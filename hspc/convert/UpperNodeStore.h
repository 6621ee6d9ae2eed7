// Where the nodes of the upper tree gather their points: each leaf gives its pieces as it is distributed,
// and a node is complete once every leaf that feeds it has been distributed. Leaves are counted, not points:
// the duplicate filter may leave a leaf fewer points to give than planned, or none.
//
// Memory: leaves are read and distributed in Morton order, and a node's feeding leaves are consecutive in
// that order. So the nodes open at any moment are the ancestors of the few leaves being distributed, at most
// one per lod on each of their paths, each holding at most its take; the store's bytes stay within a few
// nodes per lod, small beside the leaves in flight that the manager's memory limit is set for.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

#include "hspc/convert/DistributionNode.h"
#include "hspc/convert/UpperTree.h"

namespace HSPC
{

template <typename W>
class UpperNodeStore
{
public:
    explicit UpperNodeStore(const UpperTree<W>& tree) : m_tree(tree) {}

    // Leaf `leaf` is through with node `node` (a position in the tree's nodes), giving `piece` (which may be
    // empty). Returns the node, its pieces joined in leaf order, when this was its last feeding leaf and it
    // holds points.
    std::optional<DistributionNode<W>> deliver(uint32_t node, uint32_t leaf, DistributionNode<W>&& piece);

    // Nodes that still wait for leaves: none once every leaf has been distributed.
    std::size_t openNodes() const;

private:
    struct OpenNode
    {
        uint32_t leavesLeft = 0;
        std::vector<std::pair<uint32_t, DistributionNode<W>>> pieces;
    };

    const UpperTree<W>& m_tree;
    mutable std::mutex m_mutex;
    std::unordered_map<uint32_t, OpenNode> m_open;
};

extern template class UpperNodeStore<uint32_t>;
extern template class UpperNodeStore<uint64_t>;

}  // namespace HSPC
