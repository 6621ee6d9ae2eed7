// What a converter checks before it does anything: that every logger can be called, that the attributes
// describe a position the engine encodes, that output and temp folders are usable, and that node sizes and
// filter settings make sense. The first problem is reported and ends the checks, so that a caller fixes one
// thing at a time and the disk is never touched by a conversion that cannot work.
#pragma once

#include "hspc/format/Config.h"

namespace HSPC
{

// Largest nodeSize and maxNodeSize a conversion accepts, in points.
inline constexpr uint32_t kLargestNodeSize = 8388608;

// True when the three records can drive a conversion. Otherwise the reason goes to the error logger, or, when
// there is none, to the standard error stream.
bool checkConverterConfiguration(const BasicConfig& basic, const AdvancedConfig& advanced,
                                 const PointCloudEncodingConfig& encoding);

}  // namespace HSPC
