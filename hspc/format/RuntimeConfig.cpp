#include "hspc/format/RuntimeConfig.h"

#include <algorithm>
#include <cstdio>
#include <string>
#include <thread>

#include "hspc/format/AttributeRecord.h"
#include "hspc/store/DiskArchive.h"

namespace HSPC
{
namespace
{

void resolveOutput(const BasicConfig& basic, const AdvancedConfig& advanced, RuntimeConfig& runtime)
{
    runtime.useArchive = advanced.useArchive;
    if (advanced.useArchive)
    {
        runtime.rootWriter = advanced.archiveWriterFactory
                                 ? advanced.archiveWriterFactory()
                                 : makeDefaultArchiveWriter(basic.outputPath, advanced.treeName, advanced.errorLogger);
        runtime.nodeWriterCount = 1;
    }
    else if (advanced.outputWriterByPath)
    {
        runtime.rootWriterFactory = advanced.outputWriterByPath;
    }
    else if (advanced.outputWriterFactory)
    {
        runtime.rootWriter = advanced.outputWriterFactory();
    }
}

// Input that already brings Morton codes is stored as it comes; X, Y, Z input gets its three coordinates
// replaced by one position of the configured type.
std::vector<Attribute> encodingAttributesFor(const std::vector<Attribute>& input, uint8_t positionType)
{
    if (!input.empty() && isMortonType(input.front().type))
    {
        return input;
    }
    std::vector<Attribute> encoding{{positionType, AttributeRole::POSITION, "POSITION"}};
    if (input.size() > 3)
    {
        encoding.insert(encoding.end(), input.begin() + 3, input.end());
    }
    return encoding;
}

void resolveThreads(const AdvancedConfig& advanced, const MachineFigures& machine, RuntimeConfig& runtime)
{
    const uint32_t reserved =
        advanced.reservedThreads != 0 ? advanced.reservedThreads : kDefaultReservedThreads;
    runtime.reservedThreads = static_cast<int32_t>(reserved);
    // Unsigned on purpose: a reservation beyond the machine wraps to a huge value that reads as negative.
    uint32_t available = machine.hardwareThreads - reserved - 1;
    if (static_cast<int32_t>(available) < 1)
    {
        available = 1;
    }
    const uint32_t forced = advanced.workerCount;
    runtime.workerCount = forced != 0 ? forced : available;
    runtime.secondWorkerCount = forced != 0 ? forced : available;
    // Distribution overlaps reading with merging, which needs two threads even on a small machine.
    runtime.distributionWorkerCount = forced != 0 ? forced : std::max<uint32_t>(available, 2);
}

void resolveMemory(const AdvancedConfig& advanced, RuntimeConfig& runtime)
{
    runtime.targetMemory = advanced.targetMemory != 0 ? advanced.targetMemory : kDefaultTargetMemory;
    runtime.memoryOffset = advanced.memoryOffset;
    uint64_t batchSize = advanced.batchSize;
    if (batchSize == 0)
    {
        const uint64_t share = runtime.targetMemory / runtime.workerCount;
        batchSize = advanced.memoryOffset != 0 && share > advanced.memoryOffset
                        ? share - advanced.memoryOffset
                        : share / 2;
    }
    // An input smaller than a batch per worker would leave workers idle: batches shrink so that each gets
    // one, but not so far that per-batch overhead dominates.
    const uint64_t limit = runtime.expectedInputSize;
    if (limit != 0 && (batchSize == 0 || limit / batchSize < runtime.workerCount))
    {
        batchSize = std::max<uint64_t>(limit / runtime.workerCount, kSmallestLimitedBatchSize);
    }
    runtime.batchSize = std::min(batchSize, kLargestBatchSize);
}

std::string formatFixed(double value)
{
    // "%f" of a large double runs to hundreds of digits, so the text is sized by a first pass.
    const int length = std::snprintf(nullptr, 0, "%f", value);
    std::string text(static_cast<size_t>(std::max(length, 0)), '\0');
    std::snprintf(text.data(), text.size() + 1, "%f", value);
    return text;
}

std::string formatTriple(const std::array<double, 3>& values)
{
    return formatFixed(values[0]) + "," + formatFixed(values[1]) + "," + formatFixed(values[2]);
}

void logResolvedFigures(const RuntimeConfig& runtime)
{
    if (!runtime.infoLogger)
    {
        return;
    }
    runtime.infoLogger("origin=(" + formatTriple(runtime.origin) + "); scale=(" +
                       formatTriple(runtime.scale) + ")");
    runtime.infoLogger("target memory=" + std::to_string(runtime.targetMemory));
    runtime.infoLogger("batch size=" + std::to_string(runtime.batchSize));
    runtime.infoLogger("worker count=" + std::to_string(runtime.workerCount));
    runtime.infoLogger("distribution worker count=" + std::to_string(runtime.distributionWorkerCount));
}

}  // namespace

MachineFigures currentMachineFigures()
{
    return MachineFigures{std::thread::hardware_concurrency()};
}

void applyEncodingConfig(const PointCloudEncodingConfig& encoding, RuntimeConfig& runtime)
{
    runtime.expectedInputSize = encoding.expectedInputSize;
    runtime.nodeSize = encoding.nodeSize;
    runtime.topNodeSize = encoding.nodeSize;
    runtime.nodeSizeSteps = 1;
    runtime.maxNodeSize = encoding.maxNodeSize;
    // A static run needs room above the target for the points a node keeps of its children; a progressive
    // run writes nodes out when they reach the maximum, so it takes the maximum as given.
    if (encoding.maxNodeSize < encoding.nodeSize && !runtime.progressive)
    {
        runtime.maxNodeSize = encoding.nodeSize + 8 * runtime.nodeOverflowPerChild;
    }
    runtime.filterDuplicates = encoding.filterDuplicates;
    runtime.filterBox = encoding.filterEnabled;
    runtime.filterMin = encoding.filterMin;
    runtime.filterMax = encoding.filterMax;
    runtime.compressBatches = encoding.compressBatches;
    runtime.requestJsonConfig = encoding.requestJsonConfig;
}

void initializeRuntimeConfig(const BasicConfig& basic, const AdvancedConfig& advanced, RuntimeConfig& runtime)
{
    initializeRuntimeConfig(basic, advanced, runtime, currentMachineFigures());
}

void initializeRuntimeConfig(const BasicConfig& basic, const AdvancedConfig& advanced, RuntimeConfig& runtime,
                             const MachineFigures& machine)
{
    resolveOutput(basic, advanced, runtime);

    runtime.inputAttributes = basic.attributes;
    runtime.encodingAttributes = encodingAttributesFor(basic.attributes, advanced.positionType);
    runtime.inputRecordSize = recordSize(runtime.inputAttributes);
    runtime.encodedRecordSize = recordSize(runtime.encodingAttributes);
    runtime.attributeId = computeAttributeId(runtime.encodingAttributes, runtime.encodedRecordSize);
    runtime.scale = basic.scale;
    runtime.origin = basic.origin;

    runtime.infoLogger = advanced.infoLogger;
    runtime.warningLogger = advanced.warningLogger;
    runtime.errorLogger = advanced.errorLogger;
    runtime.progressLogger = advanced.progressLogger;

    resolveThreads(advanced, machine, runtime);
    resolveMemory(advanced, runtime);

    runtime.outputPath = basic.outputPath;
    runtime.tempPath = basic.tempPath;
    runtime.voxelPath = basic.outputPath + "/Voxel";
    runtime.treeName = advanced.treeName;
    // Render voxels are a mode of their own that no caller's record switches on.
    runtime.renderVoxels = false;

    logResolvedFigures(runtime);
}

void setTempPrefixes(RuntimeConfig& runtime, unsigned runNumber)
{
    const std::string base = runtime.tempPath + "/" + std::to_string(runNumber);
    runtime.tempPointPrefix = base + "temp";
    runtime.tempLeafBufferPrefix = base + "orse";
    runtime.tempRasterLeafPrefix = base + "erge";
}

}  // namespace HSPC
