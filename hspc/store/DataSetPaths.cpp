#include "hspc/store/DataSetPaths.h"

#include <array>
#include <string_view>

namespace HSPC
{

namespace
{

bool endsWith(std::string_view text, std::string_view suffix)
{
    return text.size() >= suffix.size() && text.substr(text.size() - suffix.size()) == suffix;
}

}  // namespace

bool isArchivePath(const std::string& path)
{
    return endsWith(path, ".hspc.pack") || endsWith(path, ".hspca") || path.size() == 5;
}

std::optional<std::string> dataSetRoot(const std::string& path)
{
    static constexpr std::array<std::string_view, 3> kTreeFiles{"tree.hspc", "queryTree.hspc",
                                                                  "voxelTreeList.hsvl"};
    for (const std::string_view file : kTreeFiles)
    {
        for (const char separator : {'/', '\\'})
        {
            const size_t suffix = file.size() + 1;
            if (path.size() >= suffix && path[path.size() - suffix] == separator && endsWith(path, file))
            {
                return path.substr(0, path.size() - suffix);
            }
        }
        if (path.size() == file.size())
        {
            return path;
        }
    }
    return std::nullopt;
}

}  // namespace HSPC
