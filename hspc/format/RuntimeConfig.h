// The resolved configuration that the conversion threads read: every default filled in, thread counts and
// batch size derived from the machine.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "hspc/format/Attribute.h"
#include "hspc/format/Config.h"
#include "hspc/format/Loggers.h"

namespace HSPC
{

struct RuntimeConfig
{
    // Bytes of one conversion batch, at most kLargestBatchSize.
    uint64_t batchSize = 0;
    std::vector<Attribute> inputAttributes;
    // What is stored: the position as a Morton code first, then the other input attributes.
    std::vector<Attribute> encodingAttributes;
    uint32_t attributeId = 0;
    uint32_t encodedRecordSize = 0;
    uint32_t inputRecordSize = 0;
    std::array<double, 3> scale{};
    std::array<double, 3> origin{};
    uint64_t targetMemory = 0;
    uint64_t memoryOffset = 0;
    // Signed so that an over-large reservation shows up as negative instead of wrapping.
    int32_t reservedThreads = 0;
    uint32_t workerCount = 0;
    uint32_t secondWorkerCount = 0;
    uint32_t distributionWorkerCount = 0;
    // Threads writing output blobs: 1 when everything goes into one pack archive, whose directory is a single
    // shared structure; 0 means one per writer pool.
    uint32_t writerThreadCount = 0;
    std::string outputPath;
    std::string tempPath;
    std::string voxelPath;
    std::string treeName;

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
    // Bytes of physical memory; 0 when unknown, which lifts the memory-based batch limit.
    uint64_t memoryLimit = 0;
};

inline constexpr uint64_t kDefaultTargetMemory = 0x280000000;  // 10 GiB
inline constexpr uint64_t kLargestBatchSize = 0x80000000;      // 2 GiB
inline constexpr uint64_t kSmallestLimitedBatchSize = 21474836;
inline constexpr uint32_t kDefaultReservedThreads = 3;

MachineFigures currentMachineFigures();

// Resolves the caller's records into `runtime` and logs the resulting origin, scale, memory and thread
// figures on the info logger. The records are assumed to have passed the converter's checks.
void initializeRuntimeConfig(const BasicConfig& basic, const AdvancedConfig& advanced,
                             RuntimeConfig& runtime);
void initializeRuntimeConfig(const BasicConfig& basic, const AdvancedConfig& advanced, RuntimeConfig& runtime,
                             const MachineFigures& machine);

}  // namespace HSPC
