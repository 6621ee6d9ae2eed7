#pragma once

#include <vector>

#include "cachefiles/PnzCodec.h"
#include "core/IoLightPoint.h"
#include "octree/CellSimplifier.h"

namespace pc_preprocess
{

// What one tree worker keeps from node to node: the coder of its node files, the buffers of the voxel
// simplification and of a merge's points. Once they have grown to the largest node, a worker allocates
// nothing per node.
struct TreeWorkspace
{
    PnzCoder coder;
    voxelizer::CellSimplifier simplifier;
    std::vector<IoLightPoint> points;   // the children's points of a merge
    std::vector<IoLightPoint> thinned;  // what the simplifier leaves of them
};

}  // namespace pc_preprocess
