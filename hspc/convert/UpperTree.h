// The upper tree: the nodes above the leaves of the distribution, decided from the leaves' counts alone. The
// root is the smallest cell that holds every leaf; below it the nodes go down one lod at a time, so that the
// tree file's levels follow each other without gaps. From the root down each node takes its share of the
// points its ancestors left, spread fairly over the leaves below it, and a node with points left over gets
// children. A node that is exactly one leaf's cell is that leaf's own top node: the leaf's distribution makes
// it, once the leaf's points have been read, together with everything below it.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "hspc/convert/RawSortRecords.h"
#include "hspc/convert/TakeTable.h"

namespace HSPC
{

template <typename W>
struct NodeDistribution
{
    MortonIndex3D<W> index;
    uint8_t lod = 0;
    // Points in the node's cell that its ancestors leave to it and to what lies below it.
    uint64_t points = 0;
    // Points the node itself takes: its lod's take, or all of its points when they are fewer; 0 for a leaf's
    // top node, whose take the leaf's distribution decides.
    uint32_t take = 0;
    // The leaves below it, [firstLeaf, leafEnd) of UpperTree::leaves.
    uint32_t firstLeaf = 0;
    uint32_t leafEnd = 0;
    // The leaves that give it points: the node is complete once they all have been distributed.
    uint32_t feedingLeaves = 0;
    // Its children, [firstChild, firstChild + childCount) of UpperTree::nodes.
    uint32_t firstChild = 0;
    uint32_t childCount = 0;
    // The node is exactly the cell of leaf firstLeaf: that leaf's distribution makes it.
    bool isLeafTop = false;
};

// What one leaf gives to one node of the upper tree.
struct LeafTake
{
    // Position of the node in UpperTree::nodes.
    uint32_t node = 0;
    uint32_t points = 0;
};

template <typename W>
struct UpperTree
{
    // The leaves, in Morton order: disjoint cells, every point in exactly one.
    std::vector<LeafEntry<W>> leaves;
    // Breadth-first, the root first; children of one node are consecutive and in Morton order.
    std::vector<NodeDistribution<W>> nodes;
    // What leaf i gives to the upper tree: leafTakes[leafTakeBegin[i], leafTakeBegin[i + 1]), coarsest node
    // first, at most one node per lod. leafTakeBegin has one entry more than the leaves.
    std::vector<uint32_t> leafTakeBegin;
    std::vector<LeafTake> leafTakes;
};

// The tree over `leaves` (sorted, disjoint cells, each with its count and lod). An empty list gives a tree
// without nodes. Nothing when the counts cannot be shared out as planned (the shares are reported on the
// standard error stream).
template <typename W>
std::optional<UpperTree<W>> buildUpperTree(std::vector<LeafEntry<W>> leaves, const TakeTable& take);

extern template std::optional<UpperTree<uint32_t>> buildUpperTree<uint32_t>(std::vector<LeafEntry<uint32_t>>,
                                                                            const TakeTable&);
extern template std::optional<UpperTree<uint64_t>> buildUpperTree<uint64_t>(std::vector<LeafEntry<uint64_t>>,
                                                                            const TakeTable&);

}  // namespace HSPC
