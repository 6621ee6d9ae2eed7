// The HSPC converter: its checks on the caller's records, its set-up, the order and log lines of a static
// conversion, its failure report, and cancelling a conversion through its process handle.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "hspc/convert/BinaryRecordImporter.h"
#include "hspc/convert/ConversionFailure.h"
#include "hspc/convert/Converter.h"
#include "hspc/convert/ConverterProcessManager.h"
#include "hspc/convert/FailureReport.h"
#include "hspc/convert/Importer.h"
#include "hspc/convert/ProcessHandle.h"
#include "hspc/convert/RecordSource.h"
#include "hspc/convert/StaticConversion.h"
#include "hspc/format/Config.h"
#include "hspc/format/RuntimeConfig.h"
#include "hspc/store/FolderStore.h"
#include "hspc/tree/SerializeTree.h"
#include "support/LittleEndianBytes.h"
#include "support/MessageLog.h"
#include "support/TempFolder.h"
#include "support/HspcConversionSetup.h"

using namespace HSPC;

namespace
{

namespace fs = std::filesystem;
using Messages = pcp_test::MessageLog;
using pcp_test::ConversionSetup;
using pcp_test::ProgressReport;
using pcp_test::convertRecords;
using pcp_test::recordImporter;

// Every file and folder below `root` with its size, to show that nothing was created, changed or removed.
std::map<std::string, uintmax_t> snapshot(const fs::path& root)
{
    std::map<std::string, uintmax_t> entries;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(root))
    {
        entries[fs::relative(entry.path(), root).string()] = entry.is_regular_file() ? entry.file_size() : 0;
    }
    return entries;
}

bool contains(const std::vector<std::string>& lines, const std::string& line)
{
    return std::find(lines.begin(), lines.end(), line) != lines.end();
}

// Index of the first line that starts with `prefix`; lines.size() when there is none.
size_t findPrefix(const std::vector<std::string>& lines, const std::string& prefix)
{
    const auto found = std::find_if(lines.begin(), lines.end(),
                                    [&](const std::string& line) { return line.rfind(prefix, 0) == 0; });
    return size_t(found - lines.begin());
}

// An importer that must never be asked for points.
class UntouchedImporter : public Importer
{
public:
    ReadResult readBatch(HSPCBuffer<uint8_t>&, uint64_t) override
    {
        ++reads;
        return ReadResult::kEnd;
    }
    std::array<double, 3> origin() const override { return {}; }
    std::array<double, 3> scale() const override { return {1.0, 1.0, 1.0}; }

    std::atomic<int> reads{0};
};

// A stage manager that only counts how often it was cancelled.
class CountingManager : public ConverterProcessManager
{
public:
    CountingManager() : ConverterProcessManager(0) {}
    void markFailed(ConversionFailure) override {}
    void reportInputFinished() override {}
    void cancel() override { ++cancels; }
    bool isMemoryExceeded() const override { return false; }
    ConversionFailures failures() const override { return {}; }

    std::atomic<int> cancels{0};
};

}  // namespace

