// pcprep export: points of node files, per-scan point files or a cache's tree out to a PTS or LAZ file or an
// HSPC data set.
#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "cachefiles/PntFiles.h"
#include "cachefiles/PnzFiles.h"
#include "core/ExportPoint.h"
#include "core/FileSizeString.h"
#include "core/NodePaths.h"
#include "core/StringConversion.h"
#include "cachefiles/CacheFolder.h"
#include "exporters/HspcExporter.h"
#include "exporters/LazExporter.h"
#include "exporters/PtsExporter.h"
#include "geom/Matrix3d.h"
#include "pcprep/ArgumentParser.h"
#include "pcprep/CacheTree.h"
#include "pcprep/Command.h"
#include "pcprep/HspcDataSet.h"

namespace pcprep
{

namespace
{

namespace fs = std::filesystem;
using pc_preprocess::ExportPoint;
using pc_preprocess::IoLightPoint;
using pc_preprocess::IoTransfo;

constexpr uint64_t kBatch = 65536;
constexpr const char* kHspcSuffix = ".hspc";
constexpr const char* kPackSuffix = ".hspc.pack";

// Hands out the points of the sources one batch after the other. A plain file is read a batch at a time, so
// that a scan of any size passes through bounded memory; a compressed node is small and read whole.
class SourceReader
{
public:
    explicit SourceReader(std::vector<fs::path> sources) : m_sources(std::move(sources)) {}

    // The grid of the first source: a LAZ target keeps its integers.
    IoTransfo firstTransfo() const
    {
        const fs::path& first = m_sources.front();
        if (first.extension() == ".pnt")
            return pc_preprocess::readPntHeader(pc_preprocess::toWide(first)).transfo;
        IoTransfo transfo;
        std::vector<IoLightPoint> points;
        pc_preprocess::readPNZ(pc_preprocess::toWide(first), transfo, points);
        return transfo;
    }

