#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "cachefiles/VrmFile.h"
#include "core/IoLightPoint.h"
#include "core/IoTransfo.h"

namespace pcp_test
{

// A small finished octree cache written by code, as a run leaves it: "cache.vrm", a complete "cache.key", and
// one node file per node in "Data". The tree:
//
//   0 ── 00 (leaf)
//     ── 01 ── 010 (leaf)
//           ── 011 (leaf)
//     ── 02 (leaf)
//
// Leaves hold points of their own region; an inner node holds every third point of its children, as a
// thinned copy does. Every attribute follows from the node and the index, and every "b" is the node's
// box by the VRM's rule.
struct SyntheticCache
{
    std::filesystem::path folder;
    std::filesystem::path vrm;
    std::filesystem::path data;
    pc_preprocess::IoTransfo transfo;
    pc_preprocess::VrmNode root;
    std::map<std::string, std::vector<pc_preprocess::IoLightPoint>> points;  // by node stem: "0", "01", ...

    size_t nodeCount() const { return points.size(); }
    uint64_t leafPoints() const;
    std::filesystem::path nodeFile(const std::string& stem, const char* extension) const
    {
        return data / (stem + extension);
    }
};

// Writes the cache into folder (created if missing), the nodes as ".pnz" files or, with plain, ".pnt" files.
SyntheticCache writeSyntheticCache(const std::filesystem::path& folder, bool plain = false);

// The node of the tree whose file is "<stem>.pnt"; throws when there is none.
const pc_preprocess::VrmNode& findNode(const pc_preprocess::VrmNode& root, const std::string& stem);
pc_preprocess::VrmNode& findNode(pc_preprocess::VrmNode& root, const std::string& stem);

}  // namespace pcp_test
