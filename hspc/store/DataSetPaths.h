// What a path given for a data set points at.
#pragma once

#include <optional>
#include <string>

namespace HSPC
{

// True for a pack archive: a path ending in ".hspc.pack" or ".hspca". Any path of exactly five characters
// counts too; data sets have long been opened that way and hosts still rely on it.
bool isArchivePath(const std::string& path);

// The data set folder of a tree file path: what stands in front of a final "/tree.hspc", "/queryTree.hspc" or
// "/voxelTreeList.hsvl" (or the same with a backslash). A path of 9, 14 or 18 characters, the length of one of
// these names alone, is taken whole as before. Nothing for any other path.
std::optional<std::string> dataSetRoot(const std::string& path);

}  // namespace HSPC
