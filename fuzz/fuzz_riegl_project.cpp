// Arbitrary bytes as a RIEGL project file: the parser either reads scans with finite poses and plain file
// names, or fails with its own error; anything else stops the run.
#include <cmath>
#include <cstdio>
#include <stdexcept>
#include <string_view>

#include "importers/riegl/RieglProject.h"

namespace
{

bool plausible(const pc_preprocess::riegl::RieglProject& project)
{
    if (project.scans.empty())
        return false;
    for (const auto& scan : project.scans)
    {
        if (scan.name.empty() || scan.position.empty() || scan.rdbFile.has_parent_path())
            return false;
        for (const double value : scan.rotation)
            if (!std::isfinite(value) && scan.hasPose)
                return false;
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    try
    {
        const auto project =
            pc_preprocess::riegl::parseRieglProject(std::string_view(reinterpret_cast<const char*>(data), size));
        if (!plausible(project))
        {
            std::fprintf(stderr, "RIEGL project fuzz case: a parsed project breaks an invariant\n");
            __builtin_trap();
        }
    }
    catch (const std::runtime_error&)
    {
    }
    return 0;
}
