#pragma once

#include <cstdint>
#include <string>

#include "cachefiles/PcCacheEntry.h"
#include "core/Export.h"

namespace pc_preprocess
{

// Adds the sizes of all regular files below folder, in every subfolder, to size. Links are not followed, so
// nothing counts twice. False when the folder cannot be walked; what was counted until then stays added.
PCP_API bool getFoldersize(const std::wstring& folder, uint64_t& size);

// Describes a cache folder by the files in it (not in its subfolders): a ".vrm" marks an octree, a ".hspc" or
// ".pack" an HSPC data set, and ".vrp", ".log", ".ndx" and ".key" files are members of a cache. Only a folder
// with a tree is valid; the size is the whole folder's. A folder that does not exist gives an invalid entry.
// Extensions are compared without regard to case, as caches also come from systems that ignore it.
PCP_API pointcloud_def::PcCacheEntry checkSubFolderItem(const std::wstring& folder);

}  // namespace pc_preprocess
