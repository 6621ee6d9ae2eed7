#pragma once

#include <array>
#include <cstdint>
#include <limits>

#include "core/ExtentsI32.h"

namespace pc_preprocess
{

// What the meta file of a scan holds. Without a panorama the position, the matrix and the distance carry the
// largest double as a mark, and the width all ones.
struct MetaData
{
    static constexpr double kNoView = std::numeric_limits<double>::max();
    static constexpr uint64_t kNoViewWidth = ~uint64_t(0);

    ExtentsI32 extents;
    std::array<double, 3> position{kNoView, kNoView, kNoView};
    std::array<double, 9> matrix{kNoView, kNoView, kNoView, kNoView, kNoView,
                                 kNoView, kNoView, kNoView, kNoView};  // column-major
    double maxDistance = kNoView;
    double filledArea = 0.0;
    uint64_t viewWidth = kNoViewWidth;
    uint64_t numPoints = 0;
    bool validTandSize = false;
};

}  // namespace pc_preprocess
