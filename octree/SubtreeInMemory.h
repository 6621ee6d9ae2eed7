#pragma once

#include <functional>

#include "octree/Node.h"
#include "octree/TreeCounts.h"
#include "octree/TreeWorkspace.h"

namespace pc_preprocess
{

// Builds the whole subtree of a node whose points wait in its PNT, at most the build's subtree budget, in
// memory: the node is split as splitNonRoot splits it, level after level, with the points of every child in
// the order that its file would have; every leaf is written once, and every inner node is merged as soon as
// its children are done, as mergeSingleNode merges it. The tree that comes out is the one that the split and
// merge stages give, and every node of it is merged. The PNT goes first. False when `cancel` stopped the work
// (asked before each node), which leaves the subtree unfinished.
bool buildSubtreeInMemory(Node& node, const SplitSettings& settings, TreeWorkspace& workspace,
                          const std::function<bool()>& cancel);

}  // namespace pc_preprocess
