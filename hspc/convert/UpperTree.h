// The upper tree: the nodes above the leaves of the distribution, decided from the counts of the plan alone.
// From the root down, each node takes its share of the points not taken above it, and a node with more such
// points than its take gets children. A node that is exactly one leaf's cell stops the walk there: what its
// take leaves over is distributed inside that leaf, once its points have been read.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "hspc/convert/DistributionPlan.h"
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
    // Points the node itself takes: its lod's take, or all of its points when they are fewer.
    uint32_t take = 0;
    // The leaves that feed it, [firstLeaf, leafEnd) of UpperTree::leaves.
    uint32_t firstLeaf = 0;
    uint32_t leafEnd = 0;
    // Its children, [firstChild, firstChild + childCount) of UpperTree::nodes.
    uint32_t firstChild = 0;
    uint32_t childCount = 0;
    // The node is one leaf's cell and holds more than its take: the rest goes below it, within the leaf.
    bool continuesInLeaf = false;
};

template <typename W>
struct UpperTree
{
    // The cells the plan reads or recomputes, in Morton order: every point lies in exactly one.
    std::vector<LeafEntry<W>> leaves;
    // Breadth-first, the root first; children of one node are consecutive and in Morton order.
    std::vector<NodeDistribution<W>> nodes;
};

// The root is the whole space. Below it, children are cut at maxLod of the plan (or at the coarsest leaf,
// when one is coarser), then one lod at a time: the levels between the whole space and maxLod would each hold
// one node, every one of them taking points from the same cell for nothing. Nothing when the plan's leaves do
// not hold the points its nodes are to take (the shares are reported on the standard error stream).
template <typename W>
std::optional<UpperTree<W>> buildUpperTree(const DistributionPlan<W>& plan, const TakeTable& take);

extern template std::optional<UpperTree<uint32_t>> buildUpperTree<uint32_t>(const DistributionPlan<uint32_t>&,
                                                                            const TakeTable&);
extern template std::optional<UpperTree<uint64_t>> buildUpperTree<uint64_t>(const DistributionPlan<uint64_t>&,
                                                                            const TakeTable&);

}  // namespace HSPC
