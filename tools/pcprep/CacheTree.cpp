#include "pcprep/CacheTree.h"

#include <stdexcept>
#include <string>

#include "cachefiles/CacheFolder.h"
#include "core/StringConversion.h"

namespace pcprep
{

namespace fs = std::filesystem;

fs::path CacheTree::nodeFile(const pc_preprocess::VrmNode& node, const char* extension) const
{
    return (pointFolder / pc_preprocess::toPath(node.file)).replace_extension(extension);
}

std::optional<fs::path> CacheTree::nodeFileOnDisk(const pc_preprocess::VrmNode& node) const
{
    for (const char* extension : {".pnz", ".pnt"})
    {
        fs::path file = nodeFile(node, extension);
        std::error_code error;
        if (fs::is_regular_file(file, error))
            return file;
    }
    return std::nullopt;
}

bool namesCache(const fs::path& argument)
{
    std::error_code error;
    return argument.extension() == ".vrm" || fs::is_directory(argument, error);
}

CacheTree findCacheTree(const fs::path& cacheOrVrm)
{
    CacheTree tree;
    if (cacheOrVrm.extension() == ".vrm")
    {
        tree.vrmFile = cacheOrVrm;
        tree.folder = cacheOrVrm.parent_path().empty() ? fs::path(".") : cacheOrVrm.parent_path();
    }
    else
    {
        const pointcloud_def::PcCacheEntry entry =
            pc_preprocess::checkSubFolderItem(pc_preprocess::toWide(cacheOrVrm));
        if (entry.kind != pointcloud_def::PcCacheKind::kOctree)
            throw std::runtime_error(cacheOrVrm.string() + " holds no octree cache: no .vrm file in it");
        tree.vrmFile = pc_preprocess::toPath(entry.treeFile);
        tree.folder = cacheOrVrm;
    }
    tree.pointFolder = tree.folder / "Data";
    return tree;
}

void forEachNode(const pc_preprocess::VrmNode& root,
                 const std::function<void(const pc_preprocess::VrmNode&, unsigned depth)>& visit)
{
    // The reader bounds the depth of a tree, so the recursion is bounded too.
    const std::function<void(const pc_preprocess::VrmNode&, unsigned)> walk =
        [&](const pc_preprocess::VrmNode& node, unsigned depth)
    {
        visit(node, depth);
        for (const pc_preprocess::VrmNode& child : node.children)
            walk(child, depth + 1);
    };
    walk(root, 0);
}

TreeSummary summarizeTree(const pc_preprocess::VrmNode& root)
{
    TreeSummary summary;
    forEachNode(root,
                [&summary](const pc_preprocess::VrmNode& node, unsigned depth)
                {
                    if (summary.levels.size() <= depth)
                        summary.levels.resize(depth + 1);
                    ++summary.levels[depth].nodes;
                    summary.levels[depth].points += node.numPoints;
                    ++summary.nodes;
                    if (node.isLeaf())
                    {
                        ++summary.leaves;
                        summary.leafPoints += node.numPoints;
                    }
                });
    return summary;
}

std::string counted(uint64_t count, const char* singular, const char* plural)
{
    return std::to_string(count) + " " + (count == 1 ? singular : plural);
}

}  // namespace pcprep
