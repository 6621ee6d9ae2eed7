#include "hspc/query/TreeLocation.h"

#include <filesystem>
#include <string_view>

#include "hspc/store/DataSetPaths.h"

namespace HSPC
{
namespace
{

namespace fs = std::filesystem;

std::string archiveTreeName(const std::string& path)
{
    std::string name = fs::path(path).filename().string();
    for (const std::string_view suffix : {std::string_view(".pack"), std::string_view(".hspca")})
    {
        if (name.size() > suffix.size() && name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0)
        {
            name.resize(name.size() - suffix.size());
            // "<name>.hspca" stands for "<name>.hspc.pack".
            return "/" + (suffix == ".hspca" ? name + ".hspc" : name);
        }
    }
    // The old five-letter archive names say nothing about the tree inside: the default one.
    return "/tree.hspc";
}

bool isTreeFileName(const std::string& name)
{
    return name == "tree.hspc" || name == "queryTree.hspc";
}

}  // namespace

TreeLocation locateTree(const std::string& path)
{
    if (isArchivePath(path))
    {
        return {true, path, archiveTreeName(path)};
    }
    const fs::path given(path);
    const std::string fileName = given.filename().string();
    if (dataSetRoot(path) && isTreeFileName(fileName))
    {
        const std::string folder = given.parent_path().string();
        return {false, folder.empty() ? std::string(".") : folder, "/" + fileName};
    }
    return {false, path, "/tree.hspc"};
}

}  // namespace HSPC
