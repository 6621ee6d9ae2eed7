#pragma once

#include <cstdint>

#include "geom/Point3d.h"
#include "geom/Vector3d.h"

namespace pc_preprocess
{

// A point on its way to an exporter, in real coordinates.
struct ExportPoint
{
    geom::Point3d position{0.0, 0.0, 0.0};
    float radius = 1.0f;
    int32_t classification = -1;
    int32_t scanId = -1;
    uint16_t r = 0;
    uint16_t g = 0;
    uint16_t b = 0;
    uint16_t intensity = 0;
    geom::Vector3d normal{0.0, 0.0, 0.0};

    // Position and normal compare within the global tolerance, everything else exactly.
    bool operator==(const ExportPoint& o) const
    {
        return (position - o.position).isZeroLength() && (normal - o.normal).isZeroLength() &&
               radius == o.radius && classification == o.classification && scanId == o.scanId && r == o.r &&
               g == o.g && b == o.b && intensity == o.intensity;
    }
};

}  // namespace pc_preprocess
