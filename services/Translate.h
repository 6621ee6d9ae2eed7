#pragma once

#include <string>

#include "core/Export.h"

namespace pc_preprocess
{

// The one place where texts for a user's eyes are translated. It looks the English text up in the message
// catalogue of the domain "pointcloud_preprocess"; without an installed catalogue the text passes through.
// The result is UTF-8.
PCP_API std::string translate(const char* english);

}  // namespace pc_preprocess
