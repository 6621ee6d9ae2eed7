#include "octree/ScanFileRemoval.h"

#include <filesystem>
#include <system_error>

#include "core/NodePaths.h"
#include "core/StringConversion.h"

namespace pc_preprocess
{

namespace
{

void removeIfThere(const std::wstring& path)
{
    std::error_code ignored;
    std::filesystem::remove(toPath(path), ignored);
}

}  // namespace

void deleteScanFiles(const ScanFiles& scan)
{
    removeIfThere(scan.pntFile);
    removeIfThere(getClassPathFromPnt(scan.pntFile));
    removeIfThere(getNormalPathFromPnt(scan.pntFile));
    removeIfThere(scan.metaFile);
    for (const ScanImageFiles& image : scan.images)
        removeIfThere(image.metaFile);
}

}  // namespace pc_preprocess
