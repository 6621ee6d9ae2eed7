#pragma once

#include <string>

#include "core/Export.h"

namespace pc_preprocess
{

// The geographic origin of a cache's local frame: longitude and latitude in degrees and the same place in
// earth-centred cartesian coordinates (WGS84). The defaults describe no origin.
struct TopoDef
{
    double lambda0 = -90.0;
    double phi0 = 90.0;
    double x0 = 0.0;
    double y0 = 0.0;
    double z0 = 0.0;
    bool valid = false;
};

// The origin at a longitude and latitude (degrees) on the ellipsoid; out of range gives the default.
PCP_API TopoDef computeWGS84(double lambda, double phi);
// The origin below an earth-centred point, on the ellipsoid; the earth's centre gives the default.
PCP_API TopoDef projectWGS84(double x, double y, double z);

// The topocentric file of a cache, one JSON object:
//   {"proj=topocentric +ellps=WGS84": {"height0": 0.0, "lambda0": ..., "phi0": ..., "x0": ..., "y0": ...,
//    "z0": ...}}
// Reading never fails: a missing or broken file gives a definition with every field at the largest double
// and valid false, so that the caller falls back on no georeference.
PCP_API TopoDef readTopoDef(const std::wstring& path);
PCP_API void writeTopoDef(const std::wstring& path, const TopoDef& def);

// The name of the topocentric file in a cache folder.
inline constexpr const char* kTopoDefFileName = "topocentric.json";

}  // namespace pc_preprocess
