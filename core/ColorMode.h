#pragma once

#include <cstdint>

namespace pc_preprocess
{

// How the colour numbers of an input are to be read.
enum ERgbMode : uint32_t
{
    kRgbNone = 0,           // not specified; converting importers store black
    kRgb16Bit = 1,          // already on the 0..65535 scale
    kRgb8Bit = 2,           // 0..255, stored times 256; larger values are an error
    kRgbBlack = 3,          // the file's colours are all zero
    kRgbFromIntensity = 4,  // no colour in the file: r, g and b take the converted intensity
};

// How the intensity numbers of an input are to be read.
enum EIntensityMode : uint32_t
{
    kIntensityNone = 0,    // not specified; stored 0
    kIntensityUnit = 1,    // [0.0, 1.0]
    kIntensity8Bit = 2,    // [0.0, 256.0[
    kIntensity16Bit = 3,   // [0.0, 65536.0[
    kIntensitySigned = 4,  // [-2048.0, 2048.0]
};

class ColorMode
{
public:
    ERgbMode rgb = kRgbNone;
    EIntensityMode intensity = kIntensityNone;

    ColorMode() = default;
    ColorMode(ERgbMode rgbMode, EIntensityMode intensityMode) : rgb(rgbMode), intensity(intensityMode) {}

    bool operator==(const ColorMode&) const = default;
};

}  // namespace pc_preprocess
