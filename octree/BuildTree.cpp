#include "octree/BuildTree.h"

#include <filesystem>
#include <stdexcept>
#include <system_error>

#include "cachefiles/VrmFile.h"
#include "core/StringConversion.h"
#include "octree/BuildHspcTree.h"
#include "octree/Node.h"
#include "octree/SplitRoot.h"
#include "octree/TreeCounts.h"
#include "octree/TreeWorkers.h"
#include "scanview/StructuredNormalCalculator.h"
#include "services/Logger.h"
#include "services/Stopwatch.h"

namespace pc_preprocess
{

namespace
{

void requireNotCancelled(Logger& logger, const std::function<bool()>& cancel)
{
    if (cancel && cancel())
    {
        logger.cancel();
        throw std::runtime_error("Preprocessing cancelled by user.");
    }
}

VrmNode vrmNodeOf(const Node& node)
{
    VrmNode vrm;
    vrm.file = toWide(toPath(node.pntPath).filename());
    vrm.maxRadius = node.maxRadius;
    vrm.numPoints = static_cast<uint32_t>(node.pointsOnDisk);
    vrm.box = vrmBox(node.extents, node.transfo);
    vrm.children.reserve(node.children.size());
    for (const Node& child : node.children)
        vrm.children.push_back(vrmNodeOf(child));
    return vrm;
}

void countLeaves(const Node& node, uint64_t& leaves, uint64_t& points)
{
    if (node.isLeaf())
    {
        ++leaves;
        points += node.pointsOnDisk;
        return;
    }
    for (const Node& child : node.children)
        countLeaves(child, leaves, points);
}

// Where every point that entered the tree went; the numbers add up to the points that entered.
void logPointAccount(Logger& logger, const Node& root, const TreeCounts& counts)
{
    uint64_t leaves = 0;
    uint64_t leafPoints = 0;
    countLeaves(root, leaves, leafPoints);
    logger.message("Points: " + std::to_string(counts.entered) + " entered the tree, " +
                   std::to_string(counts.filteredAway) + " removed by the filters, " +
                   std::to_string(counts.inSmallChildren) +
                   " dropped with children of fewer than 5 points, " + std::to_string(counts.outsideBoxes) +
                   " outside the boxes of their node, " + std::to_string(leafPoints) + " in " +
                   std::to_string(leaves) + " leaves");
}

void buildOctree(const std::vector<ScanFiles>& scans, const std::wstring& pointFolder,
                 const CacheFiles& cacheFiles, const IoTransfo& transfo,
                 const SupportedAttributes& attributes, uint64_t threads,
                 const std::shared_ptr<Logger>& logger, bool noPanoramaStyle,
                 const std::function<bool()>& cancel, const ThreadStarter& startWorker,
                 uint64_t subtreePointBudget)
{
    const std::wstring& vrmFile = cacheFiles.getTreeFile();
    if (toPath(vrmFile).extension() != ".vrm")
        throw std::runtime_error("Expected filename *.vrm; received " + ws2s(vrmFile));

    Node root = Node::root(pointFolder, transfo, attributes.classification, attributes.normals);
    TreeCounts counts;
    SplitSettings settings{false, false, &counts, subtreePointBudget};

    logger->increaseStep("Split Root");
    logger->message("Started splitting root");
    const Stopwatch rootClock;
    try
    {
        settings.tandStyle =
            splitRoot(root, scans, logger, noPanoramaStyle, false, false, subtreePointBudget, counts, cancel);
    }
    catch (const std::exception& e)
    {
        logger->error(std::string("ERROR splitting root :\n\t") + e.what());
        throw;
    }
    requireNotCancelled(*logger, cancel);
    logger->message("Finished splitting root : Elapsed time = " + rootClock.elapsed() + " seconds");

    logger->increaseStep("Split Rest");
    logger->message("Started splitting threaded");
    const Stopwatch splitClock;
    const bool split = splitRootChildrenThreaded(root, threads, settings, logger, cancel, startWorker);
    requireNotCancelled(*logger, cancel);
    if (!split)
        throw std::runtime_error("buildTree ERROR : splitting threaded failed.");
    logger->message("Finished splitting threaded : Elapsed time = " + splitClock.elapsed());

    logger->increaseStep("Merge");
    logger->message("Started merging threaded");
    const Stopwatch mergeClock;
    const bool merged = mergeThreaded(root, threads, logger, cancel, startWorker);
    requireNotCancelled(*logger, cancel);
    if (!merged)
        throw std::runtime_error("buildTree ERROR : merging threaded failed.");
    logger->message("Finished merging threaded : Elapsed time = " + mergeClock.elapsed());
    logPointAccount(*logger, root, counts);

    const Stopwatch vrmClock;
    try
    {
        writeVrm(vrmFile, vrmNodeOf(root));
    }
    catch (const std::exception& e)
    {
        logger->error(std::string("ERROR VRM file :\n\t") + e.what());
        throw;
    }
    logger->message("Finished VRM file : Elapsed time = " + vrmClock.elapsed());
}

void buildHspc(const std::vector<ScanFiles>& scans, const CacheFiles& cacheFiles, const IoTransfo& transfo,
               SupportedAttributes& attributes, uint64_t threads, const std::shared_ptr<Logger>& logger,
               bool noPanoramaStyle, bool computeNormals, const std::string& wkt, geom::UnitsValue units,
               const std::function<bool()>& cancel)
{
    logger->message("Running preprocessing HSPC-style");
    const bool normalsFromScans = attributes.normals;
    const StructuredNormalCalculator calculator(scans, true, noPanoramaStyle,
                                                !attributes.normals && computeNormals);
    if (!attributes.normals)
        attributes.normals = calculator.isActivated();
    // A data set keeps colour whenever it keeps intensity, so that a viewer always has something to show.
    attributes.color = attributes.color || attributes.intensity;
    logger->message(describe(attributes));

    logger->increaseStep("HSPC");
    logger->message("Started converting to HSPC");
    const Stopwatch clock;
    try
    {
        buildHspcTree(scans, cacheFiles, attributes, normalsFromScans, transfo, wkt, units, calculator, threads,
                      logger, cancel);
    }
    catch (const std::exception& e)
    {
        // A conversion that stopped because of a cancel ends as a cancel, not as a failure.
        if (!(cancel && cancel()))
        {
            logger->error(std::string("ERROR converting HSPC :\n\t") + e.what());
            throw;
        }
    }
    catch (...)
    {
        logger->error("ERROR Building HSPC tree:\n\t");
        throw;
    }
    requireNotCancelled(*logger, cancel);
    logger->message("Finished converting HSPC : Elapsed time = " + clock.elapsed());
    const std::wstring& treeFile = cacheFiles.getTreeFile();
    std::error_code error;
    if (!std::filesystem::exists(toPath(treeFile), error))
        logger->message(" => ERROR: failed to create hspc file " + ws2s(treeFile));
}

}  // namespace

void buildTree(const std::vector<ScanFiles>& scans, const std::wstring& cacheFolder,
               const CacheFiles& cacheFiles, const IoTransfo& transfo, SupportedAttributes& attributes,
               uint64_t threads, std::shared_ptr<Logger> logger, bool noPanoramaStyle, bool hspcOnly,
               bool computeNormals, const std::string& wkt, geom::UnitsValue units,
               const std::function<bool()>& cancelPredicate, const ThreadStarter& startWorker,
               uint64_t subtreePointBudget)
{
    const std::filesystem::path pointFolder = toPath(cacheFolder) / "Data";
    std::filesystem::create_directories(pointFolder);
    if (hspcOnly)
    {
        buildHspc(scans, cacheFiles, transfo, attributes, threads, logger, noPanoramaStyle, computeNormals, wkt,
                  units, cancelPredicate);
        return;
    }
    buildOctree(scans, toWide(pointFolder), cacheFiles, transfo, attributes, threads, logger, noPanoramaStyle,
                cancelPredicate, startWorker, subtreePointBudget);
}

}  // namespace pc_preprocess
