#pragma once

#include <vector>

#include "core/ColorMode.h"
#include "core/IoTransfo.h"
#include "core/PcRegion.h"
#include "scanview/TopoDef.h"

namespace pc_preprocess
{

// What probing an input proposes for the whole run.
struct ProbeResult
{
    IoTransfo transfo;
    ColorMode colorMode;
    TopoDef topoDef;
    std::vector<pointcloud_def::PcRegion> regions;
    bool hasScanViews = false;
    bool hasClasses = false;
    bool hasNormals = false;
};

}  // namespace pc_preprocess
