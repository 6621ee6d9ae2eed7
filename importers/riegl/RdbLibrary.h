#pragma once

#include <memory>
#include <string>

#include "importers/riegl/RdbApi.h"

namespace pc_preprocess::riegl
{

// The RIEGL library, loaded into the process with dlopen on first use and kept there: the library may run
// threads of its own, and unloading it under a reader that another worker still holds would crash the host.
// Every function the importer needs is resolved at load time, so a library that lacks one is refused at once
// instead of failing in the middle of a scan.
class RdbLibrary
{
public:
#define PCP_RDB_POINTER(name, result, parameters) result(*name) parameters = nullptr;
    PCP_RDB_FUNCTIONS(PCP_RDB_POINTER)
#undef PCP_RDB_POINTER

    // The library at `path`, or, for an empty path, under its usual file names through the system's library
    // search path. Loaded once per path for the whole process. Throws std::runtime_error naming what was
    // missing and how to provide it.
    static std::shared_ptr<const RdbLibrary> load(const std::string& path);

    // The file names tried for an empty path, in order.
    static const char* const kUsualNames[];

    // The file name it was loaded from.
    const std::string& file() const { return m_file; }

private:
    std::string m_file;
};

}  // namespace pc_preprocess::riegl
