#include "services/Translate.h"

#include <libintl.h>

#include <mutex>

namespace pc_preprocess
{

namespace
{
constexpr const char* kDomain = "pointcloud_preprocess";
}

std::string translate(const char* english)
{
    // Catalogues may be stored in any encoding; the library works in UTF-8 throughout.
    static std::once_flag codesetOnce;
    std::call_once(codesetOnce, [] { bind_textdomain_codeset(kDomain, "UTF-8"); });
    return dgettext(kDomain, english);
}

}  // namespace pc_preprocess
