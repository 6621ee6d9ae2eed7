#include "core/NodePaths.h"

#include "core/StringConversion.h"

namespace pc_preprocess
{

namespace
{
std::wstring sidePath(const std::wstring& pnt, const char* suffix)
{
    const std::filesystem::path p = toPath(pnt);
    return toWide(p.parent_path() / (p.stem().string() + suffix));
}
}  // namespace

std::wstring getClassPathFromPnt(const std::wstring& pnt)
{
    return sidePath(pnt, "-class.pnt");
}
std::wstring getNormalPathFromPnt(const std::wstring& pnt)
{
    return sidePath(pnt, "-normal.pnt");
}

}  // namespace pc_preprocess
