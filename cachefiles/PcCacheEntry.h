#pragma once

#include <cstdint>
#include <string>

// The host's description of one cache folder, as its cache list shows it.
namespace pointcloud_def
{

enum class PcCacheKind : uint8_t
{
    kNone,    // no tree file: an unfinished, failed or foreign folder
    kOctree,  // a ".vrm" tree with its node files
    kHspc,    // an HSPC data set, as a folder (".hspc") or a pack (".pack")
};

struct PcCacheEntry
{
    bool valid = false;  // a tree file is there, so the host can open the cache
    uint64_t size = 0;   // bytes of all regular files below the folder
    PcCacheKind kind = PcCacheKind::kNone;
    bool hasMembers = false;  // a tree, scan, log, index or key file is there: the folder is (or was) a cache
    bool complete = false;    // the key file carries the cache's size, which a run writes last
    std::wstring folder;
    std::wstring treeFile;  // empty without a tree
    std::wstring vrpFile;   // empty without scan positions
    std::wstring keyFile;   // empty without a key file
    std::wstring keyName;   // the name in the key file; empty without a readable one
};

}  // namespace pointcloud_def
