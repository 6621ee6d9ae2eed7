#pragma once

#include <cmath>

#include "geom/Tolerance.h"

namespace geom
{

// A direction or displacement in real coordinates.
struct Vector3d
{
    double x = 0.0;
    double y = 0.0;
    double z = 0.0;

    constexpr Vector3d() = default;
    constexpr Vector3d(double xv, double yv, double zv) : x(xv), y(yv), z(zv) {}

    double length() const { return std::sqrt(x * x + y * y + z * z); }
    constexpr double dot(const Vector3d& o) const { return x * o.x + y * o.y + z * o.z; }
    constexpr Vector3d cross(const Vector3d& o) const
    {
        return {y * o.z - z * o.y, z * o.x - x * o.z, x * o.y - y * o.x};
    }

    bool isZeroLength(const Tolerance& tol = Tolerance::global()) const
    {
        return length() <= tol.equalVector;
    }

    // Unit vector of the same direction; a zero-length vector stays as it is.
    Vector3d normal(const Tolerance& tol = Tolerance::global()) const
    {
        const double len = length();
        if (len <= tol.equalVector)
            return *this;
        return {x / len, y / len, z / len};
    }

    constexpr Vector3d operator+(const Vector3d& o) const { return {x + o.x, y + o.y, z + o.z}; }
    constexpr Vector3d operator-(const Vector3d& o) const { return {x - o.x, y - o.y, z - o.z}; }
    constexpr Vector3d operator-() const { return {-x, -y, -z}; }
    constexpr Vector3d operator*(double s) const { return {x * s, y * s, z * s}; }
    constexpr bool operator==(const Vector3d&) const = default;
};

}  // namespace geom
