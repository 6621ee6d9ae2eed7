#pragma once

#include <array>
#include <cstdint>

#include "core/Export.h"
#include "core/IoLightPoint.h"
#include "core/IoTransfo.h"

namespace pc_preprocess
{

// A closed box of integer cells. The default box is empty (invalid); a box built from six integers or copied
// is always valid, an invalid one being replaced by the single origin cell.
class PCP_API ExtentsI32
{
public:
    ExtentsI32();
    ExtentsI32(int minX, int minY, int minZ, int maxX, int maxY, int maxZ);
    explicit ExtentsI32(const IoLightPoint& p);
    ExtentsI32(const ExtentsI32& other);
    ExtentsI32& operator=(const ExtentsI32& other) = default;

    void reset();

    int minX() const { return m_minX; }
    int minY() const { return m_minY; }
    int minZ() const { return m_minZ; }
    int maxX() const { return m_maxX; }
    int maxY() const { return m_maxY; }
    int maxZ() const { return m_maxZ; }

    void extend(const IoLightPoint& p) { extend(p.x, p.y, p.z); }
    void extend(int x, int y, int z)
    {
        if (x < m_minX)
            m_minX = x;
        if (y < m_minY)
            m_minY = y;
        if (z < m_minZ)
            m_minZ = z;
        if (x > m_maxX)
            m_maxX = x;
        if (y > m_maxY)
            m_maxY = y;
        if (z > m_maxZ)
            m_maxZ = z;
    }
    void extend(const ExtentsI32& other);

    bool contains(const IoLightPoint& p) const { return contains(p.x, p.y, p.z); }
    bool contains(int x, int y, int z) const
    {
        return x >= m_minX && x <= m_maxX && y >= m_minY && y <= m_maxY && z >= m_minZ && z <= m_maxZ;
    }
    bool contains(const ExtentsI32& other) const;

    bool isValid() const { return m_minX <= m_maxX && m_minY <= m_maxY && m_minZ <= m_maxZ; }

    uint64_t discreteVolume() const;

    // Drawing size of the points of a node with this box: the spacing that 65536 points would have spread
    // over the two larger faces, doubled.
    double pointSize(const IoTransfo& transfo) const;

    // Three rounds of halving, each across the longest edge of the box at hand.
    std::array<ExtentsI32, 8> split8(const IoTransfo& transfo) const;

    bool operator==(const ExtentsI32&) const = default;

private:
    std::array<double, 3> edgeLengths(const IoTransfo& transfo) const;
    std::array<ExtentsI32, 2> split2(const IoTransfo& transfo) const;

    int32_t m_minX;
    int32_t m_minY;
    int32_t m_minZ;
    int32_t m_maxX;
    int32_t m_maxY;
    int32_t m_maxZ;
};

}  // namespace pc_preprocess
