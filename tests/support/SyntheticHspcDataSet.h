#pragma once

#include <string>
#include <vector>

#include "hspc/store/RootStore.h"
#include "hspc/tree/Tree.h"

namespace pcp_test
{

// A small but real HSPC data set written by code, as a conversion leaves it: node blocks compressed by
// NodeCompressor under their names, and the tree files and info written by serializeTree. The tree:
//
//   root (lod 4, 6 points) ── child 0 (lod 3, 5 points)
//                          ── child 7 (lod 3, 7 points)
//
// Points carry a Morton position and an intensity; the root's corner is the cell (0, 0, 0) of the signed
// space.
struct SyntheticHspcDataSet
{
    HSPC::Tree tree;
    // Node blob names, in tree order.
    std::vector<std::string> nodeNames;
};

// Writes the data set through `writer`; fails the current test and returns what was made when a step fails.
SyntheticHspcDataSet writeSyntheticHspcDataSet(HSPC::RootWriter& writer);

}  // namespace pcp_test
