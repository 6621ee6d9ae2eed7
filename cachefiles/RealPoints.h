#pragma once

#include <array>
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "cachefiles/NodeCodec.h"
#include "core/IoLightPoint.h"
#include "core/IoTransfo.h"
#include "geom/Point3d.h"

namespace pc_preprocess
{

// Points as separate arrays in real coordinates, the form of the host's point-cloud interfaces: one position,
// three colour values, an intensity and a radius per point. Colour and intensity are fractions of 65536;
// the radius is the node file's raw 32-bit pattern.

inline uint16_t fractionTo16Bit(float value)
{
    return static_cast<uint16_t>(std::lroundf(value * 65536.0f));
}
inline float fractionFrom16Bit(uint16_t value)
{
    return value * 1.5258789e-5f;
}

// Reads point i out of the arrays onto the grid of a transfo; scanId is 0 on this road.
class GridPointsFromArrays
{
public:
    GridPointsFromArrays(const IoTransfo& transfo, const std::vector<geom::Point3d>& points,
                         const std::vector<float>& colours, const std::vector<float>& intensities,
                         const std::vector<float>& radii)
        : m_offset(transfo.offset),
          m_inverseScale{1.0 / transfo.scale[0], 1.0 / transfo.scale[1], 1.0 / transfo.scale[2]},
          m_points(points),
          m_colours(colours),
          m_intensities(intensities),
          m_radii(radii)
    {
    }

    IoLightPoint operator()(uint64_t i) const
    {
        const geom::Point3d& real = m_points[i];
        IoLightPoint p;
        p.x = toGrid(real.x, 0);
        p.y = toGrid(real.y, 1);
        p.z = toGrid(real.z, 2);
        p.r = fractionTo16Bit(m_colours[3 * i]);
        p.g = fractionTo16Bit(m_colours[3 * i + 1]);
        p.b = fractionTo16Bit(m_colours[3 * i + 2]);
        p.intensity = fractionTo16Bit(m_intensities[i]);
        p.radius = m_radii[i];
        return p;
    }

private:
    // Half away from zero, the rounding of every importer.
    int32_t toGrid(double value, int axis) const
    {
        return static_cast<int32_t>(std::lround((value - m_offset[axis]) * m_inverseScale[axis]));
    }

    std::array<double, 3> m_offset;
    std::array<double, 3> m_inverseScale;
    const std::vector<geom::Point3d>& m_points;
    const std::vector<float>& m_colours;
    const std::vector<float>& m_intensities;
    const std::vector<float>& m_radii;
};

// Stores grid point i into the arrays in real coordinates.
class RealArraysFromGridPoints
{
public:
    RealArraysFromGridPoints(const IoTransfo& transfo, std::vector<geom::Point3d>& points,
                             std::vector<float>& colours, std::vector<float>& intensities,
                             std::vector<float>& radii)
        : m_transfo(transfo), m_points(points), m_colours(colours), m_intensities(intensities), m_radii(radii)
    {
    }

    void operator()(uint64_t i, const IoLightPoint& p) const
    {
        m_points[i] = {p.x * m_transfo.scale[0] + m_transfo.offset[0],
                       p.y * m_transfo.scale[1] + m_transfo.offset[1],
                       p.z * m_transfo.scale[2] + m_transfo.offset[2]};
        m_colours[3 * i] = fractionFrom16Bit(p.r);
        m_colours[3 * i + 1] = fractionFrom16Bit(p.g);
        m_colours[3 * i + 2] = fractionFrom16Bit(p.b);
        m_intensities[i] = fractionFrom16Bit(p.intensity);
        m_radii[i] = p.radius;
    }

private:
    IoTransfo m_transfo;
    std::vector<geom::Point3d>& m_points;
    std::vector<float>& m_colours;
    std::vector<float>& m_intensities;
    std::vector<float>& m_radii;
};

// All points of a node into arrays that the caller sized; sizeMessage is the reader's error for arrays that
// do not fit the node.
void decodeIntoArrays(const NodeBytes& node, const std::string& sizeMessage,
                      std::vector<geom::Point3d>& points, std::vector<float>& colours,
                      std::vector<float>& intensities, std::vector<float>& radii);

// What every writer from arrays checks first: matching sizes, and a transfo that can take the points onto its
// grid. writerPrefix is "ERROR PNT WRITER" or "ERROR PNZ WRITER".
void checkArraysForWriting(const IoTransfo& transfo, const std::vector<geom::Point3d>& points,
                           const std::vector<float>& colours, const std::vector<float>& intensities,
                           const std::vector<float>& radii, const std::string& writerPrefix);

}  // namespace pc_preprocess