TEST(ConverterChecks, EachProblemIsReportedAloneAndTheRunTouchesNothing)
{
    struct Case
    {
        std::function<void(ConversionSetup&)> spoil;
        std::vector<std::string> errors;
    };
    const auto roles = [](ConversionSetup& s, uint8_t a, uint8_t b, uint8_t c) {
        s.basic.attributes[0].role = a;
        s.basic.attributes[1].role = b;
        s.basic.attributes[2].role = c;
    };
    const Case cases[] = {
        {[](ConversionSetup& s) { s.advanced.infoLogger = nullptr; },
         {"Converter::run: info logger needs to point to a valid function."}},
        {[](ConversionSetup& s) { s.advanced.warningLogger = nullptr; },
         {"Converter::run: warning logger needs to point to a valid function."}},
        {[](ConversionSetup& s) { s.advanced.progressLogger = nullptr; },
         {"Converter::run: progress logger needs to point to a valid function."}},
        {[](ConversionSetup& s) { s.basic.attributes.clear(); },
         {"Converter::run: no encoding attributes specified."}},
        {[](ConversionSetup& s) { s.basic.attributes.resize(2); },
         {"Converter::run: encoding attributes needs at least to specify position."}},
        {[&](ConversionSetup& s) { roles(s, AttributeRole::X, AttributeRole::Z, AttributeRole::Y); },
         {"Converter::run: point coordinates should be the first 3 elements of the encoding attributes array."}},
        {[](ConversionSetup& s) { s.basic.attributes[2].type = AttributeType::I64; },
         {"Converter::run: point coordinates should be of equal type."}},
        {[](ConversionSetup& s) { s.basic.attributes.push_back({AttributeType::U8, AttributeRole::INTENSITY, "I2"}); },
         {"Converter::run: encodingAttributes not valid."}},
        {[](ConversionSetup& s) { s.basic.attributes[3].type = AttributeType::UNDEFINED; },
         {"Converter::run: encodingAttributes not valid."}},
        {[](ConversionSetup& s) { s.advanced.positionType = AttributeType::M192; },
         {"Converter::run: mortonEncoding not M96."}},
        {[](ConversionSetup& s) { s.basic.outputPath.clear(); },
         {"Converter::run: outputPath or alternatively output callback not set."}},
        {[](ConversionSetup& s) { s.basic.outputPath = "/nonexistent/hspc-output"; },
         {"Converter::run: output path '/nonexistent/hspc-output' is not a valid directory."}},
        // No file can be made in /proc, not even by root.
        {[](ConversionSetup& s) { s.basic.outputPath = "/proc"; },
         {"Converter::run: no write access to output path."}},
        {[](ConversionSetup& s) { s.basic.tempPath.clear(); }, {"Converter::run: tempPath not set."}},
        {[](ConversionSetup& s) { s.basic.tempPath = s.basic.outputPath + "/missing"; },
         {"Converter::run: temp path is not a valid directory."}},
        {[](ConversionSetup& s) { s.encoding.nodeSize = 0; }, {"Converter::run: nodeSize must be larger than zero."}},
        {[](ConversionSetup& s) { s.encoding.nodeSize = 8388609; },
         {"Converter::run: nodeSize=8388609 is larger than 8388608 which is not allowed."}},
        {[](ConversionSetup& s) { s.encoding.maxNodeSize = 8388609; },
         {"Converter::run: maxNodeSize=8388609 is larger than 8388608 which is not allowed."}},
        {[](ConversionSetup& s) { s.encoding.requestJsonConfig = nullptr; },
         {"Converter::run: requestJsonConfig not set."}},
        {[](ConversionSetup& s) {
             s.encoding.filterEnabled = true;
             s.encoding.filterMin = {0.0, 0.0, 0.0};
             s.encoding.filterMax = {1.0, 0.0, 1.0};
         },
         {"Converter::run: filtering bounding box invalid.", "Converter::run: filtering config is invalid."}},
        // A statistics request the encoded points cannot serve: the position has no scalar value.
        {[](ConversionSetup& s) {
             s.encoding.requestJsonConfig = [] {
                 return JsonInfo(R"({"attribute-description": [{"attribute": {"name": "P", "role": "POSITION",
                                     "type": "M96"}, "histogram": {"min": 0, "max": 1, "distribution": [0]}}]})");
             };
         },
         {"initializeMin: Unknown type.", "Could not initialize statistis."}},
    };
    for (const Case& c : cases)
    {
        ConversionSetup setup;
        c.spoil(setup);
        const std::map<std::string, uintmax_t> before = snapshot(setup.folder.path());
        std::unique_ptr<Converter> converter = setup.converter();
        EXPECT_FALSE(converter->isConfigured());
        const std::string& first = c.errors[0];
        EXPECT_EQ(setup.errors.lines, c.errors);

        EXPECT_FALSE(converter->addImporter(std::make_shared<UntouchedImporter>()));
        EXPECT_EQ(converter->run(), 1);
        EXPECT_EQ(converter->run(), 1);
        EXPECT_TRUE(converter->processHandle().finished());
        EXPECT_EQ(setup.errors.lines, c.errors) << "nothing more is reported";
        EXPECT_TRUE(setup.progress.empty()) << first;
        EXPECT_EQ(snapshot(setup.folder.path()), before) << first;
    }
}

TEST(ConverterChecks, WithoutErrorLoggerTheOnlyMessageGoesToTheErrorStream)
{
    ConversionSetup setup;
    setup.advanced.errorLogger = nullptr;
    setup.basic.attributes.clear();  // would be the next complaint
    testing::internal::CaptureStderr();
    Converter converter(setup.basic, setup.advanced, setup.encoding);
    const std::string stderrText = testing::internal::GetCapturedStderr();
    EXPECT_EQ(stderrText, "HSPC: error: Converter::run: logger needs to point to a valid function.\n");
    EXPECT_FALSE(converter.isConfigured());
    EXPECT_EQ(converter.run(), 1);
    EXPECT_TRUE(setup.infos.lines.empty());
    EXPECT_TRUE(setup.progress.empty());
}

