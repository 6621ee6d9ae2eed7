// HSPC configuration: the records' defaults and default loggers, client JSON, and how the runtime record is
// resolved from the caller's records on a given machine and for a given input size.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "hspc/format/AttributeRecord.h"
#include "hspc/format/Config.h"
#include "hspc/format/JsonInfo.h"
#include "hspc/format/RuntimeConfig.h"

using namespace HSPC;

namespace
{

constexpr uint64_t kGiB = 1024ull * 1024ull * 1024ull;

MachineFigures machineWithThreads(uint32_t threads)
{
    return MachineFigures{threads};
}

struct ResolvedRun
{
    RuntimeConfig runtime;
    std::vector<std::string> infoLines;
};

ResolvedRun resolve(const BasicConfig& basic, AdvancedConfig advanced, const MachineFigures& machine,
                    uint64_t expectedInputSize = 0)
{
    ResolvedRun run;
    advanced.infoLogger = [&run](const std::string& line) { run.infoLines.push_back(line); };
    run.runtime.expectedInputSize = expectedInputSize;
    initializeRuntimeConfig(basic, advanced, run.runtime, machine);
    return run;
}

BasicConfig xyzIntensityInput()
{
    BasicConfig basic;
    basic.attributes = {{AttributeType::F64, AttributeRole::X, "X"},
                        {AttributeType::F64, AttributeRole::Y, "Y"},
                        {AttributeType::F64, AttributeRole::Z, "Z"},
                        {AttributeType::U16, AttributeRole::INTENSITY, "Intensity"}};
    basic.origin = {100.5, -20.0, 3.25};
    basic.scale = {0.001, 0.001, 0.0005};
    basic.outputPath = "/data/out";
    basic.tempPath = "/data/tmp";
    return basic;
}

}  // namespace

TEST(JsonInfoTest, AddsKeysAndLeavesUnparsableTextAlone)
{
    JsonInfo info = PointCloudEncodingConfig().requestJsonConfig();
    EXPECT_EQ(info.text(), "");
    EXPECT_TRUE(info.add("coordinates-unit", "Meters"));
    EXPECT_TRUE(info.add("projection-epsg", int64_t{25832}));
    EXPECT_TRUE(info.add("density", 0.5));
    EXPECT_TRUE(info.add("filtered", true));
    EXPECT_TRUE(info.add("coordinates-unit", std::string("Feet")));
    const std::string text = info.text();
    EXPECT_NE(text.find("\"coordinates-unit\" : \"Feet\""), std::string::npos) << text;
    EXPECT_EQ(text.find("Meters"), std::string::npos) << text;
    EXPECT_NE(text.find("\"projection-epsg\" : 25832"), std::string::npos) << text;
    EXPECT_NE(text.find("\"density\" : 0.5"), std::string::npos) << text;
    EXPECT_NE(text.find("\"filtered\" : true"), std::string::npos) << text;

    EXPECT_FALSE(info.add("", "x"));
    EXPECT_EQ(info.text(), text);

    JsonInfo broken("{\"a\": ");
    EXPECT_FALSE(broken.add("b", "c"));
    EXPECT_EQ(broken.text(), "{\"a\": ");

    JsonInfo array("[1, 2]");
    EXPECT_FALSE(array.add("b", "c"));
    EXPECT_EQ(array.text(), "[1, 2]");
}

