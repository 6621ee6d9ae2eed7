#pragma once

namespace geom
{

// Tolerances for geometric comparisons. The global value is what equality of exported points and normals
// uses: two positions closer than equalPoint, or two directions whose difference is shorter than equalVector,
// are equal.
struct Tolerance
{
    double equalPoint = 1e-10;
    double equalVector = 1e-10;

    static constexpr Tolerance global() { return Tolerance{}; }
};

}  // namespace geom
