#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "cachefiles/VrmFile.h"

namespace pcprep
{

// An octree cache as the commands that work on a whole cache see it: its VRM and the point folder beside it.
struct CacheTree
{
    std::filesystem::path folder;
    std::filesystem::path vrmFile;
    std::filesystem::path pointFolder;

    // The node's file in the given form (".pnz" or ".pnt").
    std::filesystem::path nodeFile(const pc_preprocess::VrmNode& node, const char* extension) const;
    // The node's file in whichever form is on disk, the compressed one first; none when neither is.
    std::optional<std::filesystem::path> nodeFileOnDisk(const pc_preprocess::VrmNode& node) const;
};

// Whether a command argument names a cache rather than a file: a folder, or a ".vrm" file.
bool namesCache(const std::filesystem::path& argument);

// The cache of a folder (by the tree file in it) or of its ".vrm" file. Throws when the folder holds no
// octree.
CacheTree findCacheTree(const std::filesystem::path& cacheOrVrm);

// Calls visit for every node with its depth (0 for the root), each parent before its children.
void forEachNode(const pc_preprocess::VrmNode& root,
                 const std::function<void(const pc_preprocess::VrmNode&, unsigned depth)>& visit);

// The shape of a tree by the counts of its VRM.
struct TreeSummary
{
    struct Level
    {
        uint64_t nodes = 0;
        uint64_t points = 0;
    };
    std::vector<Level> levels;  // by depth
    uint64_t nodes = 0;
    uint64_t leaves = 0;
    uint64_t leafPoints = 0;
};
TreeSummary summarizeTree(const pc_preprocess::VrmNode& root);

// "1 node", "3 nodes": a count with its noun in the right number.
std::string counted(uint64_t count, const char* singular, const char* plural);

}  // namespace pcprep