TEST(RuntimeConfigThreads, HardwareMinusReservationWithFloors)
{
    struct Case
    {
        uint32_t hardware, reserved, forced;  // 0: the default
        int32_t reservedNow;
        uint32_t workers, distributionWorkers;
    };
    const Case cases[] = {
        {8, 0, 0, 3, 4, 4},
        {4, 0, 0, 3, 1, 2},
        {2, 3, 0, 3, 1, 2},
        {8, 30, 0, 30, 1, 2},  // reserving more than the machine has still leaves one worker
        {64, 1, 1, 1, 1, 1},   // a forced count holds for every stage
    };
    for (const Case& c : cases)
    {
        AdvancedConfig advanced;
        advanced.reservedThreads = c.reserved;
        advanced.workerCount = c.forced;
        const RuntimeConfig runtime =
            resolve(xyzIntensityInput(), advanced, machineWithThreads(c.hardware)).runtime;
        EXPECT_EQ(runtime.reservedThreads, c.reservedNow) << c.hardware;
        EXPECT_EQ(runtime.workerCount, c.workers) << c.hardware;
        EXPECT_EQ(runtime.secondWorkerCount, c.workers) << c.hardware;
        EXPECT_EQ(runtime.distributionWorkerCount, c.distributionWorkers) << c.hardware;
    }
}

TEST(RuntimeConfigMemory, BatchSizeFromBudgetOffsetAndInputSize)
{
    const BasicConfig basic = xyzIntensityInput();
    const ResolvedRun defaults = resolve(basic, AdvancedConfig(), machineWithThreads(8));
    EXPECT_EQ(defaults.runtime.targetMemory, 10737418240u);
    EXPECT_EQ(defaults.runtime.batchSize, 10737418240u / 4 / 2);

    AdvancedConfig offset;
    offset.targetMemory = 4 * kGiB;
    offset.memoryOffset = 100;
    EXPECT_EQ(resolve(basic, offset, machineWithThreads(8)).runtime.batchSize, kGiB - 100);
    // An offset beyond the per-worker share falls back to half of it.
    offset.memoryOffset = kGiB + 1;
    const ResolvedRun halved = resolve(basic, offset, machineWithThreads(8));
    EXPECT_EQ(halved.runtime.batchSize, kGiB / 2);
    EXPECT_EQ(halved.runtime.memoryOffset, kGiB + 1);

    // An input too small for a batch per worker gets batches that share it out: 1 GiB over 8 workers...
    AdvancedConfig eightWorkers;
    eightWorkers.workerCount = 8;
    eightWorkers.batchSize = kGiB;
    const ResolvedRun small = resolve(basic, eightWorkers, machineWithThreads(8), kGiB);
    EXPECT_EQ(small.runtime.batchSize, 134217728u);
    EXPECT_NE(std::find(small.infoLines.begin(), small.infoLines.end(), "batch size=134217728"),
              small.infoLines.end());
    // ...but never below the smallest useful batch...
    EXPECT_EQ(resolve(basic, eightWorkers, machineWithThreads(8), 40'000'000).runtime.batchSize, 21474836u);
    // ...while a large input, or one of unknown size, leaves the batch as it is.
    EXPECT_EQ(resolve(basic, eightWorkers, machineWithThreads(8), 100 * kGiB).runtime.batchSize, kGiB);
    EXPECT_EQ(resolve(basic, eightWorkers, machineWithThreads(8), 8 * kGiB).runtime.batchSize, kGiB);
    EXPECT_EQ(resolve(basic, eightWorkers, machineWithThreads(8), 0).runtime.batchSize, kGiB);
    // The same holds for a derived batch: 10 GiB / 4 workers / 2 over a 2 GiB input gives 512 MiB each.
    EXPECT_EQ(resolve(basic, AdvancedConfig(), machineWithThreads(8), 2 * kGiB).runtime.batchSize, kGiB / 2);

    AdvancedConfig huge;
    huge.batchSize = 5 * kGiB;
    EXPECT_EQ(resolve(basic, huge, machineWithThreads(8)).runtime.batchSize, 0x80000000u);
    huge.batchSize = 12345;
    huge.targetMemory = 3 * kGiB;
    EXPECT_EQ(resolve(basic, huge, machineWithThreads(8)).runtime.batchSize, 12345u);
}

