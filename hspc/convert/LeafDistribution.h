// The distribution of the points of one leaf onto nodes. The leaf is a cell at `leafEntryLod` whose points
// arrive as one sorted buffer. The nodes above that cell belong to the upper tree and gather points from
// many leaves; the nodes at and below it are the leaf's own. From the top down each node takes a fair,
// spatially even share of the points not yet taken below it, and the finest nodes take what is left.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "hspc/convert/DistributionNode.h"
#include "hspc/format/Loggers.h"

namespace HSPC
{

template <typename W>
struct LeafDistributionRequest
{
    // Encoded records sorted by their Morton code, `recordSize` bytes each.
    std::span<const uint8_t> records;
    uint32_t recordSize = 0;
    // The first code of the leaf's cell, and its lod.
    MortonIndex3D<W> leafIndex;
    unsigned leafEntryLod = 0;
    // Target point count of a node, by lod.
    std::array<uint32_t, 65> takes{};
    // The points that the upper tree's node at `lod` (above leafEntryLod, up to the root) takes from this
    // leaf; 0 where it takes none.
    std::function<uint64_t(unsigned lod)> upperTake;
    uint32_t maxNodeSize = 0;
    // Points at the same position as the point before them are dropped.
    bool filterDuplicates = true;
};

template <typename W>
struct LeafDistribution
{
    // The leaf's own nodes, coarsest lod first, in Morton order within a lod.
    std::vector<DistributionNode<W>> nodes;
    // What this leaf gives to the upper tree's nodes, coarsest first: one piece per node that takes points.
    std::vector<DistributionNode<W>> upperPieces;
    // The finest lod of the leaf's nodes.
    unsigned leafLod = 0;
    uint64_t droppedDuplicates = 0;
};

// Fills `result`. On failure (a node at the finest lod, lod 0 at the latest, holding more than maxNodeSize
// points; a buffer that is not whole records) "Failed to distribute points" and then "Could not distribute
// points onto nodes." go to `errorLogger` and the result is not to be used.
template <typename W>
bool distributeLeaf(const LeafDistributionRequest<W>& request, LeafDistribution<W>& result,
                    const LogFunction& errorLogger);

extern template bool distributeLeaf(const LeafDistributionRequest<uint32_t>&, LeafDistribution<uint32_t>&,
                                    const LogFunction&);
extern template bool distributeLeaf(const LeafDistributionRequest<uint64_t>&, LeafDistribution<uint64_t>&,
                                    const LogFunction&);

}  // namespace HSPC
