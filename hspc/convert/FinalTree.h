// The tree files at the end of a distribution, built from the nodes that the node writers wrote.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "hspc/format/AttributeStatistics.h"
#include "hspc/format/MortonIndex3D.h"
#include "hspc/format/RuntimeConfig.h"
#include "hspc/store/RootStore.h"
#include "hspc/tree/Tree.h"

namespace HSPC
{

// What a node writer keeps of a node it has written.
template <typename W>
struct WrittenNode
{
    MortonIndex3D<W> index;
    uint8_t lod = 0;
    uint32_t pointCount = 0;
    std::array<W, 3> localMin{};
    std::array<W, 3> localMax{};
    // Bytes of the node's block.
    uint64_t blockBytes = 0;
};

// The tree of the written nodes, breadth-first from the root with their child masks and boxes, under a
// header that states the data set's lods, node sizes, root corner, real bounding box, scale, origin,
// attribute id and point count. A cell between two written nodes that holds no points of its own (its
// leaves' points were all duplicates) stands in the tree as an empty node, so that every level of the tree
// is one lod below the one above it. False for two nodes of one name.
template <typename W>
bool buildFinalTree(std::vector<WrittenNode<W>> nodes, const RuntimeConfig& config, Tree& tree);

// Builds and writes the tree files through `writer` and logs the structure ("HSPC Info octree structure: "
// and one line per lod) on the info logger. False after "Could not construct final octree." or "Could not
// write final octree." on the error logger; `failure` then holds the failure to report.
template <typename W>
bool writeFinalTree(std::vector<WrittenNode<W>> nodes, const RuntimeConfig& config,
                    const AttributeStatistics& statistics, RootWriter& writer, std::string& failure);

extern template bool buildFinalTree(std::vector<WrittenNode<uint32_t>>, const RuntimeConfig&, Tree&);
extern template bool buildFinalTree(std::vector<WrittenNode<uint64_t>>, const RuntimeConfig&, Tree&);
extern template bool writeFinalTree(std::vector<WrittenNode<uint32_t>>, const RuntimeConfig&,
                                    const AttributeStatistics&, RootWriter&, std::string&);
extern template bool writeFinalTree(std::vector<WrittenNode<uint64_t>>, const RuntimeConfig&,
                                    const AttributeStatistics&, RootWriter&, std::string&);

}  // namespace HSPC
