// A node of the octree while the distribution builds it: its encoded points, and once compressed its block.
#pragma once

#include <array>
#include <cstdint>

#include "hspc/format/MortonIndex3D.h"
#include "hspc/format/TrackedMemory.h"

namespace HSPC
{

template <typename W>
struct DistributionNode
{
    // The node's encoded point records in Morton order; after compression the node's block.
    HSPCBuffer<uint8_t> data;
    // The first code of the node's cell at its lod.
    MortonIndex3D<W> index;
    uint32_t pointCount = 0;
    // 0 until the node is compressed.
    uint32_t compressedSize = 0;
    // Bounds of the points, in cells relative to the node's corner. They are words of the Morton width
    // rather than 32-bit: with 64-bit codes a node near the root spans more than 32 bits per axis.
    std::array<W, 3> localMin{};
    std::array<W, 3> localMax{};
    uint8_t lod = 0;
};

}  // namespace HSPC
