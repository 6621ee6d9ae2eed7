#include "octree/VxMap.h"

namespace voxelizer
{

using pc_preprocess::IoLightPoint;
using pc_preprocess::IoTransfo;

namespace
{

// A weighted mean of biased coordinates, rounded half away from zero, back to a cache integer.
int32_t meanCoordinate(double sum, double weight)
{
    const double rounded = std::round(sum / weight);
    const double clamped = std::clamp(rounded, 0.0, 4294967295.0);
    return unbiased(static_cast<uint32_t>(clamped));
}

// A weighted mean of 16-bit values, truncated; float sums can stray a hair beyond the range of their terms.
uint16_t meanValue(float sum, double weight)
{
    return static_cast<uint16_t>(std::clamp(sum / weight, 0.0, 65535.0));
}

}  // namespace

IoLightPoint vxSimplifyData::toPoint(float combinedRadius) const
{
    IoLightPoint p;
    if (!combined)
    {
        p.x = unbiased(static_cast<uint32_t>(x));
        p.y = unbiased(static_cast<uint32_t>(y));
        p.z = unbiased(static_cast<uint32_t>(z));
        p.r = static_cast<uint16_t>(r);
        p.g = static_cast<uint16_t>(g);
        p.b = static_cast<uint16_t>(b);
        p.intensity = static_cast<uint16_t>(intensity);
        p.radius = static_cast<float>(weight);
        return p;
    }
    p.x = meanCoordinate(x, weight);
    p.y = meanCoordinate(y, weight);
    p.z = meanCoordinate(z, weight);
    p.r = meanValue(r, weight);
    p.g = meanValue(g, weight);
    p.b = meanValue(b, weight);
    p.intensity = meanValue(intensity, weight);
    p.radius = combinedRadius;
    return p;
}

}  // namespace voxelizer
