#pragma once

#include "geom/Vector3d.h"

namespace geom
{

// A position in real coordinates.
struct Point3d
{
    double x = 0.0;
    double y = 0.0;
    double z = 0.0;

    constexpr Point3d() = default;
    constexpr Point3d(double xv, double yv, double zv) : x(xv), y(yv), z(zv) {}

    double distanceTo(const Point3d& o) const { return (*this - o).length(); }
    bool isEqualTo(const Point3d& o, const Tolerance& tol = Tolerance::global()) const
    {
        return distanceTo(o) <= tol.equalPoint;
    }

    constexpr Vector3d operator-(const Point3d& o) const { return {x - o.x, y - o.y, z - o.z}; }
    constexpr Point3d operator+(const Vector3d& v) const { return {x + v.x, y + v.y, z + v.z}; }
    constexpr Point3d operator-(const Vector3d& v) const { return {x - v.x, y - v.y, z - v.z}; }
    constexpr bool operator==(const Point3d&) const = default;
};

}  // namespace geom