TEST(ConverterChecks, TempFolderThatDoesNotGiveBackWhatWasWritten)
{
    // A probe file bound to a device that swallows writes, and one that cannot be opened as a file; either
    // refuses the folder, also for root.
    const std::function<void(const fs::path&)> probes[] = {
        [](const fs::path& probe) { fs::create_symlink("/dev/null", probe); },
        [](const fs::path& probe) { fs::create_directory(probe); },
    };
    for (const auto& makeProbe : probes)
    {
        ConversionSetup setup;
        makeProbe(setup.folder.path() / "tmp" / "test.data");
        const std::map<std::string, uintmax_t> output = snapshot(setup.folder.path() / "out");
        Converter converter(setup.basic, setup.advanced, setup.encoding);
        EXPECT_EQ(setup.errors.lines,
                  std::vector<std::string>{"Converter::run: no read and write access to temp path."});
        EXPECT_EQ(converter.run(), 1);
        EXPECT_EQ(snapshot(setup.folder.path() / "out"), output);
        // Nothing of the probe's but the name that was there before.
        for (const auto& [name, size] : snapshot(setup.folder.path() / "tmp"))
            EXPECT_EQ(name, "test.data");
    }
}

TEST(ConverterSetUp, ResolvesSizesStatisticsAndTemporaryNames)
{
    ConversionSetup setup;
    setup.encoding.nodeSize = 8388608;
    setup.encoding.maxNodeSize = 100;  // below nodeSize: room for eight children's overflow instead
    setup.encoding.expectedInputSize = 12345;
    setup.encoding.filterEnabled = true;
    setup.encoding.filterMin = {-1.0, -2.0, -3.0};
    setup.encoding.filterMax = {1.0, 2.0, 3.0};
    setup.encoding.requestJsonConfig = [] {
        return JsonInfo(R"({"attribute-description": [{"attribute": {"name": "Intensity", "role": "INTENSITY",
                            "type": "U16"}, "histogram": {"min": 0, "max": 100, "distribution": [0, 0, 0]}}]})");
    };
    // Input that brings the Morton code itself, and two custom attributes told apart by name.
    setup.basic.attributes = {{AttributeType::M96, AttributeRole::POSITION, "POSITION"},
                              {AttributeType::U16, AttributeRole::INTENSITY, "Intensity"},
                              {AttributeType::F32, AttributeRole::CUSTOM, "a"},
                              {AttributeType::F32, AttributeRole::CUSTOM, "b"}};
    Converter converter(setup.basic, setup.advanced, setup.encoding);
    ASSERT_TRUE(converter.isConfigured()) << setup.errors.lines.at(0);
    EXPECT_TRUE(setup.errors.lines.empty());
    EXPECT_TRUE(converter.addImporter(std::make_shared<UntouchedImporter>()));
    EXPECT_FALSE(converter.addImporter(nullptr));

    const RuntimeConfig& runtime = converter.runtimeConfig();
    EXPECT_EQ(runtime.nodeSize, 8388608u);
    EXPECT_EQ(runtime.topNodeSize, 8388608u);
    EXPECT_EQ(runtime.maxNodeSize, 8388608u + 8 * 5000u);
    EXPECT_EQ(runtime.expectedInputSize, 12345u);
    EXPECT_FALSE(runtime.progressive);
    EXPECT_TRUE(runtime.convert);
    EXPECT_EQ(runtime.encodedRecordSize, 12u + 2u + 4u + 4u);
    EXPECT_TRUE(runtime.filterBox);
    EXPECT_EQ(runtime.filterMax, (std::array<double, 3>{1.0, 2.0, 3.0}));
    ASSERT_EQ(runtime.statisticsRequests.size(), 1u);
    EXPECT_EQ(runtime.statisticsRequests[0].role, AttributeRole::INTENSITY);
    EXPECT_EQ(runtime.statisticsRequests[0].bucketCount, 3u);
    EXPECT_TRUE(contains(setup.infos.lines, "worker count=2"));

    // One number names all three kinds of temporary file of this conversion.
    const std::string base = setup.basic.tempPath + "/";
    ASSERT_EQ(runtime.tempPointPrefix.rfind(base, 0), 0u) << runtime.tempPointPrefix;
    const std::string number = runtime.tempPointPrefix.substr(base.size(), runtime.tempPointPrefix.size() -
                                                                                base.size() - 4);
    EXPECT_FALSE(number.empty());
    EXPECT_TRUE(std::all_of(number.begin(), number.end(), [](char c) { return c >= '0' && c <= '9'; })) << number;
    EXPECT_EQ(runtime.tempPointPrefix, base + number + "temp");
    EXPECT_EQ(runtime.tempLeafBufferPrefix, base + number + "orse");
    EXPECT_EQ(runtime.tempRasterLeafPrefix, base + number + "erge");
    // Checking the folders leaves nothing behind.
    EXPECT_TRUE(fs::is_empty(setup.folder.path() / "tmp"));
    EXPECT_TRUE(fs::is_empty(setup.folder.path() / "out"));
}

