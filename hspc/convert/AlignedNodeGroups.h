// How the aligned input cuts the tree of a data set into units of work. A group is a list of nodes whose
// points are decoded together into one sorted run: whole subtrees, in depth-first order, as long as they fit
// the group's point limit, so that a group covers one contiguous stretch of the Morton order and its run
// overlaps few others. A node whose subtree is too large goes into a group by itself (or with its
// neighbours in the walk), and its children are grouped below it.
#pragma once

#include <cstdint>
#include <vector>

#include "hspc/tree/Tree.h"

namespace HSPC
{

struct AlignedNodeGroup
{
    // Position of the data set in the aligned input's list.
    uint32_t dataSet = 0;
    // Indices into the tree's nodes, every node of the tree in exactly one group.
    std::vector<uint32_t> nodes;
    uint64_t pointCount = 0;
};

// The groups of `tree`, each of at most `pointLimit` points unless a single node holds more. The tree must
// be linked (loadTree does that): an inner node's link is its first child.
std::vector<AlignedNodeGroup> groupAlignedNodes(const Tree& tree, uint32_t dataSet, uint64_t pointLimit);

}  // namespace HSPC
