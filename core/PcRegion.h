#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "geom/Point3d.h"

// Regions are a type of the host's point cloud definitions; inputs may bring them along and the cache keeps
// them.
namespace pointcloud_def
{

struct PcClip
{
    std::vector<std::array<double, 4>> planes;  // a, b, c, d of a x + b y + c z + d = 0
    std::vector<geom::Point3d> vertices;
    uint32_t id = 0;
    bool in = true;  // keep what lies inside, or what lies outside
};

struct PcRegion
{
    std::vector<PcClip> clips;
    std::vector<uint32_t> overlaps;  // indices of other regions
    std::wstring name;
    uint32_t idx = 0;
    bool visible = true;
    bool locked = false;
    bool removed = false;
};

}  // namespace pointcloud_def