TEST(FailureReport, ListsFailuresByTimeKeepingTheStagesOrderForEqualTimes)
{
    EXPECT_TRUE(failureReport("Static", {}, 0).empty());
    const ConversionFailures failures = {
        {FailureCode::kTempFile, "late", 107},
        {FailureCode::kCancelled, "first at 103", 103},
        {FailureCode::kBatchProcessing, "second at 103", 103},
        {FailureCode::kInputRead, "early", 101},
    };
    EXPECT_EQ(failureReport("Progressive", failures, 100),
              (std::vector<std::string>{"Progressive conversion failed. Number of failures: 4",
                                        "Failure # 0 : message=early : time=1",
                                        "Failure # 1 : message=first at 103 : time=3",
                                        "Failure # 2 : message=second at 103 : time=3",
                                        "Failure # 3 : message=late : time=7"}));
}

TEST(ProcessHandle, CancelReachesTheCurrentStageWhenEverItComes)
{
    ProcessHandle handle;
    CountingManager early;
    handle.cancel();
    EXPECT_TRUE(handle.cancelRequested());
    {
        // A stage that starts after the cancel is cancelled as it becomes current, before its threads run.
        CurrentStage stage(handle, early);
        EXPECT_EQ(early.cancels.load(), 1);
    }
    handle.cancel();
    EXPECT_EQ(early.cancels.load(), 1) << "a stage that has ended is no longer reached";

    ProcessHandle running;
    CountingManager during;
    {
        CurrentStage stage(running, during);
        EXPECT_EQ(during.cancels.load(), 0);
        std::thread caller([&running] { running.cancel(); });
        caller.join();
        EXPECT_EQ(during.cancels.load(), 1);
    }
    EXPECT_FALSE(running.finished());
    running.markFinished();
    EXPECT_TRUE(running.finished());
}

TEST(StaticConversion, StagesLogInOrderAndNoImporterGivesAnEmptyDataSet)
{
    ConversionSetup setup;
    Converter converter(setup.basic, setup.advanced, setup.encoding);
    ASSERT_TRUE(converter.isConfigured());
    EXPECT_FALSE(converter.processHandle().finished());
    EXPECT_EQ(converter.run(), 0) << (setup.errors.lines.empty() ? "" : setup.errors.lines[0]);
    EXPECT_TRUE(converter.processHandle().finished());

    // No importer, so no raw sort and no points to distribute: only the start and the end are reported.
    EXPECT_EQ(setup.progress, (std::vector<ProgressReport>{{0, "Run started"}, {100, "Done"}}));
    const size_t rawSortLine = findPrefix(setup.infos.lines, "Rawsort:      elapsed: ");
    const size_t distributionLine = findPrefix(setup.infos.lines, "Distribution: elapsed: ");
    ASSERT_LT(rawSortLine, setup.infos.lines.size());
    ASSERT_LT(distributionLine, setup.infos.lines.size());
    EXPECT_LT(rawSortLine, distributionLine);
    EXPECT_NE(setup.infos.lines[rawSortLine].find(" [s]."), std::string::npos);

    EXPECT_TRUE(setup.errors.lines.empty());
    // The tree files of a data set without points.
    for (const char* name : {"tree.hspc", "queryTree.hspc", "hspcInfo.json"})
    {
        EXPECT_TRUE(fs::is_regular_file(setup.folder.path() / "out" / name)) << name;
    }

    // Its importers have been read: a second run would convert nothing.
    setup.errors.lines.clear();
    EXPECT_EQ(converter.run(), 1);
    EXPECT_EQ(setup.errors.lines,
              std::vector<std::string>{"Converter::run: a converter runs once; its importers have been read."});
    EXPECT_TRUE(fs::is_empty(setup.folder.path() / "tmp"));
}

