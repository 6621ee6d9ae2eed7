#include "octree/SplitRoot.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <optional>
#include <stdexcept>

#include "cachefiles/MetaFile.h"
#include "cachefiles/PntFiles.h"
#include "cachefiles/PntFormat.h"
#include "core/StringConversion.h"
#include "octree/NodeFilters.h"
#include "octree/NodeSplit.h"
#include "octree/ScanFileRemoval.h"
#include "octree/ScanPointStream.h"
#include "services/IntervalWriter.h"
#include "services/Logger.h"

namespace pc_preprocess
{

namespace
{

// Factor between a scan's mean point spacing and the radius its points get.
constexpr double kSpacingToRadius = 1.7;

struct ScanInput
{
    const ScanFiles* files;
    uint64_t numPoints;
    MetaData meta;
};

// The spacing of a scan's points over the share of the sphere it covers, as a factor of their distances.
float tandFactor(const ScanInput& scan)
{
    return static_cast<float>(std::sqrt(scan.meta.filledArea / double(scan.numPoints)) * kSpacingToRadius);
}

// Up to 65536 points in all: the root is the only node, and keeps side files.
void fillSingleRoot(Node& root, const std::vector<ScanInput>& inputs, bool tandStyle, bool allValid,
                    bool keepMultiple, TreeCounts& counts)
{
    const float rootSize = static_cast<float>(root.extents.pointSize(root.transfo));
    for (const ScanInput& scan : inputs)
    {
        IoTransfo transfo;
        std::vector<IoLightPoint> points;
        if (scan.numPoints > 0)
            readPNT(scan.files->pntFile, transfo, points);
        const float factor = scan.numPoints > 0 ? tandFactor(scan) : 0.0f;
        for (IoLightPoint& point : points)
        {
            if (tandStyle)
                point.radius *= factor;
            else if (!allValid)
                point.radius = rootSize;
            point.scanId = 0;
            root.addPoint(point);
        }
        deleteScanFiles(*scan.files);
    }
    if (tandStyle && root.numBuffered() > 0)
    {
        const uint64_t total = root.numBuffered();
        root.flushAndClose();
        FilteredPoints result = filterTandStyle(root.pntPath, root.extents, root.transfo, keepMultiple);
        root.deletePntFiles();
        root.pointsOnDisk = 0;
        root.filtered = true;
        root.maxRadius = result.maxRadius;
        counts.filteredAway += total - result.points.size();
        root.buffers.add(result.points);
    }
    PnzCoder coder;
    root.writeBuffersAsPnz(coder);
}

// What the distribution will give one child of the root.
struct ChildCensus
{
    uint64_t count = 0;
    ExtentsI32 extents;
    double maxRadius = Node::kNoRadius;
};

// The boxes of the root's children and, for a child split while distributed, those of its children.
struct RootBoxes
{
    std::array<ExtentsI32, 8> children;
    std::array<std::array<ExtentsI32, 8>, 8> grandchildren;
};

// Reads the scans once, as the distribution will, to learn each child's count, box and largest radius;
// nothing when cancelled.
template <typename RadiusFactor>
std::optional<std::array<ChildCensus, 8>> takeCensus(const std::vector<ScanInput>& inputs,
                                                     const std::vector<ScanPointStream::Scan>& files,
                                                     const std::array<ExtentsI32, 8>& boxes,
                                                     const RadiusFactor& radiusFactor,
                                                     const std::function<bool()>& cancel)
{
    std::array<ChildCensus, 8> census;
    for (ChildCensus& child : census)
        child.extents.reset();
    ScanPointStream stream(files, false);
    ScanPointStream::Block block;
    while (stream.next(block))
    {
        if (cancel && cancel())
            return std::nullopt;
        const float factor = radiusFactor(inputs[block.scan]);
        for (const IoLightPoint& point : block.points)
        {
            const size_t k = firstBoxHolding(boxes, point);
            if (k == boxes.size())
                continue;
            ChildCensus& child = census[k];
            ++child.count;
            child.extents.extend(point);
            child.maxRadius = std::max(child.maxRadius, double(distributedRadius(point.radius, factor)));
        }
    }
    return census;
}

// Whether a child of the root takes its points straight into its own children: one that is kept as it is
// and is too big for a subtree in memory would otherwise be written whole, read again and split from its
// file. Its children's boxes need its own box, which only the census knows before the points come.
bool splitsWhileDistributed(const ChildCensus& census, Node& child, const SplitSettings& settings)
{
    if (census.count <= settings.subtreePointBudget)
        return false;
    child.extents = census.extents;
    const bool kept = keptFromFilter(child, census.count, settings);
    child.extents.reset();
    return kept;
}

// Gives the child the box and radius that its points would give it, and its children, as splitNonRoot
// leaves it.
void splitWhileDistributed(Node& child, const ChildCensus& census)
{
    child.extents = census.extents;
    child.maxRadius = census.maxRadius;
    child.buffers.clear();
    createChildren(child);
    child.filtered = false;
}

// The node that takes a point: the first child whose box holds it, or for a child split while distributed,
// the first of its children whose box holds the point; null when no box does.
Node* targetOf(Node& root, const RootBoxes& boxes, const IoLightPoint& point)
{
    const size_t k = firstBoxHolding(boxes.children, point);
    if (k == boxes.children.size())
        return nullptr;
    Node& child = root.children[k];
    if (child.isLeaf())
        return &child;
    const size_t j = firstBoxHolding(boxes.grandchildren[k], point);
    return j == boxes.grandchildren[k].size() ? nullptr : &child.children[j];
}

}  // namespace

bool splitRoot(Node& root, const std::vector<ScanFiles>& scans, const std::shared_ptr<Logger>& logger,
               bool noPanoramaStyle, bool keepScanIds, bool keepMultiple, uint64_t subtreePointBudget,
               TreeCounts& counts, const std::function<bool()>& cancel)
{
    std::vector<ScanInput> inputs;
    inputs.reserve(scans.size());
    bool tandStyle = !noPanoramaStyle;
    bool allValid = true;
    uint64_t total = 0;
    root.extents.reset();
    for (const ScanFiles& scan : scans)
    {
        ScanInput input{&scan, numPointsPNT(std::filesystem::file_size(toPath(scan.pntFile)), true),
                        readMetaFile(scan.metaFile)};
        if (!input.meta.extents.isValid())
            throw std::runtime_error("ExtentsI32: Input extents cannot be invalid.");
        root.extents.extend(input.meta.extents);
        tandStyle = tandStyle && input.meta.filledArea > 0.0;
        allValid = allValid && input.meta.validTandSize;
        total += input.numPoints;
        inputs.push_back(input);
    }
    counts.entered += total;
    const SplitSettings settings{tandStyle, keepMultiple, &counts, subtreePointBudget};

    if (total <= kMaxNodePoints)
    {
        fillSingleRoot(root, inputs, tandStyle, allValid, keepMultiple, counts);
        return tandStyle;
    }

    logger->startProgress("splitting root");
    const IntervalWriter repeater(logger);
    createChildren(root);
    std::vector<ScanPointStream::Scan> files;
    for (const ScanInput& scan : inputs)
        files.push_back({scan.files->pntFile, scan.numPoints});
    const auto radiusFactor = [&](const ScanInput& scan)
    { return tandStyle ? tandFactor(scan) : allValid ? 1.0f : 0.0f; };
    RootBoxes boxes;
    boxes.children = root.extents.split8(root.transfo);
    if (total > subtreePointBudget)
    {
        const std::optional<std::array<ChildCensus, 8>> census =
            takeCensus(inputs, files, boxes.children, radiusFactor, cancel);
        if (!census)
            return tandStyle;
        for (size_t k = 0; k < 8; ++k)
            if (splitsWhileDistributed((*census)[k], root.children[k], settings))
            {
                splitWhileDistributed(root.children[k], (*census)[k]);
                boxes.grandchildren[k] = root.children[k].extents.split8(root.transfo);
            }
    }

    ScanPointStream stream(std::move(files), true);
    ScanPointStream::Block block;
    uint64_t done = 0;
    uint64_t outside = 0;
    unsigned int reported = 0;
    while (stream.next(block))
    {
        // Asked before every block, not only every scan: a scan can hold hundreds of millions of points.
        if (cancel && cancel())
            return tandStyle;
        const ScanInput& scan = inputs[block.scan];
        if (!block.points.empty())
        {
            const float factor = radiusFactor(scan);
            const auto scanId = static_cast<uint16_t>(keepScanIds ? block.scan : 0);
            for (IoLightPoint point : block.points)
            {
                point.radius = distributedRadius(point.radius, factor);
                point.scanId = scanId;
                if (Node* target = targetOf(root, boxes, point))
                    target->addPoint(point);
                else
                    ++outside;
            }
            done += block.points.size();
            const auto percent = static_cast<unsigned int>(50 * done / total);
            if (percent > reported)
            {
                reported = percent;
                logger->updateProgress(2 * percent);
            }
        }
        if (block.lastOfScan)
            deleteScanFiles(*scan.files);
    }
    counts.outsideBoxes += outside;
    PnzCoder coder;
    for (Node& child : root.children)
        if (!child.isLeaf())
            finishChildren(child, settings, coder);
    finishChildren(root, settings, coder);
    return tandStyle;
}

}  // namespace pc_preprocess
