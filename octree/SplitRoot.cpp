#include "octree/SplitRoot.h"

#include <cmath>
#include <filesystem>
#include <stdexcept>

#include "cachefiles/MetaFile.h"
#include "cachefiles/PntFiles.h"
#include "cachefiles/PntFormat.h"
#include "core/NodePaths.h"
#include "core/StringConversion.h"
#include "octree/NodeFilters.h"
#include "octree/NodeSplit.h"
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

void removeIfThere(const std::wstring& path)
{
    std::error_code ignored;
    std::filesystem::remove(toPath(path), ignored);
}

// A scan's files go as soon as its points are in the tree, so that the disk holds each point about once.
void deleteScanFiles(const ScanFiles& scan)
{
    removeIfThere(scan.pntFile);
    removeIfThere(getClassPathFromPnt(scan.pntFile));
    removeIfThere(getNormalPathFromPnt(scan.pntFile));
    removeIfThere(scan.metaFile);
    for (const ScanImageFiles& image : scan.images)
        removeIfThere(image.metaFile);
}

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

}  // namespace

bool splitRoot(Node& root, const std::vector<ScanFiles>& scans, const std::shared_ptr<Logger>& logger,
               bool noPanoramaStyle, bool keepScanIds, bool keepMultiple, TreeCounts& counts,
               const std::function<bool()>& cancel)
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
    const SplitSettings settings{tandStyle, keepMultiple, &counts};

    if (total <= kMaxNodePoints)
    {
        fillSingleRoot(root, inputs, tandStyle, allValid, keepMultiple, counts);
        return tandStyle;
    }

    logger->startProgress("splitting root");
    const IntervalWriter repeater(logger);
    const std::array<ExtentsI32, 8> boxes = root.extents.split8(root.transfo);
    createChildren(root);
    std::vector<ScanPointStream::Scan> files;
    for (const ScanInput& scan : inputs)
        files.push_back({scan.files->pntFile, scan.numPoints});
    ScanPointStream stream(std::move(files));
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
            const float factor = tandStyle ? tandFactor(scan) : allValid ? 1.0f : 0.0f;
            const auto scanId = static_cast<uint16_t>(keepScanIds ? block.scan : 0);
            for (const IoLightPoint& point : block.points)
                if (!distributePoint(root, boxes, point, factor, scanId))
                    ++outside;
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
    finishChildren(root, settings, coder);
    return tandStyle;
}

}  // namespace pc_preprocess