TEST(RuntimeConfigAttributes, XyzInputIsEncodedBehindOneMortonPosition)
{
    const ResolvedRun run = resolve(xyzIntensityInput(), AdvancedConfig(), machineWithThreads(8));
    const RuntimeConfig& runtime = run.runtime;
    ASSERT_EQ(runtime.inputAttributes.size(), 4u);
    ASSERT_EQ(runtime.encodingAttributes.size(), 2u);
    EXPECT_EQ(runtime.encodingAttributes[0].type, AttributeType::M96);
    EXPECT_EQ(runtime.encodingAttributes[0].role, AttributeRole::POSITION);
    EXPECT_EQ(runtime.encodingAttributes[0].name, "POSITION");
    EXPECT_EQ(runtime.encodingAttributes[1].name, "Intensity");
    EXPECT_EQ(runtime.inputRecordSize, 26u);
    EXPECT_EQ(runtime.encodedRecordSize, 14u);
    EXPECT_EQ(runtime.attributeId, computeAttributeId(runtime.encodingAttributes, 14));
    EXPECT_EQ(runtime.voxelPath, "/data/out/Voxel");

    // Input that is already Morton coded is stored as it comes, whatever position type is configured.
    BasicConfig morton;
    morton.attributes = {{AttributeType::M192, AttributeRole::POSITION, "Position"},
                         {AttributeType::U8, AttributeRole::CLASSIFICATION, "Class"}};
    AdvancedConfig advanced;
    advanced.positionType = AttributeType::M96;
    const ResolvedRun stored = resolve(morton, advanced, machineWithThreads(8));
    EXPECT_EQ(stored.runtime.encodingAttributes.size(), 2u);
    EXPECT_EQ(stored.runtime.encodingAttributes[0].type, AttributeType::M192);
    EXPECT_EQ(stored.runtime.encodingAttributes[0].name, "Position");
    EXPECT_EQ(stored.runtime.encodedRecordSize, 25u);
}

TEST(RuntimeConfigOutput, ArchiveAndCustomWritersAreResolvedOnce)
{
    const BasicConfig basic = xyzIntensityInput();
    int archiveCalls = 0;
    int writerCalls = 0;
    int pathCalls = 0;
    AdvancedConfig advanced;
    advanced.archiveWriterFactory = [&] { return ++archiveCalls, std::shared_ptr<RootWriter>(); };
    advanced.outputWriterFactory = [&] { return ++writerCalls, std::shared_ptr<RootWriter>(); };
    advanced.outputWriterByPath = [&](const std::string&)
    { return ++pathCalls, std::shared_ptr<RootWriter>(); };

    advanced.useArchive = true;
    const ResolvedRun archive = resolve(basic, advanced, machineWithThreads(8));
    EXPECT_EQ(archiveCalls, 1);
    EXPECT_EQ(writerCalls, 0);
    EXPECT_TRUE(archive.runtime.useArchive);
    EXPECT_EQ(archive.runtime.nodeWriterCount, 1u);
    EXPECT_FALSE(archive.runtime.rootWriterFactory);

    // The writer by path is preferred and only copied; it is called when a blob is opened.
    advanced.useArchive = false;
    const ResolvedRun byPath = resolve(basic, advanced, machineWithThreads(8));
    EXPECT_EQ(writerCalls, 0);
    EXPECT_EQ(pathCalls, 0);
    ASSERT_TRUE(byPath.runtime.rootWriterFactory);
    byPath.runtime.rootWriterFactory("/0/0/L0X0Y0Z0.apr");
    EXPECT_EQ(pathCalls, 1);
    EXPECT_EQ(byPath.runtime.nodeWriterCount, 4u);

    advanced.outputWriterByPath = nullptr;
    const ResolvedRun single = resolve(basic, advanced, machineWithThreads(8));
    EXPECT_EQ(writerCalls, 1);
    EXPECT_FALSE(single.runtime.rootWriterFactory);
    EXPECT_EQ(archiveCalls, 1);
}

