#pragma once

#include <array>
#include <cmath>
#include <cstdint>
#include <limits>

namespace pc_preprocess
{

// Integer grid of a cache: real = integer * scale + offset per axis. The default values mark a transfo that
// has not been settled yet.
struct IoTransfo
{
    static constexpr double kUnsetOffset = std::numeric_limits<double>::max();
    static constexpr double kUnsetScale = -1.0;

    std::array<double, 3> offset{kUnsetOffset, kUnsetOffset, kUnsetOffset};
    std::array<double, 3> scale{kUnsetScale, kUnsetScale, kUnsetScale};

    bool hasPositiveScale() const { return scale[0] > 0.0 && scale[1] > 0.0 && scale[2] > 0.0; }
    bool isValid() const
    {
        return hasPositiveScale() && offset[0] != kUnsetOffset && offset[1] != kUnsetOffset &&
               offset[2] != kUnsetOffset;
    }
    bool operator==(const IoTransfo&) const = default;
};

// round((value - offset) * inverseScale), half away from zero: the integer of a real coordinate on one axis of
// a grid. False when it leaves the 32-bit range (or is not a number), and then `cell` is untouched.
inline bool toGridInteger(double value, double offset, double inverseScale, int32_t& cell)
{
    const double rounded = std::round((value - offset) * inverseScale);
    // Written so that a NaN fails the test too.
    if (!(rounded >= -2147483648.0 && rounded <= 2147483647.0))
        return false;
    cell = static_cast<int32_t>(rounded);
    return true;
}

// What an importer applies to its raw coordinates: one 3 x 4 row-major matrix that takes the cache's scale
// and offset and the scan's pose together, so that each axis costs one dot product and a rounding.
struct Discretization
{
    std::array<double, 12> matrix{};
    bool isIdentity = false;  // raw integers are the cache's integers and pass unchanged
    bool isDiagonal = false;  // the linear part has no off-diagonal terms

    Discretization() = default;
    // From the cache's transfo and a scan's map from raw coordinates to the world: `linear` holds 9 doubles,
    // column-major (row r is linear[r], linear[r + 3], linear[r + 6]), `translation` 3. Throws for a transfo
    // that is not settled.
    Discretization(const IoTransfo& transfo, const double* linear, const double* translation);

    // The cache integers of a raw position, rounded half away from zero; false when an axis leaves the
    // 32-bit range (or is not a number), and then the point is untouched.
    bool apply(double x, double y, double z, int32_t& ix, int32_t& iy, int32_t& iz) const
    {
        double v[3];
        if (isIdentity)
        {
            v[0] = x;
            v[1] = y;
            v[2] = z;
        }
        else
            for (int r = 0; r < 3; ++r)
                v[r] = matrix[4 * r] * x + matrix[4 * r + 1] * y + matrix[4 * r + 2] * z + matrix[4 * r + 3];
        int32_t out[3];
        for (int r = 0; r < 3; ++r)
        {
            const double rounded = std::round(v[r]);
            // Written so that a NaN fails the test too.
            if (!(rounded >= -2147483648.0 && rounded <= 2147483647.0))
                return false;
            out[r] = static_cast<int32_t>(rounded);
        }
        ix = out[0];
        iy = out[1];
        iz = out[2];
        return true;
    }
};

}  // namespace pc_preprocess
