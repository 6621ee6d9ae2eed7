#pragma once

#include <cstdint>

#include "core/IoLightPoint.h"
#include "core/IoTransfo.h"
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

// A point of a node or scan file in real coordinates. `withClasses`: the file has a class side file; without
// one its points have no class to pass on.
inline ExportPoint exportPointOf(const IoLightPoint& p, const IoTransfo& t, bool withClasses)
{
    ExportPoint e;
    e.position = {p.x * t.scale[0] + t.offset[0], p.y * t.scale[1] + t.offset[1], p.z * t.scale[2] + t.offset[2]};
    e.radius = p.radius;
    e.classification = withClasses ? p.classification : -1;
    e.scanId = p.scanId;
    e.r = p.r;
    e.g = p.g;
    e.b = p.b;
    e.intensity = p.intensity;
    e.normal = {p.nx, p.ny, p.nz};
    return e;
}

}  // namespace pc_preprocess
