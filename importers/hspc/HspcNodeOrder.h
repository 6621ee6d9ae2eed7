// The order in which the HSPC importer reads a data set's nodes: depth first from the root, each node before
// its children, so that the points of one region of space follow each other. Nodes without points have no
// block and are left out.
#pragma once

#include <cstdint>
#include <vector>

#include "hspc/tree/Tree.h"

namespace pc_preprocess
{

// The indices of the nodes with points, in reading order. Needs the links of a loaded tree.
std::vector<uint32_t> hspcNodeOrder(const HSPC::Tree& tree);

}  // namespace pc_preprocess
