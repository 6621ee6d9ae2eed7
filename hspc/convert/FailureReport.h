// The lines with which a conversion reports its failures on the error logger: a count, then one line per
// failure in the order in which they happened.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "hspc/convert/ConversionFailure.h"

namespace HSPC
{

// `conversionName` is "Static" or "Progressive". Failures recorded at the same second keep the order in which
// the stage listed them; times are shown as seconds since `startSeconds` (conversionClockSeconds). No lines
// for an empty list.
std::vector<std::string> failureReport(const std::string& conversionName, ConversionFailures failures,
                                       int64_t startSeconds);

}  // namespace HSPC
