#pragma once

#include <array>
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

// What an importer applies to its raw coordinates: one 3 x 4 row-major matrix that takes the cache's scale
// and offset and the scan's pose together, so that each axis costs one dot product and a rounding.
struct Discretization
{
    std::array<double, 12> matrix{};
    bool isIdentity = false;  // raw integers are the cache's integers and pass unchanged
    bool isDiagonal = false;  // the linear part has no off-diagonal terms
};

}  // namespace pc_preprocess