TEST(StaticConversion, InputTreesFailBeforeAnyImporterIsRead)
{
    ConversionSetup setup;
    setup.encoding.inputTreeArray = {"/data/old.hspc"};
    Converter converter(setup.basic, setup.advanced, setup.encoding);
    const auto importer = std::make_shared<UntouchedImporter>();
    ASSERT_TRUE(converter.addImporter(importer));
    EXPECT_EQ(converter.run(), 1);
    EXPECT_EQ(importer->reads.load(), 0);
    ASSERT_EQ(setup.errors.lines.size(), 3u);
    EXPECT_EQ(setup.errors.lines[0], "Static conversion failed. Number of failures: 1");
    EXPECT_EQ(setup.errors.lines[1].rfind(
                  "Failure # 0 : message=Use of inputTreeArray is deprecated, use HSPCImporter instead! : time=", 0),
              0u)
        << setup.errors.lines[1];
    EXPECT_EQ(setup.errors.lines[2], "Conversion failed.");
    // The later stages were skipped, but still say how long they took.
    EXPECT_LT(findPrefix(setup.infos.lines, "Rawsort:      elapsed: "), setup.infos.lines.size());
    EXPECT_LT(findPrefix(setup.infos.lines, "Distribution: elapsed: "), setup.infos.lines.size());
    EXPECT_EQ(setup.progress, (std::vector<ProgressReport>{{0, "Run started"}}));
}

namespace
{

// Passes everything on to another importer, but calls `onPause` on its `pauseAt`-th request for points
// first, so that a test can act while a stage is surely reading.
class PausingImporter : public Importer
{
public:
    PausingImporter(std::shared_ptr<Importer> inner, int pauseAt) : m_inner(std::move(inner)), m_pauseAt(pauseAt) {}

    ReadResult readBatch(HSPCBuffer<uint8_t>& buffer, uint64_t maxBytes) override
    {
        if (++m_requests == m_pauseAt)
            onPause();
        return m_inner->readBatch(buffer, maxBytes);
    }
    bool convertBatch(HSPCBuffer<uint8_t>& input, HSPCBuffer<uint8_t>& output) const override
    {
        return m_inner->convertBatch(input, output);
    }
    std::array<double, 3> origin() const override { return m_inner->origin(); }
    std::array<double, 3> scale() const override { return m_inner->scale(); }

    std::function<void()> onPause;

private:
    std::shared_ptr<Importer> m_inner;
    int m_pauseAt;
    int m_requests = 0;
};

}  // namespace

TEST(StaticConversion, ReadsEveryImporterThroughTheRawSortAndLeavesNoTemporaryFile)
{
    ConversionSetup setup;
    convertRecords(setup);
    Converter converter(setup.basic, setup.advanced, setup.encoding);
    ASSERT_TRUE(converter.isConfigured()) << setup.errors.lines.at(0);
    for (uint64_t first : {0u, 30000u, 60000u})
    {
        std::shared_ptr<Importer> importer = recordImporter(setup, first, 30000, setup.errors.logger());
        ASSERT_NE(importer, nullptr) << setup.errors.lines.at(0);
        ASSERT_TRUE(converter.addImporter(importer));
    }
    EXPECT_EQ(converter.run(), 0);

    EXPECT_TRUE(contains(setup.infos.lines, "Total  point count after raw sort = 90000"));
    ASSERT_GE(setup.progress.size(), 3u);
    EXPECT_EQ(setup.progress[0], (ProgressReport{0, "Run started"}));
    EXPECT_EQ(setup.progress[1].percent, 50);
    EXPECT_EQ(setup.progress[1].message.rfind("Finished raw sort after ", 0), 0u) << setup.progress[1].message;
    // The distribution goes on from 50 to 100, counting the points of finished nodes, and the run ends with
    // its own 100.
    EXPECT_EQ(setup.progress[setup.progress.size() - 2], (ProgressReport{100, "Finished converting point nr. 90000"}));
    EXPECT_EQ(setup.progress.back(), (ProgressReport{100, "Done"}));
    EXPECT_TRUE(std::is_sorted(setup.progress.begin(), setup.progress.end(),
                               [](const ProgressReport& a, const ProgressReport& b) { return a.percent < b.percent; }));
    EXPECT_TRUE(setup.errors.lines.empty()) << setup.errors.lines.at(0);
    EXPECT_TRUE(fs::is_empty(setup.folder.path() / "tmp"));
    EXPECT_TRUE(fs::is_regular_file(setup.folder.path() / "out" / "queryTree.hspc"));
}

