#pragma once

namespace pc_preprocess
{

// The geographic origin of a cache's local frame: longitude and latitude in degrees and the same place in
// earth-centred cartesian coordinates. The defaults describe no origin.
struct TopoDef
{
    double lambda0 = -90.0;
    double phi0 = 90.0;
    double x0 = 0.0;
    double y0 = 0.0;
    double z0 = 0.0;
    bool valid = false;
};

}  // namespace pc_preprocess
