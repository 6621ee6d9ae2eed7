// The resolved configuration that the conversion threads read: every default filled in, thread counts and
// batch size derived from the machine and the input's size.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "hspc/format/Attribute.h"
#include "hspc/format/AttributeDescription.h"
#include "hspc/format/Config.h"
#include "hspc/format/JsonInfo.h"
#include "hspc/format/Loggers.h"

namespace HSPC
{

inline constexpr uint32_t kNoColorOffset = 0xffffffff;

struct RuntimeConfig
{
    // Bytes of one conversion batch, at most kLargestBatchSize.
    uint64_t batchSize = 0;
    // Points a node takes: nodeSize below the top of the tree, topNodeSize at its top, reached over
    // nodeSizeSteps levels (0: at the top level alone). Both are the caller's nodeSize, so every node aims at
    // the same count unless a run asks for smaller nodes near the root.
    uint32_t nodeSize = 0;
    uint32_t topNodeSize = 0;
    uint32_t nodeSizeSteps = 0;
    // Points a node may hold beyond nodeSize for each of its eight children when the caller's maxNodeSize is
    // below nodeSize; 5000 makes that fallback the default maxNodeSize of 0x49C40 for the default nodeSize.
    uint32_t nodeOverflowPerChild = 5000;
    uint32_t maxNodeSize = 0;
    std::vector<Attribute> inputAttributes;
    // What is stored: the position as a Morton code first, then the other input attributes.
    std::vector<Attribute> encodingAttributes;
    uint32_t attributeId = 0;
    uint32_t encodedRecordSize = 0;
    uint32_t inputRecordSize = 0;
    std::array<double, 3> scale{};
    std::array<double, 3> origin{};
    // false selects the run that writes render voxels only.
    bool convert = true;
    // Percent between two progress reports of the distribution.
    float progressStep = 5.0f;
    uint64_t targetMemory = 0;
    // Lowest lod at which the distribution cuts the tree into units of work.
    uint8_t minimumLod = 7;
    uint64_t memoryOffset = 0;
    // Bytes the importers will deliver, 0 when unknown; set before initializeRuntimeConfig, which bounds the
    // batch size by it.
    uint64_t expectedInputSize = 0;
    // Temporary files are a prefix plus a number plus ".dat": sorted point batches, spilled cell lists and
    // spilled leaf arrays.
    std::string tempPointPrefix;
    std::string tempLeafBufferPrefix;
    std::string tempRasterLeafPrefix;
    bool progressive = false;
    // What the first stage drops, from the encoding record: a point in the same integer cell as the one before
    // it, and, with filterBox, a point outside the closed box [filterMin, filterMax] (real coordinates).
    bool filterDuplicates = true;
    bool filterBox = false;
    std::array<double, 3> filterMin{};
    std::array<double, 3> filterMax{};
    // Sorted batches are compressed before they go to a temporary file, and kept so when that pays off.
    bool compressBatches = false;
    // The client's JSON (meta data and statistics requests) and the statistics it asks for, parsed once
    // when the converter is set up.
    std::function<JsonInfo()> requestJsonConfig;
    std::vector<HistogramSpec> statisticsRequests;
    // Threads of the conversion. The input thread count is the caller's reservedThreads; signed so that an
    // over-large reservation shows up as negative instead of wrapping.
    int32_t reservedThreads = 2;
    uint32_t tempWriterCount = 4;
    // Threads writing finished nodes: 1 when everything goes into one pack archive, which appends to one
    // file.
    uint32_t nodeWriterCount = 4;
    uint32_t workerCount = 10;
    uint32_t secondWorkerCount = 10;
    uint32_t distributionWorkerCount = 10;
    std::string outputPath;
    std::string tempPath;
    std::string treeName;

    // Render voxels: cells of voxelLod with at least voxelMinimumCount points, written under voxelPath as
    // subtrees that overlap the tree above them by voxelOverlapLevels levels. The colour offsets locate R, G
    // and B in an encoded point; kNoColorOffset when the points have no colour.
    bool renderVoxels = false;
    bool progressiveVoxels = false;
    uint8_t voxelLod = 0;
    uint8_t voxelOverlapLevels = 4;
    uint64_t voxelMinimumCount = 2;
    uint32_t voxelRedOffset = kNoColorOffset;
    uint32_t voxelGreenOffset = kNoColorOffset;
    uint32_t voxelBlueOffset = kNoColorOffset;
    std::string voxelPath;

    LogFunction infoLogger;
    LogFunction warningLogger;
    LogFunction errorLogger;
    ProgressFunction progressLogger;

    // How output is opened: an open writer, or a factory by path. With useArchive and no archive factory, the
    // writer is a new pack archive <outputPath>/<treeName>.hspc.pack.
    bool useArchive = false;
    std::shared_ptr<RootWriter> rootWriter;
    RootWriterPathFactory rootWriterFactory;
};

// What the machine offers; filled from the system by currentMachineFigures, or by a test.
struct MachineFigures
{
    uint32_t hardwareThreads = 0;
};

inline constexpr uint64_t kDefaultTargetMemory = 0x280000000;  // 10 GiB
inline constexpr uint64_t kLargestBatchSize = 0x80000000;      // 2 GiB
inline constexpr uint64_t kSmallestLimitedBatchSize = 21474836;
inline constexpr uint32_t kDefaultReservedThreads = 3;

MachineFigures currentMachineFigures();

// Takes over what the encoding record decides before the runtime record is resolved: the expected input
// size, which initializeRuntimeConfig needs, the node sizes, the filters, batch compression and the client's
// JSON. A maxNodeSize below nodeSize is replaced by nodeSize plus eight times nodeOverflowPerChild, except in
// a progressive run.
void applyEncodingConfig(const PointCloudEncodingConfig& encoding, RuntimeConfig& runtime);

// Resolves the caller's records into `runtime` and logs the resulting origin, scale, memory and thread
// figures on the info logger. The records are assumed to have passed the converter's checks. Reads
// runtime.expectedInputSize: when the input is too small to give every worker a batch, batches shrink.
void initializeRuntimeConfig(const BasicConfig& basic, const AdvancedConfig& advanced,
                             RuntimeConfig& runtime);
void initializeRuntimeConfig(const BasicConfig& basic, const AdvancedConfig& advanced, RuntimeConfig& runtime,
                             const MachineFigures& machine);

// Names the three temporary file prefixes below tempPath; `runNumber` (random per conversion) keeps two
// conversions sharing a temp folder apart.
void setTempPrefixes(RuntimeConfig& runtime, unsigned runNumber);

}  // namespace HSPC