TEST(StaticConversion, CancelFromAnotherThreadOrBeforeTheRunStopsTheRawSort)
{
    const std::string cancelled = "Recording main thread: process got cancelled!";
    {
        ConversionSetup setup;
        convertRecords(setup);
        Converter converter(setup.basic, setup.advanced, setup.encoding);
        // Far more points than the run will read: the cancel comes while the importer is in the middle.
        const auto importer =
            std::make_shared<PausingImporter>(recordImporter(setup, 0, 400000, setup.errors.logger()), 3);
        ASSERT_TRUE(converter.addImporter(importer));
        // The importer holds its reader until the cancel has been made; the run's end also wakes the test, so
        // that a stage that never reads fails the test instead of hanging it.
        std::mutex mutex;
        std::condition_variable changed;
        bool reading = false;
        bool cancelMade = false;
        bool returned = false;
        importer->onPause = [&] {
            std::unique_lock lock(mutex);
            reading = true;
            changed.notify_all();
            changed.wait(lock, [&] { return cancelMade; });
        };
        int result = 0;
        std::thread conversion([&] {
            result = converter.run();
            std::lock_guard lock(mutex);
            returned = true;
            changed.notify_all();
        });
        {
            std::unique_lock lock(mutex);
            changed.wait(lock, [&] { return reading || returned; });
        }
        converter.processHandle().cancel();
        {
            std::lock_guard lock(mutex);
            cancelMade = true;
            changed.notify_all();
        }
        conversion.join();
        ASSERT_TRUE(reading) << "the raw sort never asked for points: " << setup.errors.lines.at(1);

        EXPECT_EQ(result, 1);
        EXPECT_TRUE(converter.processHandle().finished());
        ASSERT_GE(setup.errors.lines.size(), 3u);
        EXPECT_NE(findPrefix(setup.errors.lines, "Failure # 0 : message=" + cancelled + " : time="),
                  setup.errors.lines.size())
            << setup.errors.lines[1];
        EXPECT_EQ(setup.errors.lines.back(), "Conversion failed.");
        EXPECT_FALSE(contains(setup.infos.lines, "Total  point count after raw sort = 400000"));
        EXPECT_TRUE(fs::is_empty(setup.folder.path() / "tmp"));
    }
    {
        ConversionSetup setup;
        convertRecords(setup);
        Converter converter(setup.basic, setup.advanced, setup.encoding);
        ASSERT_TRUE(converter.addImporter(recordImporter(setup, 0, 30000, setup.errors.logger())));
        converter.processHandle().cancel();
        EXPECT_EQ(converter.run(), 1);
        ASSERT_GE(setup.errors.lines.size(), 2u);
        EXPECT_EQ(setup.errors.lines[1].rfind("Failure # 0 : message=" + cancelled + " : time=", 0), 0u)
            << setup.errors.lines[1];
        EXPECT_TRUE(fs::is_empty(setup.folder.path() / "tmp"));
    }
}

TEST(StaticConversion, TakesTheMortonWordFromThePositionType)
{
    // The converter's checks admit only 32-bit codes; the stages themselves also run on 64-bit codes.
    ConversionSetup setup;
    setup.advanced.positionType = AttributeType::M192;
    RuntimeConfig runtime;
    initializeRuntimeConfig(setup.basic, setup.advanced, runtime);
    ASSERT_EQ(runtime.encodingAttributes[0].type, AttributeType::M192);
    ProcessHandle handle;
    // Without importers the 64-bit stages write the tree files of an empty data set with its position type.
    EXPECT_TRUE(staticConversion(runtime, {}, {}, handle).empty());
    std::vector<uint8_t> bytes;
    ASSERT_TRUE(FolderReader(setup.basic.outputPath).read(kQueryTreeName, bytes));
    Tree tree;
    ASSERT_TRUE(loadTree(bytes, tree, setup.errors.logger()));
    ASSERT_FALSE(tree.attributes.attributes.empty());
    EXPECT_EQ(tree.attributes.attributes[0].type, AttributeType::M192);

    runtime.encodingAttributes[0].type = AttributeType::F64;
    const ConversionFailures unknown = staticConversion(runtime, {}, {}, handle);
    ASSERT_EQ(unknown.size(), 1u);
    EXPECT_EQ(unknown[0].code, FailureCode::kNone);
    EXPECT_EQ(unknown[0].message, "staticConversion: could not determine type of Morton index.");
}
