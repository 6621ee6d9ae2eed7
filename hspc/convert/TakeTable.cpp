#include "hspc/convert/TakeTable.h"

#include <algorithm>
#include <cmath>

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

}  // namespace HSPC
