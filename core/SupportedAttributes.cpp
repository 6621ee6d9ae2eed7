#include "core/SupportedAttributes.h"

#include <cwchar>

#include "core/StringConversion.h"

namespace pc_preprocess
{

std::string describe(const SupportedAttributes& a)
{
    wchar_t line[128];
    std::swprintf(
        line, sizeof line / sizeof line[0],
        L"Supported attributes: radius(%d) scanId(%d) class(%d) color(%d) intensity(%d) normals(%d)",
        int(a.radius), int(a.scanId), int(a.classification), int(a.color), int(a.intensity), int(a.normals));
    return ws2s(line);
}

}  // namespace pc_preprocess
