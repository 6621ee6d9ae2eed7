#pragma once

#include <stdlib.h>

#include <filesystem>
#include <stdexcept>
#include <string>

namespace pcp_bench
{

// A new folder of its own in the system's temporary folder, named `prefix` and six random characters, for
// the files a benchmark writes once; its owner removes it at exit.
inline std::filesystem::path makeBenchFolder(const std::string& prefix)
{
    std::string pattern = (std::filesystem::temp_directory_path() / (prefix + "-XXXXXX")).string();
    if (mkdtemp(pattern.data()) == nullptr)
        throw std::runtime_error("cannot create a temporary folder");
    return pattern;
}

}  // namespace pcp_bench
