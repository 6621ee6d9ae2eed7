// Which tree file a path given for a data set names, and where the data set's node blobs lie:
//
//   - a pack archive (isArchivePath): the entry named after the archive, "/<name>.hspc" for
//     "<name>.hspc.pack" or "<name>.hspca", so the default "tree.hspc.pack" reads "/tree.hspc" and an archive
//     written under a tree name of its own reads that name's tree;
//   - a tree file ("…/tree.hspc", "…/queryTree.hspc"): that file, the node blobs in its folder;
//   - anything else is a data set folder: its "tree.hspc".
//
// Both tree files of a data set describe the same nodes, so either serves for reading them back.
#pragma once

#include <string>

namespace HSPC
{

struct TreeLocation
{
    bool archive = false;
    // The folder of the data set, or the archive's file.
    std::string container;
    // The tree's blob name inside it, with a leading slash.
    std::string treeName;
};

TreeLocation locateTree(const std::string& path);

}  // namespace HSPC
