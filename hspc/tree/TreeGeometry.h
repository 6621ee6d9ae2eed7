// Where the nodes of a tree lie, and what a reader derives from the tree files: the first-child links, the
// boxes of parents grown over their children, and the centre of the data set.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "hspc/tree/Tree.h"

namespace HSPC
{

// The lod of every node, from the per-lod counts.
std::vector<uint8_t> nodeLods(const Tree& tree);

// Sets the link of every inner node to the index of its first child, counting children by the bits of the
// masks in breadth-first order; leaves keep their value. False with the reason in `error` unless the tree
// has one root and the masks of each lod name exactly the nodes of the lod below.
bool linkChildren(Tree& tree, std::string& error);

// Bottom-up, every parent's box takes in the boxes of its children, each shifted by its place in the
// parent. Needs the links.
void widenParentBoxes(Tree& tree);

// The corner of every node in decoded Morton coordinates, as its node block states it: the root's is the
// header's root-offset, a child's is its parent's plus 2^lod of the child on the axes of its child number.
// Needs the links.
std::vector<std::array<uint64_t, 3>> nodeCorners(const Tree& tree);

// The point-weighted mean of the box centres of the nodes down to two lods below the root, in real units.
// -666.6 on each axis for a tree without nodes.
std::array<double, 3> computeCenter(const Tree& tree);

}  // namespace HSPC
