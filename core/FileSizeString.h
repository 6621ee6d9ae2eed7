#pragma once

#include <cstdint>
#include <string>

#include "core/Export.h"

namespace pc_preprocess
{

// A byte count for a person: two decimals and the largest unit up to TB that keeps the value at least 1, e.g.
// "1.50KB" for 1536 and "0.00B" for 0.
PCP_API std::string getFileSizePrettyString(const uint64_t& bytes);

}  // namespace pc_preprocess
