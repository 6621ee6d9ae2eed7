#include "sample/SampleScene.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>
#include <random>

namespace pcp_sample
{

namespace
{

struct Colour
{
    double r, g, b;  // 0..1
};

struct Box
{
    geom::Point3d lo;
    geom::Point3d hi;
    Colour colour;
    uint8_t classification;
};

constexpr double kRoomX = 6.0;
constexpr double kRoomY = 4.0;
constexpr double kRoomZ = 3.0;

// LAS classes: 1 unclassified (furniture), 2 ground (floor), 6 building (walls and ceiling).
const Box kFurniture[] = {
    {{2.0, 1.5, 0.72}, {3.2, 2.3, 0.76}, {0.55, 0.12, 0.10}, 1},  // table top
    {{2.05, 1.55, 0.0}, {2.11, 1.61, 0.72}, {0.2, 0.2, 0.2}, 1},  // table legs
    {{3.09, 1.55, 0.0}, {3.15, 1.61, 0.72}, {0.2, 0.2, 0.2}, 1},
    {{2.05, 2.19, 0.0}, {2.11, 2.25, 0.72}, {0.2, 0.2, 0.2}, 1},
    {{3.09, 2.19, 0.0}, {3.15, 2.25, 0.72}, {0.2, 0.2, 0.2}, 1},
    {{5.2, 0.2, 0.0}, {5.9, 1.4, 1.8}, {0.45, 0.47, 0.5}, 1},   // cabinet
    {{0.3, 3.0, 0.0}, {1.9, 3.8, 0.45}, {0.15, 0.3, 0.55}, 1},  // sofa seat
    {{0.3, 3.6, 0.45}, {1.9, 3.8, 0.9}, {0.15, 0.3, 0.55}, 1},  // sofa back
};

struct Hit
{
    double t = std::numeric_limits<double>::infinity();
    geom::Vector3d normal;
    Colour colour{};
    uint8_t classification = 0;
};

// The walls, floor and ceiling seen from inside: the ray leaves the room box through one face.
void hitRoom(const geom::Point3d& o, const geom::Vector3d& d, Hit& best)
{
    const double origin[3] = {o.x, o.y, o.z};
    const double dir[3] = {d.x, d.y, d.z};
    const double size[3] = {kRoomX, kRoomY, kRoomZ};
    for (int axis = 0; axis < 3; ++axis)
    {
        if (dir[axis] == 0.0)
            continue;
        const double plane = dir[axis] > 0.0 ? size[axis] : 0.0;
        const double t = (plane - origin[axis]) / dir[axis];
        if (t <= 0.0 || t >= best.t)
            continue;
        const geom::Point3d p = o + d * t;
        best.t = t;
        double n[3] = {0.0, 0.0, 0.0};
        n[axis] = dir[axis] > 0.0 ? -1.0 : 1.0;
        best.normal = {n[0], n[1], n[2]};
        if (axis == 2 && plane == 0.0)
        {
            // Floor of wooden boards in two shades, half a metre wide.
            const bool dark = (int(std::floor(p.x / 0.5)) + int(std::floor(p.y / 0.5))) % 2 != 0;
            best.colour = dark ? Colour{0.45, 0.30, 0.16} : Colour{0.62, 0.45, 0.26};
            best.classification = 2;
        }
        else if (axis == 2)
        {
            best.colour = {0.93, 0.93, 0.91};
            best.classification = 6;
        }
        else
        {
            // Each wall its own paint, slightly darker towards the floor.
            static const Colour kWalls[4] = {
                {0.90, 0.86, 0.78}, {0.70, 0.80, 0.90}, {0.76, 0.88, 0.74}, {0.92, 0.82, 0.70}};
            const Colour c = kWalls[axis * 2 + (plane == 0.0 ? 0 : 1)];
            const double shade = 0.8 + 0.2 * (p.z / kRoomZ);
            best.colour = {c.r * shade, c.g * shade, c.b * shade};
            best.classification = 6;
        }
    }
}

// Slab test against a solid box seen from outside.
void hitBox(const Box& box, const geom::Point3d& o, const geom::Vector3d& d, Hit& best)
{
    const double origin[3] = {o.x, o.y, o.z};
    const double dir[3] = {d.x, d.y, d.z};
    const double lo[3] = {box.lo.x, box.lo.y, box.lo.z};
    const double hi[3] = {box.hi.x, box.hi.y, box.hi.z};
    double tNear = -std::numeric_limits<double>::infinity();
    double tFar = std::numeric_limits<double>::infinity();
    int nearAxis = -1;
    double nearSign = 0.0;
    for (int axis = 0; axis < 3; ++axis)
    {
        if (dir[axis] == 0.0)
        {
            if (origin[axis] < lo[axis] || origin[axis] > hi[axis])
                return;
            continue;
        }
        double t1 = (lo[axis] - origin[axis]) / dir[axis];
        double t2 = (hi[axis] - origin[axis]) / dir[axis];
        double sign = -1.0;  // entering through the low face: the outward normal points down the axis
        if (t1 > t2)
        {
            std::swap(t1, t2);
            sign = 1.0;
        }
        if (t1 > tNear)
        {
            tNear = t1;
            nearAxis = axis;
            nearSign = sign;
        }
        tFar = std::min(tFar, t2);
    }
    if (nearAxis < 0 || tNear > tFar || tNear <= 0.0 || tNear >= best.t)
        return;
    double n[3] = {0.0, 0.0, 0.0};
    n[nearAxis] = nearSign;
    best.t = tNear;
    best.normal = {n[0], n[1], n[2]};
    best.colour = box.colour;
    best.classification = box.classification;
}

uint16_t toSixteenBit(double unit)
{
    return uint16_t(std::lround(std::clamp(unit, 0.0, 1.0) * 65535.0));
}

}  // namespace

std::vector<SampleHit> scanRoom(const geom::Point3d& scanner, const ScanGrid& grid, double jitter)
{
    std::mt19937 random(20261121);
    std::normal_distribution<double> noise(0.0, jitter > 0.0 ? jitter : 1.0);
    std::vector<SampleHit> hits;
    hits.reserve(size_t(grid.rows) * size_t(grid.columns));
    for (int column = 0; column < grid.columns; ++column)
    {
        const double azimuth = 2.0 * std::numbers::pi * (column + 0.5) / grid.columns;
        for (int row = 0; row < grid.rows; ++row)
        {
            const double elevation = std::numbers::pi * ((row + 0.5) / grid.rows - 0.5);
            const geom::Vector3d d(std::cos(elevation) * std::cos(azimuth),
                                   std::cos(elevation) * std::sin(azimuth), std::sin(elevation));
            Hit best;
            hitRoom(scanner, d, best);
            for (const Box& box : kFurniture)
                hitBox(box, scanner, d, best);

            const double range = best.t + (jitter > 0.0 ? noise(random) : 0.0);
            SampleHit hit;
            hit.position = scanner + d * range;
            hit.normal = best.normal;
            hit.distance = range;
            hit.classification = best.classification;
            hit.r = toSixteenBit(best.colour.r);
            hit.g = toSixteenBit(best.colour.g);
            hit.b = toSixteenBit(best.colour.b);
            // Reflectance from brightness, weakened by range and by a grazing angle, as a real return is.
            const double brightness = 0.3 * best.colour.r + 0.59 * best.colour.g + 0.11 * best.colour.b;
            const double incidence = std::fabs(d.dot(best.normal));
            hit.intensity = toSixteenBit(brightness * (0.35 + 0.65 * incidence) / (1.0 + 0.05 * range));
            hits.push_back(hit);
        }
    }
    return hits;
}

bool hiddenByTripod(const SampleHit& hit, const geom::Point3d& scanner)
{
    constexpr double kBlindPolarDegrees = 150.0;
    const geom::Vector3d d = hit.position - scanner;
    return d.z < std::cos(kBlindPolarDegrees * std::numbers::pi / 180.0) * d.length();
}

}  // namespace pcp_sample
