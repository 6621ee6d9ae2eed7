// pcprep info DIR: what a cache folder holds, complete or not.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <limits>
#include <sstream>

#include "cachefiles/BubbleJson.h"
#include "cachefiles/CacheFolder.h"
#include "cachefiles/KeyFile.h"
#include "cachefiles/PntFormat.h"
#include "core/FileSizeString.h"
#include "core/StringConversion.h"
#include "pcprep/CacheTree.h"
#include "pcprep/Command.h"
#include "scanview/TopoDef.h"

namespace pcprep
{

namespace
{

namespace fs = std::filesystem;
using pc_preprocess::getFileSizePrettyString;
using pc_preprocess::toPath;
using pc_preprocess::toWide;
using pc_preprocess::ws2s;

const char* kindName(pointcloud_def::PcCacheKind kind)
{
    switch (kind)
    {
        case pointcloud_def::PcCacheKind::kOctree:
            return "octree";
        case pointcloud_def::PcCacheKind::kHspc:
            return "HSPC data set";
        case pointcloud_def::PcCacheKind::kNone:
            break;
    }
    return "no tree (converted scans only, or an unfinished run)";
}

std::string firstToken(const fs::path& file)
{
    std::ifstream in(file);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

void printKeyFile(const pointcloud_def::PcCacheEntry& entry)
{
    if (entry.keyFile.empty())
    {
        std::printf("%-13s none: not a cache of this library, or its run never started\n", "Key file");
        return;
    }
    try
    {
        const pc_preprocess::KeyFileContent key = pc_preprocess::readKeyFile(entry.keyFile);
        std::printf("%-13s %s, name \"%s\", %s\n", "Key file",
                    toPath(entry.keyFile).filename().string().c_str(), ws2s(key.name).c_str(),
                    key.complete() ? ("complete, " + getFileSizePrettyString(key.size)).c_str()
                                   : "size 0: the run did not finish");
    }
    catch (const std::exception& e)
    {
        std::printf("%-13s %s\n", "Key file", e.what());
    }
}

void printLogs(const fs::path& folder)
{
    for (const fs::directory_entry& file : fs::directory_iterator(folder))
    {
        if (file.path().extension() != ".log")
            continue;
        fs::path percentage = file.path();
        percentage.replace_extension(".pct");
        const std::string token = fs::exists(percentage) ? firstToken(percentage) : "";
        std::printf("%-13s %s%s\n", "Log", file.path().filename().string().c_str(),
                    token.empty() ? "" : (", progress file says " + token).c_str());
    }
}

void printScans(const std::wstring& vrpFile)
{
    if (vrpFile.empty())
        return;
    const pc_preprocess::BubbleFile bubbles = pc_preprocess::readBubbleJson(vrpFile);
    std::printf("%-13s %zu in %s, %zu image%s\n", "Scans", bubbles.staticScans.size(),
                toPath(vrpFile).filename().string().c_str(), bubbles.waypoints.size(),
                bubbles.waypoints.size() == 1 ? "" : "s");
    for (const pc_preprocess::Bubble& scan : bubbles.staticScans)
    {
        const bool positioned = scan.scannerPosition[0] != std::numeric_limits<double>::max();
        std::printf("  %s", toPath(scan.name).filename().string().c_str());
        if (positioned)
            std::printf("  at (%.3f, %.3f, %.3f)", scan.scannerPosition[0], scan.scannerPosition[1],
                        scan.scannerPosition[2]);
        if (scan.data)
            std::printf("  panorama %llux%llu", static_cast<unsigned long long>(scan.data->width),
                        static_cast<unsigned long long>(scan.data->height));
        std::printf("\n");
    }
}

// Files of a form on disk and their bytes.
struct FileTally
{
    uint64_t files = 0;
    uint64_t bytes = 0;

    void add(const fs::path& file)
    {
        ++files;
        bytes += fs::file_size(file);
    }
    std::string text(const char* form) const
    {
        return std::to_string(files) + " " + form + " (" + getFileSizePrettyString(bytes) + ")";
    }
};

// The octree by its VRM: the nodes and points of each level, and the node files on disk in either form.
void printTree(const fs::path& vrmFile)
{
    const CacheTree tree = findCacheTree(vrmFile);
    pc_preprocess::VrmNode root;
    try
    {
        root = pc_preprocess::readVrm(toWide(tree.vrmFile));
    }
    catch (const std::exception& e)
    {
        std::printf("%-13s %s\n", "Tree", e.what());
        return;
    }
    const TreeSummary summary = summarizeTree(root);
    std::printf("%-13s depth %zu, %s, %s with %llu points\n", "Tree", summary.levels.size() - 1,
                counted(summary.nodes, "node", "nodes").c_str(),
                counted(summary.leaves, "leaf", "leaves").c_str(),
                static_cast<unsigned long long>(summary.leafPoints));
    for (size_t depth = 0; depth < summary.levels.size(); ++depth)
        std::printf("  level %-5zu %s, %llu points\n", depth,
                    counted(summary.levels[depth].nodes, "node", "nodes").c_str(),
                    static_cast<unsigned long long>(summary.levels[depth].points));

    FileTally pnz, pnt;
    uint64_t missing = 0;
    forEachNode(root,
                [&](const pc_preprocess::VrmNode& node, unsigned)
                {
                    const fs::path compressed = tree.nodeFile(node, ".pnz");
                    const fs::path plain = tree.nodeFile(node, ".pnt");
                    if (fs::is_regular_file(compressed))
                        pnz.add(compressed);
                    if (fs::is_regular_file(plain))
                        pnt.add(plain);
                    if (!fs::exists(compressed) && !fs::exists(plain))
                        ++missing;
                });
    std::printf("%-13s %s, %s%s\n", "Node files", pnz.text("PNZ").c_str(), pnt.text("PNT").c_str(),
                missing ? (", " + counted(missing, "node", "nodes") + " without a file").c_str() : "");
}

void printPointFolder(const fs::path& data)
{
    if (!fs::is_directory(data))
        return;
    uint64_t scanFiles = 0, scanPoints = 0, nodeFiles = 0, bytes = 0;
    for (const fs::directory_entry& file : fs::directory_iterator(data))
    {
        if (!file.is_regular_file())
            continue;
        bytes += file.file_size();
        const std::string name = file.path().filename().string();
        if (name.size() > 9 && name.compare(name.size() - 9, 9, "-temp.pnt") == 0)
        {
            ++scanFiles;
            scanPoints += pc_preprocess::numPointsPNT(file.file_size(), true);
        }
        else if (file.path().extension() == ".pnz")
            ++nodeFiles;
    }
    std::printf("%-13s %s: %llu scan file%s with %llu points, %llu node file%s, %s\n", "Point folder",
                data.filename().string().c_str(), static_cast<unsigned long long>(scanFiles),
                scanFiles == 1 ? "" : "s", static_cast<unsigned long long>(scanPoints),
                static_cast<unsigned long long>(nodeFiles), nodeFiles == 1 ? "" : "s",
                getFileSizePrettyString(bytes).c_str());
}

}  // namespace

int describeCacheFolder(const fs::path& folder)
{
    const pointcloud_def::PcCacheEntry entry = pc_preprocess::checkSubFolderItem(toWide(folder));
    std::printf("%-13s %s\n", "Cache", folder.string().c_str());
    std::printf("%-13s %s\n", "Kind", kindName(entry.kind));
    std::printf("%-13s %s\n", "Size on disk", getFileSizePrettyString(entry.size).c_str());
    printKeyFile(entry);
    if (!entry.treeFile.empty())
        std::printf("%-13s %s\n", "Tree file", toPath(entry.treeFile).filename().string().c_str());
    if (entry.kind == pointcloud_def::PcCacheKind::kOctree)
        printTree(toPath(entry.treeFile));
    printLogs(folder);
    const fs::path frameFile = folder / pc_preprocess::kTopoDefFileName;
    if (fs::exists(frameFile))
    {
        const pc_preprocess::TopoDef frame = pc_preprocess::readTopoDef(toWide(frameFile));
        if (frame.valid)
            std::printf("%-13s east, north, up at longitude %.9f, latitude %.9f (%s)\n", "Local frame",
                        frame.lambda0, frame.phi0, frameFile.filename().string().c_str());
        else
            std::printf("%-13s %s cannot be read\n", "Local frame", frameFile.filename().string().c_str());
    }
    printScans(entry.vrpFile);
    printPointFolder(folder / "Data");
    if (!entry.hasMembers)
        std::printf("This folder holds no cache files.\n");
    return 0;
}

}  // namespace pcprep
