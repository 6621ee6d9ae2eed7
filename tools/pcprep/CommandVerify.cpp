// pcprep verify: whether a finished octree cache is whole, node by node, as a host will read it.
#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "cachefiles/CacheFolder.h"
#include "cachefiles/KeyFile.h"
#include "cachefiles/PnzFiles.h"
#include "cachefiles/VrmFile.h"
#include "core/StringConversion.h"
#include "pcprep/ArgumentParser.h"
#include "pcprep/CacheTree.h"
#include "pcprep/Command.h"
#include "pcprep/HspcDataSet.h"

namespace pcprep
{

namespace
{

namespace fs = std::filesystem;
using pc_preprocess::IoLightPoint;
using pc_preprocess::IoTransfo;
using pc_preprocess::VrmNode;

// The problems of one cache, each printed as it is found, with file names relative to the cache folder.
class Findings
{
public:
    explicit Findings(fs::path folder) : m_folder(std::move(folder)) {}

    void problem(const fs::path& file, const std::string& what)
    {
        std::printf("%s: %s\n", name(file).c_str(), what.c_str());
        ++m_count;
    }
    uint64_t count() const { return m_count; }

private:
    std::string name(const fs::path& file) const
    {
        const fs::path relative = file.lexically_relative(m_folder);
        return (relative.empty() ? file : relative).string();
    }

