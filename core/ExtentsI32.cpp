#include "core/ExtentsI32.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>

namespace pc_preprocess
{

namespace
{
constexpr int32_t kEmptyMin = std::numeric_limits<int32_t>::max();
constexpr int32_t kEmptyMax = std::numeric_limits<int32_t>::min();
}  // namespace

ExtentsI32::ExtentsI32()
{
    reset();
}

ExtentsI32::ExtentsI32(int minX, int minY, int minZ, int maxX, int maxY, int maxZ)
    : m_minX(minX), m_minY(minY), m_minZ(minZ), m_maxX(maxX), m_maxY(maxY), m_maxZ(maxZ)
{
    if (!isValid())
        m_minX = m_minY = m_minZ = m_maxX = m_maxY = m_maxZ = 0;
}

ExtentsI32::ExtentsI32(const IoLightPoint& p)
    : m_minX(p.x), m_minY(p.y), m_minZ(p.z), m_maxX(p.x), m_maxY(p.y), m_maxZ(p.z)
{
}

ExtentsI32::ExtentsI32(const ExtentsI32& o)
    : ExtentsI32(o.m_minX, o.m_minY, o.m_minZ, o.m_maxX, o.m_maxY, o.m_maxZ)
{
}

void ExtentsI32::reset()
{
    m_minX = m_minY = m_minZ = kEmptyMin;
    m_maxX = m_maxY = m_maxZ = kEmptyMax;
}

void ExtentsI32::extend(const ExtentsI32& other)
{
    if (!other.isValid())
        throw std::runtime_error("ExtentsI32: Input extents cannot be invalid.");
    extend(other.m_minX, other.m_minY, other.m_minZ);
    extend(other.m_maxX, other.m_maxY, other.m_maxZ);
}

bool ExtentsI32::contains(const ExtentsI32& other) const
{
    if (!other.isValid())
        throw std::runtime_error("ExtentsI32: Input extents cannot be invalid.");
    return contains(other.m_minX, other.m_minY, other.m_minZ) &&
           contains(other.m_maxX, other.m_maxY, other.m_maxZ);
}

uint64_t ExtentsI32::discreteVolume() const
{
    if (!isValid())
        throw std::runtime_error("ExtentsI32: Cannot compute volume of invalid extents.");
    const auto cells = [](int32_t lo, int32_t hi) { return uint64_t(int64_t(hi) - int64_t(lo) + 1); };
    return cells(m_minX, m_maxX) * cells(m_minY, m_maxY) * cells(m_minZ, m_maxZ);
}

std::array<double, 3> ExtentsI32::edgeLengths(const IoTransfo& transfo) const
{
    if (!isValid())
        throw std::runtime_error("ExtentsI32: Cannot compute edge lengths of invalid extents.");
    if (!transfo.hasPositiveScale())
        throw std::runtime_error("ExtentsI32: Cannot compute edge lengths with invalid transfo.");
    const auto edge = [](int32_t lo, int32_t hi, double s) { return (double(int64_t(hi) - lo) + 1.0) * s; };
    return {edge(m_minX, m_maxX, transfo.scale[0]), edge(m_minY, m_maxY, transfo.scale[1]),
            edge(m_minZ, m_maxZ, transfo.scale[2])};
}

double ExtentsI32::pointSize(const IoTransfo& transfo) const
{
    std::array<double, 3> e = edgeLengths(transfo);
    std::sort(e.begin(), e.end());
    return 2.0 * std::sqrt(e[1] * e[2] / 65536.0);
}

std::array<ExtentsI32, 2> ExtentsI32::split2(const IoTransfo& transfo) const
{
    const std::array<double, 3> e = edgeLengths(transfo);
    int axis = 0;
    if (e[1] > e[axis])
        axis = 1;
    if (e[2] > e[axis])
        axis = 2;

    static const char* const kFlatAxis[3] = {"ExtentsI32::split2 : m_minX == m_maxX.",
                                             "ExtentsI32::split2 : m_minY == m_maxY.",
                                             "ExtentsI32::split2 : m_minZ == m_maxZ."};
    const int32_t mins[3] = {m_minX, m_minY, m_minZ};
    const int32_t maxs[3] = {m_maxX, m_maxY, m_maxZ};
    if (mins[axis] == maxs[axis])
        throw std::runtime_error(kFlatAxis[axis]);

    const auto mid = int32_t((int64_t(mins[axis]) + int64_t(maxs[axis])) / 2);
    ExtentsI32 low(*this);
    ExtentsI32 high(*this);
    int32_t* lowMax[3] = {&low.m_maxX, &low.m_maxY, &low.m_maxZ};
    int32_t* highMin[3] = {&high.m_minX, &high.m_minY, &high.m_minZ};
    *lowMax[axis] = mid;
    *highMin[axis] = mid + 1;
    return {low, high};
}

std::array<ExtentsI32, 8> ExtentsI32::split8(const IoTransfo& transfo) const
{
    const auto a = split2(transfo);
    const auto b01 = a[0].split2(transfo);
    const auto b23 = a[1].split2(transfo);
    const ExtentsI32* quarters[4] = {&b01[0], &b01[1], &b23[0], &b23[1]};
    std::array<ExtentsI32, 8> result;
    for (int q = 0; q < 4; ++q)
    {
        const auto halves = quarters[q]->split2(transfo);
        result[2 * q] = halves[0];
        result[2 * q + 1] = halves[1];
    }
    return result;
}

}  // namespace pc_preprocess
