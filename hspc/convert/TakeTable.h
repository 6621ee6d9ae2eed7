// How many points a node takes, by lod, and how a take is shared fairly among the cells below a node.
#pragma once

#include <array>
#include <cstdint>
#include <span>

#include "hspc/format/RuntimeConfig.h"

namespace HSPC
{

// One entry per lod, 0 to 64: the points a node of that lod aims at.
using TakeTable = std::array<uint32_t, 65>;

// nodeSize everywhere, except that a run asking for a different topNodeSize gets it at maxLod, reached from
// nodeSize over nodeSizeSteps levels (at maxLod alone when that is 0).
TakeTable computeTakeTable(const RuntimeConfig& config, unsigned maxLod);

// Shares `total` among the cells of `counts`: no cell gives more than it holds, the rest is spread equally,
// earlier cells giving the odd points. `takes` receives one share per cell. A total above the sum of the
// counts is a broken caller: it is reported on the standard error stream and answered with false. The engine
// runs inside its host's process, so a broken invariant fails the conversion instead of aborting the host.
[[nodiscard]] bool computeEqualDistributionTake(std::span<const uint32_t> counts, uint64_t total,
                                                std::span<uint32_t> takes);

}  // namespace HSPC