    fs::path m_folder;
    uint64_t m_count = 0;
};

bool endsWith(const std::string& text, const std::string& ending)
{
    return text.size() >= ending.size() &&
           text.compare(text.size() - ending.size(), ending.size(), ending) == 0;
}

// Files a run writes on the way and removes once it has used them.
bool isTemporaryFile(const std::string& name)
{
    for (const char* ending : {"-temp.pnt", "-temp.meta", "-temp-class.pnt", "-temp-normal.pnt", ".tmp"})
        if (endsWith(name, ending))
            return true;
    return false;
}

// A complete key file is what a run writes last.
void checkKeyFile(const fs::path& folder, Findings& findings)
{
    const pointcloud_def::PcCacheEntry entry =
        pc_preprocess::checkSubFolderItem(pc_preprocess::toWide(folder));
    if (entry.keyFile.empty())
    {
        findings.problem(folder, "no key file (.key), so no run finished this cache");
        return;
    }
    const fs::path keyFile = pc_preprocess::toPath(entry.keyFile);
    try
    {
        if (!pc_preprocess::readKeyFile(entry.keyFile).complete())
            findings.problem(keyFile, "the size is 0: the run that wrote the cache did not finish");
    }
    catch (const std::exception& e)
    {
        findings.problem(keyFile, e.what());
    }
}

void checkPointsInBox(const fs::path& file, const std::vector<IoLightPoint>& points, const IoTransfo& transfo,
                      const std::array<double, 6>& box, Findings& findings)
{
    uint64_t outside = 0;
    std::array<double, 3> first{};
    for (const IoLightPoint& p : points)
    {
        const std::array<double, 3> real = {p.x * transfo.scale[0] + transfo.offset[0],
                                            p.y * transfo.scale[1] + transfo.offset[1],
                                            p.z * transfo.scale[2] + transfo.offset[2]};
        bool inside = true;
        for (int axis = 0; axis < 3; ++axis)
            inside = inside && real[axis] >= box[axis] && real[axis] <= box[axis + 3];
        if (!inside && outside++ == 0)
            first = real;
    }
    if (outside == 0)
        return;
    char text[200];
    std::snprintf(text, sizeof text,
                  "%llu of %zu points lie outside the node's box in the VRM, the first at "
                  "(%.4f, %.4f, %.4f)",
                  static_cast<unsigned long long>(outside), points.size(), first[0], first[1], first[2]);
    findings.problem(file, text);
}

// The node's PNZ file holds the points the VRM counts, each inside the VRM's box. Returns true when the node
// has only a plain file, which is then reported here with the node.
bool checkNode(const CacheTree& tree, const VrmNode& node, Findings& findings)
{
    const fs::path file = tree.nodeFile(node, ".pnz");
    if (!fs::is_regular_file(file))
    {
        const fs::path plain = tree.nodeFile(node, ".pnt");
        const bool hasPlain = fs::is_regular_file(plain);
        findings.problem(file, hasPlain ? "missing; the node is the plain file " + plain.filename().string() +
                                              " (pcprep compress turns the cache's plain files into PNZ)"
                                        : "missing, and the node has no file at all");
        return hasPlain;
    }
    IoTransfo transfo;
    std::vector<IoLightPoint> points;
    try
    {
        pc_preprocess::readPNZ(pc_preprocess::toWide(file), transfo, points);
    }
    catch (const std::exception& e)
    {
        findings.problem(file, e.what());
        return false;
    }
    if (static_cast<uint32_t>(points.size()) != node.numPoints)
        findings.problem(file, std::to_string(points.size()) + " points, but the VRM says " +
                                   std::to_string(node.numPoints));
    checkPointsInBox(file, points, transfo, node.box, findings);
    return false;
}

// What else lies in the point folder: nothing temporary, no plain node files, no node files the tree does
// not name, and side files only where the root is the only node.
void checkPointFolder(const CacheTree& tree, const VrmNode& root, const std::set<std::string>& nodeStems,
                      const std::set<std::string>& reportedPlain, Findings& findings)
{
    std::vector<fs::path> files;
    for (const fs::directory_entry& entry : fs::directory_iterator(tree.pointFolder))
        if (entry.is_regular_file())
            files.push_back(entry.path());
    std::sort(files.begin(), files.end());

    const std::string rootStem = pc_preprocess::toPath(root.file).stem().string();
    for (const fs::path& file : files)
    {
        const std::string name = file.filename().string();
        const std::string stem = file.stem().string();
        if (isTemporaryFile(name))
            findings.problem(file, "a temporary file of the run is left behind");
        else if (endsWith(name, "-class.pnt") || endsWith(name, "-normal.pnt"))
        {
            if (!root.isLeaf())
                findings.problem(file,
                                 "a side file, but only a cache of a single node keeps classes and normals");
            else if (name.compare(0, rootStem.size() + 1, rootStem + "-") != 0)
                findings.problem(file, "a side file of no node");
        }
        else if (file.extension() == ".pnt")
        {
            if (reportedPlain.count(stem) == 0)
                findings.problem(file, "a plain file left behind; a finished cache holds PNZ files only");
        }
        else if (file.extension() == ".pnz")
        {
            const bool removedPoints =
                endsWith(stem, "_rm") && nodeStems.count(stem.substr(0, stem.size() - 3));
            if (nodeStems.count(stem) == 0 && !removedPoints)
                findings.problem(file, "a node file that the VRM does not name");
        }
    }
}

// Whether the cache is sound; its problems are printed on the way.
bool verifyCache(const fs::path& argument, Findings& findings)
{
    CacheTree tree;
    VrmNode root;
    try
    {
        tree = findCacheTree(argument);
        root = pc_preprocess::readVrm(pc_preprocess::toWide(tree.vrmFile));
    }
    catch (const std::exception& e)
    {
        findings.problem(argument, e.what());
        return false;
    }
    checkKeyFile(tree.folder, findings);
    if (!fs::is_directory(tree.pointFolder))
    {
        findings.problem(tree.pointFolder, "the point folder is missing");
        return false;
    }

    std::set<std::string> nodeStems;
    std::set<std::string> reportedPlain;
    forEachNode(root,
                [&](const VrmNode& node, unsigned)
                {
                    const std::string stem = pc_preprocess::toPath(node.file).stem().string();
                    nodeStems.insert(stem);
                    if (checkNode(tree, node, findings))
                        reportedPlain.insert(stem);
                });
    checkPointFolder(tree, root, nodeStems, reportedPlain, findings);

    if (findings.count() != 0)
        return false;
    const TreeSummary summary = summarizeTree(root);
    std::printf("cache is sound: %s, %llu points in %s\n", counted(summary.nodes, "node", "nodes").c_str(),
                static_cast<unsigned long long>(summary.leafPoints),
                counted(summary.leaves, "leaf", "leaves").c_str());
    return true;
}

}  // namespace

int runVerify(const Arguments& arguments)
{
    const ParsedArguments parsed(arguments, {});
    parsed.expectPositional(1, "one cache folder, .vrm file or HSPC data set");
    const fs::path argument(parsed.positional()[0]);
    if (namesHspcDataSet(argument))
        return verifyHspcDataSet(argument);
    if (!namesCache(argument))
        throw UsageError("expected a cache folder or its .vrm file, or an HSPC data set, not " + argument.string());
    const fs::path folder = argument.extension() == ".vrm" ? argument.parent_path() : argument;
    Findings findings(folder);
    if (verifyCache(argument, findings))
        return 0;
    std::printf("%s found in %s\n", counted(findings.count(), "problem", "problems").c_str(),
                argument.string().c_str());
    return 1;
}

}  // namespace pcprep