    bool next(std::vector<ExportPoint>& batch)
    {
        batch.clear();
        while (batch.empty() && m_current < m_sources.size())
        {
            const std::wstring source = pc_preprocess::toWide(m_sources[m_current]);
            IoTransfo transfo;
            if (m_sources[m_current].extension() == ".pnz")
            {
                pc_preprocess::readPNZ(source, transfo, m_points);
                ++m_current;
            }
            else
            {
                pc_preprocess::readPartialPNT(source, m_start, kBatch, transfo, m_points);
                m_start += m_points.size();
                if (m_points.size() < kBatch)
                {
                    ++m_current;
                    m_start = 0;
                }
            }
            const bool withClasses =
                fs::exists(pc_preprocess::toPath(pc_preprocess::getClassPathFromPnt(source)));
            for (const IoLightPoint& p : m_points)
                batch.push_back(pc_preprocess::exportPointOf(p, transfo, withClasses));
        }
        return !batch.empty();
    }

private:
    std::vector<fs::path> m_sources;
    size_t m_current = 0;
    uint64_t m_start = 0;
    std::vector<IoLightPoint> m_points;
};

// The node files of a cache that together hold its points at one level of detail: those of the nodes at the
// depth, and of the leaves that end above it; without a depth, the leaves, which hold every point.
std::vector<fs::path> cacheSources(const fs::path& cache, const ParsedArguments& parsed)
{
    const CacheTree tree = findCacheTree(cache);
    const pc_preprocess::VrmNode root = pc_preprocess::readVrm(pc_preprocess::toWide(tree.vrmFile));
    const TreeSummary summary = summarizeTree(root);
    const uint64_t depth = parsed.number("--depth", summary.levels.size() - 1);
    if (depth >= summary.levels.size())
        throw UsageError("--depth: the tree of " + cache.string() + " has the depths 0 to " +
                         std::to_string(summary.levels.size() - 1));
    std::vector<fs::path> sources;
    forEachNode(root,
                [&](const pc_preprocess::VrmNode& node, unsigned nodeDepth)
                {
                    if (nodeDepth > depth || (nodeDepth < depth && !node.isLeaf()))
                        return;
                    const std::optional<fs::path> file = tree.nodeFileOnDisk(node);
                    if (!file)
                        throw std::runtime_error("the node file of " + pc_preprocess::ws2s(node.file) +
                                                 " is missing in " + tree.pointFolder.string());
                    sources.push_back(*file);
                });
    return sources;
}

std::vector<fs::path> fileSources(const ParsedArguments& parsed)
{
    if (parsed.has("--depth"))
        throw UsageError("--depth is for a cache as the source");
    std::vector<fs::path> sources(parsed.positional().begin(), parsed.positional().end() - 1);
    for (const fs::path& source : sources)
        if (source.extension() != ".pnt" && source.extension() != ".pnz")
            throw UsageError(
                "a source must be a cache folder, a node file or a scan's point file (.pnt or "
                ".pnz), not " +
                source.string());
    return sources;
}

bool endsWith(const std::string& text, const std::string& suffix)
{
    return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

bool isHspcTarget(const fs::path& target)
{
    const std::string name = target.filename().string();
    return endsWith(name, kHspcSuffix) || endsWith(name, kPackSuffix);
}

// Every node and scan file has radius, colour, intensity and scan index; classes and normals are there when
// a side file lies beside one of the sources.
pc_preprocess::SupportedAttributes sourceAttributes(const std::vector<fs::path>& sources)
{
    pc_preprocess::SupportedAttributes attributes;
    attributes.radius = attributes.color = attributes.intensity = attributes.scanId = true;
    for (const fs::path& source : sources)
    {
        const std::wstring wide = pc_preprocess::toWide(source);
        std::error_code error;
        attributes.classification = attributes.classification ||
                                    fs::exists(pc_preprocess::toPath(pc_preprocess::getClassPathFromPnt(wide)), error);
        attributes.normals =
            attributes.normals || fs::exists(pc_preprocess::toPath(pc_preprocess::getNormalPathFromPnt(wide)), error);
    }
    return attributes;
}

// A folder that goes away again unless the export that writes into it succeeds.
class NewFolder
{
public:
    explicit NewFolder(fs::path path) : m_path(std::move(path))
    {
        if (!fs::create_directory(m_path))
            throw std::runtime_error(m_path.string() + " already exists.");
    }
    ~NewFolder()
    {
        std::error_code ignored;
        if (!m_kept)
            fs::remove_all(m_path, ignored);
    }
    NewFolder(const NewFolder&) = delete;
    NewFolder& operator=(const NewFolder&) = delete;

    const fs::path& path() const { return m_path; }
    void keep() { m_kept = true; }

private:
    fs::path m_path;
    bool m_kept = false;
};

// OUT.hspc becomes a folder that holds the data set; OUT.hspc.pack one archive, written in a folder beside it
// that goes away once the archive has its name.
uint64_t exportHspc(SourceReader& reader, const std::vector<fs::path>& sources, const fs::path& target)
{
    std::error_code error;
    if (fs::exists(fs::symlink_status(target, error)))
        throw std::runtime_error(target.string() + " already exists.");
    const std::string name = target.filename().string();
    const bool pack = endsWith(name, kPackSuffix);
    NewFolder folder(pack ? fs::path(target.string() + ".partial") : target);
    pc_preprocess::HspcExporter exporter(pc_preprocess::toWide(folder.path()), geom::Matrix3d::identity(),
                                         reader.firstTransfo(), false, nullptr);
    exporter.setSupportedAttributes(sourceAttributes(sources));
    // The converter sizes its pools by the hardware.
    exporter.setThreads(0);
    const std::string treeName = name.substr(0, name.size() - std::string(kPackSuffix).size());
    if (pack)
        exporter.setPackArchiveName(treeName);
    const uint64_t written = exporter.run([&reader](std::vector<ExportPoint>& batch) { return reader.next(batch); });
    if (pack)
        fs::rename(folder.path() / name, target);
    else
        folder.keep();
    return written;
}

}  // namespace

int runExport(const Arguments& arguments)
{
    const ParsedArguments parsed(arguments,
                                 {{"--depth", true}, {"--box", true}, {"--lod", true}, {"--threads", true}});
    if (parsed.positional().size() < 2)
        throw UsageError("expected SOURCE... OUT");
    const fs::path& first = parsed.positional().front();
    // A folder holding a data set is one (a run with --hspc writes no tree of node files); any other
    // folder is read as a cache.
    if (parsed.positional().size() == 2 && namesHspcDataSet(first))
        return exportHspcDataSet(first, parsed.positional().back(), parsed);
    const bool fromCache = parsed.positional().size() == 2 && namesCache(first);
    if (parsed.has("--box") || parsed.has("--lod") || parsed.has("--threads"))
        throw UsageError("--box, --lod and --threads are for an HSPC data set as the source");
    const std::vector<fs::path> sources = fromCache ? cacheSources(first, parsed) : fileSources(parsed);
    const fs::path target = parsed.positional().back();

    SourceReader reader(sources);
    if (isHspcTarget(target))
    {
        const uint64_t written = exportHspc(reader, sources, target);
        uint64_t bytes = 0;
        if (fs::is_regular_file(target))
            bytes = fs::file_size(target);
        else
            pc_preprocess::getFoldersize(pc_preprocess::toWide(target), bytes);
        std::printf("Wrote %llu points from %zu file%s to the HSPC data set %s (%s)\n",
                    static_cast<unsigned long long>(written), sources.size(), sources.size() == 1 ? "" : "s",
                    target.string().c_str(), pc_preprocess::getFileSizePrettyString(bytes).c_str());
        return 0;
    }
    std::unique_ptr<pc_preprocess::Exporter> exporter;
    const std::wstring wideTarget = pc_preprocess::toWide(target);
    if (target.extension() == ".laz")
        exporter = std::make_unique<pc_preprocess::LazExporter>(wideTarget, geom::Matrix3d::identity(),
                                                                reader.firstTransfo());
    else if (target.extension() == ".pts")
        exporter = std::make_unique<pc_preprocess::PtsExporter>(wideTarget, geom::Matrix3d::identity());
    else
        throw UsageError("OUT must end in .pts, .laz, .hspc or .hspc.pack, not " + target.string());

    const uint64_t written =
        exporter->run([&reader](std::vector<ExportPoint>& batch) { return reader.next(batch); });
    std::printf("Wrote %llu points from %zu file%s to %s (%s)\n", static_cast<unsigned long long>(written),
                sources.size(), sources.size() == 1 ? "" : "s", target.string().c_str(),
                pc_preprocess::getFileSizePrettyString(fs::file_size(target)).c_str());
    return 0;
}

}  // namespace pcprep
