#include "core/FileColorRange.h"

#include <cmath>
#include <limits>

namespace pc_preprocess
{

void FileColorRange::reset()
{
    minIntensity = minRgb = std::numeric_limits<double>::max();
    maxIntensity = maxRgb = -std::numeric_limits<double>::max();
}

namespace
{

EIntensityMode intensityModeOf(double lo, double hi)
{
    if (lo > hi)
        return kIntensityNone;
    if (lo >= 0.0)
    {
        if (hi <= 1.0)
            return kIntensityUnit;
        if (hi < 256.0)
            return kIntensity8Bit;
        if (hi < 65536.0)
            return kIntensity16Bit;
        return kIntensityNone;
    }
    if (lo >= -2048.0 && hi <= 2048.0)
        return kIntensitySigned;
    return kIntensityNone;
}

ERgbMode rgbModeOf(double lo, double hi)
{
    if (lo > hi)
        return kRgbFromIntensity;
    if (std::fabs(lo) < 1e-6 && std::fabs(hi) < 1e-6)
        return kRgbBlack;
    return hi <= 255.0 ? kRgb8Bit : kRgb16Bit;
}

}  // namespace

ColorMode FileColorRange::colorMode() const
{
    return ColorMode(rgbModeOf(minRgb, maxRgb), intensityModeOf(minIntensity, maxIntensity));
}

}  // namespace pc_preprocess
