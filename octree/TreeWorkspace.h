#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "cachefiles/PnzCodec.h"
#include "core/IoLightPoint.h"
#include "octree/CellSimplifier.h"

namespace pc_preprocess
{

// What one tree worker keeps from node to node: the coder of its node files, the buffers of the voxel
// simplification, of a merge's points and of a subtree in memory. Once they have grown to the largest node, a
// worker allocates nothing per node.
struct TreeWorkspace
{
    PnzCoder coder;
    voxelizer::CellSimplifier simplifier;
    std::vector<IoLightPoint> points;   // the children's points of a merge
    std::vector<IoLightPoint> thinned;  // what the simplifier leaves of them
    // A subtree built in memory: its records twice, the levels taking the two copies in turn, and the child
    // of each record of the node being distributed.
    std::array<std::vector<uint8_t>, 2> records;
    std::vector<uint8_t> childOf;
};

}  // namespace pc_preprocess
