#pragma once

#include "core/ColorMode.h"
#include "core/Export.h"

namespace pc_preprocess
{

// Extreme colour and intensity numbers seen in one input, from which its colour mode is inferred. A minimum
// above its maximum means that nothing was seen.
class PCP_API FileColorRange
{
public:
    double minIntensity;
    double maxIntensity;
    double minRgb;
    double maxRgb;

    FileColorRange() { reset(); }
    void reset();

    void updateAll(double r, double g, double b, double intensity)
    {
        updateRgb(r, g, b);
        updateIntensity(intensity);
    }
    void updateRgb(double r, double g, double b)
    {
        updateRgb(r);
        updateRgb(g);
        updateRgb(b);
    }
    void updateRgb(double v)
    {
        if (v < minRgb)
            minRgb = v;
        if (v > maxRgb)
            maxRgb = v;
    }
    void updateIntensity(double v)
    {
        if (v < minIntensity)
            minIntensity = v;
        if (v > maxIntensity)
            maxIntensity = v;
    }

    ERgbMode rgbMode() const { return maxRgb <= 255.0 ? kRgb8Bit : kRgb16Bit; }
    // The narrowest interpretation that fits what was seen.
    ColorMode colorMode() const;
};

}  // namespace pc_preprocess
