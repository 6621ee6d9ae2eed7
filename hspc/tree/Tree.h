// An octree of a data set as its tree files hold it. Both tree files of a data set describe the same nodes:
// "/tree.hspc" in a reduced form ("APRR": densities instead of point counts, boxes in 1/256 of the node)
// that a viewer loads at once, "/queryTree.hspc" in full ("APRF": exact counts and boxes) for queries.
// A tree file is three chunks: "APRT" (TreeHeader.h), "SPCA" (TreeAttributes.h), then "APRR" or "APRF"
// (TreeBody.h).
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "hspc/format/Loggers.h"
#include "hspc/tree/TreeAttributes.h"
#include "hspc/tree/TreeHeader.h"

namespace HSPC
{

// One node, in breadth-first order from the root.
struct TreeNode
{
    // Index of the first child; for a leaf, the value its file stores.
    uint32_t link = 0;
    uint32_t pointCount = 0;
    // Box of the node's points in integer units relative to the node's corner, maxima inclusive. Held in
    // 64 bits for both Morton widths: the reduced form can round a 32-bit node's box up to 2^32.
    std::array<uint64_t, 3> min{};
    std::array<uint64_t, 3> max{};
    // Bit i set: child i exists, at x offset i & 1, y offset (i >> 1) & 1, z offset (i >> 2) & 1.
    uint8_t childMask = 0;
};

// Whether the node has a box: an empty node may hold min above max.
inline bool hasValidBox(const TreeNode& node)
{
    return node.min[0] <= node.max[0] && node.min[1] <= node.max[1] && node.min[2] <= node.max[2];
}

enum class TreeForm
{
    kReduced,  // "APRR"
    kFull,     // "APRF"
};

struct Tree
{
    TreeHeader header;
    TreeAttributes attributes;
    // Nodes per lod, from header.maxLod down to header.minLod.
    std::vector<uint64_t> lodNodeCounts;
    std::vector<TreeNode> nodes;
    // Centre of mass of the points near the top of the tree, in real units; set by loadTree.
    std::array<double, 3> center{};
};

// The bytes of one tree file, written as format version 22: the header with the tree's own lods and the
// attribute id of its attributes, the attributes, and the body of `form` in one zstd frame at level 1. False
// with the reason in `error` when zstd fails.
bool writeTreeFile(const Tree& tree, TreeForm form, std::vector<uint8_t>& bytes, std::string& error);

// Reads a tree file of format version 4 to 22, of either form, and completes it the way readers use it: the
// links of inner nodes point at their first children, every parent's box takes in its children's, and the
// centre is computed. A tree without nodes has the centre -666.6 on each axis and an inverted box. False,
// with "loadTree: " and the reason on `logError`, for any file that does not hold a consistent tree; nothing
// is allocated beyond what the file's size can back.
bool loadTree(std::span<const uint8_t> bytes, Tree& tree, const LogFunction& logError);

}  // namespace HSPC
