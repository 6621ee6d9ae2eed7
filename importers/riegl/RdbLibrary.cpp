#include "importers/riegl/RdbLibrary.h"

#include <dlfcn.h>

#include <map>
#include <mutex>
#include <stdexcept>

namespace pc_preprocess::riegl
{

const char* const RdbLibrary::kUsualNames[] = {"librdb.so", "librdb.so.2"};

namespace
{

const char* const kHowToProvide =
    "Install the RIEGL library (rdblib 2, from RIEGL's download pages) and put the folder of librdb.so on the "
    "library search path (LD_LIBRARY_PATH or ldconfig), or give the library's full path in the input's "
    "settings (InputFileData::rieglLibrary; pcprep: --riegl-library).";

std::string lastDlError()
{
    const char* text = ::dlerror();
    return text ? text : "unknown reason";
}

// dlopen's handle for `path`, or for the first usual name that loads; throws with every reason.
void* openLibrary(const std::string& path, std::string& file)
{
    if (!path.empty())
    {
        if (void* handle = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL))
        {
            file = path;
            return handle;
        }
        throw std::runtime_error("The RIEGL library " + path + " could not be loaded: " + lastDlError() + ". " +
                                 kHowToProvide);
    }
    std::string reasons;
    for (const char* name : RdbLibrary::kUsualNames)
    {
        if (void* handle = ::dlopen(name, RTLD_NOW | RTLD_LOCAL))
        {
            file = name;
            return handle;
        }
        reasons += (reasons.empty() ? "" : "; ") + lastDlError();
    }
    throw std::runtime_error("The RIEGL library (librdb.so) was not found: " + reasons + ". " + kHowToProvide);
}

}  // namespace

std::shared_ptr<const RdbLibrary> RdbLibrary::load(const std::string& path)
{
    // The loaded libraries of the process, by the path asked for. Workers that read RIEGL inputs at the same
    // time share one binding; a failed load is tried again next time, as the user may have installed the
    // library in between.
    static std::mutex mutex;
    static std::map<std::string, std::shared_ptr<const RdbLibrary>> loaded;
    const std::lock_guard<std::mutex> lock(mutex);
    if (const auto found = loaded.find(path); found != loaded.end())
        return found->second;

    auto library = std::make_shared<RdbLibrary>();
    void* handle = openLibrary(path, library->m_file);
    std::string missing;
#define PCP_RDB_RESOLVE(name, result, parameters)                                                \
    library->name = reinterpret_cast<result(*) parameters>(::dlsym(handle, #name));              \
    if (!library->name)                                                                          \
        missing += (missing.empty() ? "" : ", ") + std::string(#name);
    PCP_RDB_FUNCTIONS(PCP_RDB_RESOLVE)
#undef PCP_RDB_RESOLVE
    if (!missing.empty())
    {
        ::dlclose(handle);
        throw std::runtime_error("The RIEGL library " + library->m_file + " lacks the function" +
                                 (missing.find(',') == std::string::npos ? " " : "s ") + missing +
                                 ": it is too old or no rdblib 2. " + kHowToProvide);
    }
    loaded.emplace(path, library);
    return library;
}

}  // namespace pc_preprocess::riegl
