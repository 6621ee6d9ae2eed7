#include "importers/pts/ValueScaling.h"

namespace pc_preprocess
{

std::string intensityRangeText(EIntensityMode mode, uint64_t probeSize)
{
    const std::string count = std::to_string(probeSize);
    switch (mode)
    {
        case kIntensityUnit:
            return "Expected intensity in range [0.0, 1.0] based on first " + count + " valid points.";
        case kIntensity8Bit:
            return "Expected intensity in range [0.0, 256.0[ based on first " + count + " valid points.";
        case kIntensity16Bit:
            return "Expected intensity in range [0.0, 65536.0[ based on first " + count + " valid points.";
        case kIntensitySigned:
            // Users and tools compare this text as it has always been, the missing blank included.
            return "Expected intensity in range [-2048.0, 2048.0] based on first " + count + "valid points.";
        default:
            return {};
    }
}

}  // namespace pc_preprocess