TEST(RuntimeConfigLogging, ResolvedFiguresGoToTheInfoLogger)
{
    AdvancedConfig advanced;
    advanced.batchSize = 1000;
    const ResolvedRun run = resolve(xyzIntensityInput(), advanced, machineWithThreads(8));
    EXPECT_EQ(run.infoLines,
              (std::vector<std::string>{
                  "origin=(100.500000,-20.000000,3.250000); scale=(0.001000,0.001000,0.000500)",
                  "target memory=10737418240", "batch size=1000", "worker count=4",
                  "distribution worker count=4"}));
    // Without an info logger nothing is printed and nothing breaks.
    advanced.infoLogger = nullptr;
    RuntimeConfig runtime;
    testing::internal::CaptureStdout();
    initializeRuntimeConfig(xyzIntensityInput(), advanced, runtime, machineWithThreads(8));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(runtime.batchSize, 1000u);

    // The machine's own figures give at least one worker.
    RuntimeConfig onThisMachine;
    initializeRuntimeConfig(xyzIntensityInput(), advanced, onThisMachine);
    EXPECT_GE(onThisMachine.workerCount, 1u);
    EXPECT_GE(onThisMachine.batchSize, 1u);
}

TEST(RuntimeConfigEncoding, NodeSizesAndTheMaximumFallback)
{
    // The default records are consistent: their maxNodeSize is what the fallback would give.
    const PointCloudEncodingConfig defaults;
    RuntimeConfig runtime;
    applyEncodingConfig(defaults, runtime);
    EXPECT_EQ(runtime.maxNodeSize, defaults.maxNodeSize);
    EXPECT_EQ(runtime.maxNodeSize, defaults.nodeSize + 8 * runtime.nodeOverflowPerChild);

    PointCloudEncodingConfig encoding;
    encoding.nodeSize = 100000;
    encoding.maxNodeSize = 1000;
    encoding.expectedInputSize = 5 * kGiB;
    RuntimeConfig fallback;
    applyEncodingConfig(encoding, fallback);
    // Every node aims at nodeSize, top and bottom alike.
    EXPECT_EQ(fallback.nodeSize, 100000u);
    EXPECT_EQ(fallback.topNodeSize, 100000u);
    EXPECT_EQ(fallback.nodeSizeSteps, 1u);
    EXPECT_EQ(fallback.maxNodeSize, 140000u);
    EXPECT_EQ(fallback.expectedInputSize, 5 * kGiB);

    // A progressive run keeps the maximum as given, as does a maximum above the target.
    RuntimeConfig progressive;
    progressive.progressive = true;
    applyEncodingConfig(encoding, progressive);
    EXPECT_EQ(progressive.maxNodeSize, 1000u);
    encoding.maxNodeSize = 100001;
    applyEncodingConfig(encoding, fallback);
    EXPECT_EQ(fallback.maxNodeSize, 100001u);
}

TEST(RuntimeConfigEncoding, EveryRunIsAStaticConversionWithItsTempFiles)
{
    // Whatever a record held before, resolving it leaves the render voxel mode off; nothing else switches
    // the static conversion to another mode.
    RuntimeConfig runtime;
    runtime.renderVoxels = true;
    applyEncodingConfig(PointCloudEncodingConfig(), runtime);
    AdvancedConfig advanced;
    advanced.infoLogger = nullptr;
    initializeRuntimeConfig(xyzIntensityInput(), advanced, runtime, machineWithThreads(8));
    EXPECT_TRUE(runtime.convert);
    EXPECT_FALSE(runtime.progressive);
    EXPECT_FALSE(runtime.renderVoxels);
    EXPECT_EQ(runtime.tempWriterCount, 4u);
    EXPECT_EQ(runtime.nodeWriterCount, 4u);

    setTempPrefixes(runtime, 1234);
    EXPECT_EQ(runtime.tempPointPrefix, "/data/tmp/1234temp");
    EXPECT_EQ(runtime.tempLeafBufferPrefix, "/data/tmp/1234orse");
    EXPECT_EQ(runtime.tempRasterLeafPrefix, "/data/tmp/1234erge");
}
