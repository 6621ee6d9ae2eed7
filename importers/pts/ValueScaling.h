#pragma once

#include <cstdint>
#include <string>

#include "core/ColorMode.h"

namespace pc_preprocess
{

// Brings a raw intensity to the 16-bit scale of its mode, truncating towards zero. False when the value lies
// outside the mode's range (a NaN included); then `scaled` is untouched. The unit and signed ranges include
// both ends, so that 1.0 and 2048.0 give 65535; the others exclude their upper end.
inline bool scaleIntensity(double value, EIntensityMode mode, uint16_t& scaled)
{
    switch (mode)
    {
        case kIntensityUnit:
            if (!(value >= 0.0 && value <= 1.0))
                return false;
            scaled = static_cast<uint16_t>(value * 65535.99999999999);
            return true;
        case kIntensity8Bit:
            if (!(value >= 0.0 && value < 256.0))
                return false;
            scaled = static_cast<uint16_t>(value * 256.0);
            return true;
        case kIntensity16Bit:
            if (!(value >= 0.0 && value < 65536.0))
                return false;
            scaled = static_cast<uint16_t>(value);
            return true;
        case kIntensitySigned:
            if (!(value >= -2048.0 && value <= 2048.0))
                return false;
            scaled = static_cast<uint16_t>((value + 2048.0) * 15.999999999999998);
            return true;
        default:
            scaled = 0;
            return true;
    }
}

// What a failed scaleIntensity means for the user, naming the probe that chose the mode.
std::string intensityRangeText(EIntensityMode mode, uint64_t probeSize);

}  // namespace pc_preprocess
