// How many points a node takes, by lod.
#pragma once

#include <array>
#include <cstdint>

#include "hspc/format/RuntimeConfig.h"

namespace HSPC
{

// One entry per lod, 0 to 64: the points a node of that lod aims at.
using TakeTable = std::array<uint32_t, 65>;

// nodeSize everywhere, except that a run asking for a different topNodeSize gets it at maxLod, reached from
// nodeSize over nodeSizeSteps levels (at maxLod alone when that is 0).
TakeTable computeTakeTable(const RuntimeConfig& config, unsigned maxLod);

}  // namespace HSPC
