#pragma once

#include <string>

#include "core/Export.h"

namespace pc_preprocess
{

// Which attributes of the points of a run carry information.
struct SupportedAttributes
{
    bool radius = false;
    bool scanId = false;
    bool classification = false;
    bool color = false;
    bool intensity = false;
    bool normals = false;

    bool operator==(const SupportedAttributes&) const = default;
};

// The log line that states the attributes of a run.
PCP_API std::string describe(const SupportedAttributes& attributes);

}  // namespace pc_preprocess
