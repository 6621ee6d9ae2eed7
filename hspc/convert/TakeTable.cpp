#include "hspc/convert/TakeTable.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace HSPC
{

TakeTable computeTakeTable(const RuntimeConfig& config, unsigned maxLod)
{
    const uint32_t nodeSize = config.nodeSize;
    const uint32_t topNodeSize = config.topNodeSize;
    TakeTable take;
    take.fill(nodeSize);
    if (nodeSize == topNodeSize)
    {
        return take;
    }
    maxLod = std::min<unsigned>(maxLod, unsigned(take.size()) - 1);
    take[maxLod] = topNodeSize;
    if (config.nodeSizeSteps == 0)
    {
        take[0] = nodeSize;
        return take;
    }
    const double ratio = std::pow(double(nodeSize) / double(topNodeSize), 1.0 / double(config.nodeSizeSteps));
    for (unsigned lod = maxLod; lod-- > 0;)
    {
        const double grown = std::trunc(double(take[lod + 1]) * ratio);
        take[lod] = grown >= double(nodeSize) ? nodeSize : uint32_t(grown);
    }
    return take;
}

bool computeEqualDistributionTake(std::span<const uint32_t> counts, uint64_t total, std::span<uint32_t> takes)
{
    const uint64_t cells = counts.size();
    if (cells == 0)
    {
        return total == 0;
    }
    uint64_t take = total / cells;
    uint64_t rest = total % cells;
    for (;;)
    {
        uint64_t sum = 0;
        uint64_t restLeft = rest;
        for (std::size_t i = 0; i < counts.size(); ++i)
        {
            uint64_t share = counts[i];
            if (counts[i] > take)
            {
                share = take + (restLeft > 0 ? 1 : 0);
                restLeft -= restLeft > 0 ? 1 : 0;
            }
            takes[i] = uint32_t(share);
            sum += share;
        }
        if (sum == total)
        {
            return true;
        }
        uint64_t leftover = total;
        uint64_t above = 0;
        for (uint32_t count : counts)
        {
            if (count > take)
            {
                ++above;
            }
            else
            {
                leftover -= std::min<uint64_t>(leftover, count);
            }
        }
        if (above == 0)
        {
            std::fputs("computeEqualDistributionTake: nbOfLeafs is zero: not possible\n.", stderr);
            std::fflush(stderr);
            return false;
        }
        take = leftover / above;
        rest = leftover % above;
    }
}

}  // namespace HSPC
