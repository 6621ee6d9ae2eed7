// Whole runs through the host's entry: what a finished convert-only cache holds, and how failures, cancels,
// full disks and the watchdog end a run with only the log left.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <numbers>
#include <random>
#include <set>
#include <sstream>
#include <thread>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>

#include "cachefiles/BubbleJson.h"
#include "cachefiles/CacheFiles.h"
#include "cachefiles/KeyFile.h"
#include "cachefiles/MetaFile.h"
#include "cachefiles/PntFiles.h"
#include "core/LibAccessor.h"
#include "core/StringConversion.h"
#include "sample/PtxWriter.h"
#include "services/Logger.h"
#include "services/PreprocessGuard.h"
#include "support/ErrorText.h"
#include "support/FileText.h"
#include "support/LasSamples.h"
#include "support/PtsSamples.h"
#include "support/TempFolder.h"
#include "support/ThreadFaults.h"

using namespace pc_preprocess;
using pcp_test::errorText;
namespace fs = std::filesystem;

using pcp_test::entriesOf;
using pcp_test::readText;

namespace
{

constexpr double kStep = 0.001;

// A cache folder of its own inside the test's temporary folder, with the logger a host would own.
struct Cache
{
    // `hspc`: a run that ends in an HSPC data set rather than the octree.
    explicit Cache(const pcp_test::TempFolder& temp, bool hspc = false)
        : folder(temp.path() / "cäche-缓存"),
          wideFolder(toWide(folder)),
          files(wideFolder, L"cache", hspc, false),
          hspc(hspc)
    {
        fs::create_directory(folder);
        logger = std::make_shared<Logger>(files.getLogFile(), hspc, false);
    }

    std::vector<ScanFiles> run(const std::vector<InputFileData>& inputs, unsigned threads = 2,
                               bool convertOnly = true)
    {
        return accessor.runFull(wideFolder, inputs, files, L"my cäche", kStep, threads, false, hspc, false,
                                logger, convertOnly);
    }

    // The error of a run in which the cancel file appears as soon as `ready` holds for the folder.
    std::string runCancelledWhen(const std::function<bool(const fs::path&)>& ready,
                                 const std::vector<InputFileData>& inputs, unsigned threads, bool convertOnly)
    {
        std::atomic<bool> stop = false;
        std::thread canceller(
            [&]
            {
                while (!stop && !ready(folder))
                    std::this_thread::sleep_for(std::chrono::microseconds(200));
                std::ofstream(folder / "cancel").flush();
            });
        const std::string outcome = errorText([&] { run(inputs, threads, convertOnly); });
        stop = true;
        canceller.join();
        return outcome;
    }

    std::string log() const { return readText(toPath(files.getLogFile())); }
    // What the host reads once its logger is gone.
    std::string finalPercentage()
    {
        logger.reset();
        return readText(folder / "cache.pct");
    }

    fs::path folder;
    std::wstring wideFolder;
    CacheFiles files;
    bool hspc;
    std::shared_ptr<Logger> logger;
    LibAccessor accessor;
};

// From now on no file of the process grows beyond `bytes`, as on a disk that fills: a write beyond fails with
// EFBIG, and the signal that would end the process is ignored.
void limitFileSizes(rlim_t bytes)
{
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{bytes, bytes};
    setrlimit(RLIMIT_FSIZE, &limit);
}

// Runs the inputs in a child process, with the full disk that `fill` arranges for the cache; checks that the
// run failed with only the log and the percentage file "FAIL" left, and returns the log.
std::string logOfRunOnFullDisk(const pcp_test::TempFolder& temp, const std::vector<InputFileData>& inputs,
                               unsigned threads, bool convertOnly, const std::function<void(Cache&)>& fill)
{
    const pid_t child = fork();
    if (child == 0)
    {
        int code = 1;
        {
            Cache cache(temp);
            fill(cache);
            const std::string outcome = errorText([&] { cache.run(inputs, threads, convertOnly); });
            code = outcome == "Preprocessing failed: see " + ws2s(cache.files.getLogFile()) ? 0 : 1;
        }
        _exit(code);
    }
    int status = 0;
    EXPECT_NE(child, -1);
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status)) << "the run died of signal " << WTERMSIG(status);
    EXPECT_EQ(WEXITSTATUS(status), 0);
    const fs::path folder = temp.path() / "cäche-缓存";
    EXPECT_EQ(entriesOf(folder), (std::set<std::string>{"cache.log", "cache.pct"}));
    EXPECT_EQ(readText(folder / "cache.pct"), "FAIL");
    return readText(folder / "cache.log");
}

// Many small inputs, so that a run on one thread is still reading when something interrupts it as soon as the
// first scan file appears.
std::vector<InputFileData> manySmallInputs(const pcp_test::TempFolder& temp, const std::wstring& prefix)
{
    std::vector<InputFileData> inputs;
    for (int i = 0; i < 300; ++i)
    {
        const std::wstring input = temp.file(prefix + L"-" + std::to_wstring(i) + L".pts");
        pcp_test::writePtsFile(input, 3000, {}, uint64_t(i) * 3000);
        inputs.emplace_back(input, 1.0);
    }
    return inputs;
}

// True once the run has written its first scan file: it is then reading, with most of its inputs still ahead.
bool readingHasBegun(const fs::path& cacheFolder)
{
    std::error_code error;
    return fs::exists(cacheFolder / "Data", error) && !fs::is_empty(cacheFolder / "Data", error);
}

IoLightPoint expectedPoint(const pcp_test::PtsSample& s, const IoTransfo& transfo)
{
    IoLightPoint p;
    p.x = int32_t(std::lround((s.x - transfo.offset[0]) / kStep));
    p.y = int32_t(std::lround((s.y - transfo.offset[1]) / kStep));
    p.z = int32_t(std::lround((s.z - transfo.offset[2]) / kStep));
    return p;
}

}  // namespace

TEST(Run, ConvertOnlyRunKeepsEveryValidPointOfEveryInput)
{
    pcp_test::TempFolder temp;
    Cache cache(temp);
    pcp_test::PtsFileLayout noColour;
    noColour.colour = false;
    noColour.malformedEvery = 1000;
    pcp_test::PtsFileLayout plain;
    plain.countLine = false;
    pcp_test::PtsFileLayout wide;
    wide.valueFactor = 4;

    // The first input decides the transfo and the colour modes, 16-bit intensity and colour, for every input
    // that declares none: the third, whose values alone would read as 8-bit, keeps them as they are.
    const std::wstring first = temp.file(L"rüum-1.pts");
    const std::wstring second = temp.file(L"房间-2.pts");
    const std::wstring third = temp.file(L"room-3.xyz");  // unknown extension: read as PTS
    const auto samples1 = pcp_test::writePtsFile(first, 70000, wide);
    const auto samples2 = pcp_test::writePtsFile(second, 20000, noColour, 70000);
    const auto samples3 = pcp_test::writePtsFile(third, 5000, plain, 90000);

    const std::vector<ScanFiles> scans =
        cache.run({InputFileData(first, 1.0), InputFileData(second, 1.0), InputFileData(third, 1.0)});
    ASSERT_EQ(scans.size(), 3u);

    // Workers take the largest file first, but each scan keeps its input's name.
    std::map<std::string, const std::vector<pcp_test::PtsSample>*> expected = {
        {"rüum-1-0000-temp.pnt", &samples1},
        {"房间-2-0000-temp.pnt", &samples2},
        {"room-3-0000-temp.pnt", &samples3}};
    IoTransfo cacheTransfo;
    for (const ScanFiles& scan : scans)
    {
        const std::string name = toPath(scan.pntFile).filename().string();
        ASSERT_TRUE(expected.count(name)) << name;
        const auto& samples = *expected[name];
        IoTransfo transfo;
        std::vector<IoLightPoint> points;
        readPNT(scan.pntFile, transfo, points);
        ASSERT_EQ(points.size(), samples.size()) << name;
        cacheTransfo = transfo;
        const MetaData meta = readMetaFile(scan.metaFile);
        for (size_t i = 0; i < points.size(); ++i)
        {
            const IoLightPoint want = expectedPoint(samples[i], transfo);
            ASSERT_EQ(points[i].x, want.x) << name << " point " << i;
            ASSERT_EQ(points[i].y, want.y) << name << " point " << i;
            ASSERT_EQ(points[i].z, want.z) << name << " point " << i;
            ASSERT_EQ(points[i].intensity, samples[i].intensity) << name << " point " << i;
            if (name != "房间-2-0000-temp.pnt")
            {
                ASSERT_EQ(points[i].r, samples[i].r) << name << " point " << i;
                ASSERT_EQ(points[i].b, samples[i].b) << name << " point " << i;
            }
            ASSERT_TRUE(meta.extents.contains(points[i])) << name << " point " << i;
        }
        EXPECT_EQ(meta.viewWidth, MetaData::kNoViewWidth);
    }
    // The cache is centred on the first point of the first input, rounded to whole units.
    EXPECT_EQ(cacheTransfo.scale[0], kStep);
    EXPECT_EQ(cacheTransfo.offset[0], std::round(samples1[0].x));
    EXPECT_EQ(cacheTransfo.offset[2], std::round(samples1[0].z));

    const KeyFileContent key = readKeyFile(cache.files.getKeyFile());
    EXPECT_EQ(key.name, L"my cäche");
    EXPECT_TRUE(key.complete());
    EXPECT_EQ(readBubbleJson(cache.files.getVrpFile()).staticScans.size(), 3u);
    EXPECT_TRUE(fs::is_directory(cache.folder / "Bubbles"));
    // Reading is the second step of the plan, worth 16 after the first 1.
    EXPECT_EQ(readText(cache.folder / "cache.pct"), "17");
    const std::string log = cache.log();
    EXPECT_NE(log.find("Running with 2 threads."), std::string::npos);
    // The second file has no colour and the third 8-bit values: neither matches the mode of the run.
    EXPECT_NE(log.find(ws2s(second) + " \n\thas color/intensity mismatch, RGB measured=4; specified=1 \n\t"
                                      "Intensity measured=2; specified=3"),
              std::string::npos)
        << log;
    EXPECT_NE(log.find(ws2s(third) + " \n\thas color/intensity mismatch, RGB measured=2; specified=1"),
              std::string::npos);
}

TEST(Run, PtxProjectGivesEachScanItsPoseDistancesAndPanorama)
{
    pcp_test::TempFolder temp;
    Cache cache(temp);
    const pcp_sample::ScanGrid grid{300, 600};
    const geom::Point3d scanners[] = {{1.6, 1.3, 1.55}, {4.4, 2.6, 1.45}};
    const double headings[] = {0.0, 35.0};
    std::vector<pcp_sample::StationScan> ptxScans;
    for (int s = 0; s < 2; ++s)
        ptxScans.push_back({pcp_sample::scanRoom(scanners[s], grid), grid, scanners[s], headings[s]});
    const std::wstring input = temp.file(L"two rooms.ptx");
    pcp_sample::writePtxFile(ws2s(input), ptxScans);

    const std::vector<ScanFiles> scans = cache.run({InputFileData(input, 1.0)});
    ASSERT_EQ(scans.size(), 2u);
    EXPECT_TRUE(scans.front().hasScanView);
    const BubbleFile vrp = readBubbleJson(cache.files.getVrpFile());
    ASSERT_EQ(vrp.staticScans.size(), 2u);
    EXPECT_TRUE(vrp.waypoints.empty());

    // The room is closed, but the tripod hides the cap below 150 degrees from the zenith.
    const double visibleSphere =
        4.0 * std::numbers::pi - 2.0 * std::numbers::pi * (1.0 - std::cos(std::numbers::pi / 6));
    for (int s = 0; s < 2; ++s)
    {
        const ScanFiles& scan = scans[s];
        const MetaData meta = readMetaFile(scan.metaFile);
        const double heading = headings[s] * std::numbers::pi / 180.0;
        const std::array<double, 3> position{scanners[s].x, scanners[s].y, scanners[s].z};
        for (int axis = 0; axis < 3; ++axis)
            EXPECT_NEAR(meta.position[axis], position[axis], 1e-9) << s;
        EXPECT_NEAR(meta.matrix[0], std::cos(heading), 1e-8) << s;
        EXPECT_NEAR(meta.matrix[1], std::sin(heading), 1e-8) << s;
        EXPECT_NEAR(meta.matrix[3], -std::sin(heading), 1e-8) << s;
        EXPECT_NEAR(meta.filledArea, visibleSphere, 0.03 * visibleSphere) << s;
        EXPECT_EQ(meta.filledArea, scan.filledAreaUnitSphere);

        // Each point keeps its distance from its own scanner, the farthest being the meta file's.
        IoTransfo transfo;
        std::vector<IoLightPoint> points;
        readPNT(scan.pntFile, transfo, points);
        ASSERT_FALSE(points.empty());
        float farthest = 0.0f;
        for (const IoLightPoint& p : points)
        {
            const double d = std::hypot(p.x * kStep + transfo.offset[0] - position[0],
                                        p.y * kStep + transfo.offset[1] - position[1],
                                        p.z * kStep + transfo.offset[2] - position[2]);
            ASSERT_NEAR(p.radius, d, 1e-3) << s;
            farthest = std::max(farthest, p.radius);
        }
        EXPECT_NEAR(meta.maxDistance, farthest, 1e-3) << s;

        // The VRP places the scan and names both pictures, which have the meta file's width.
        const Bubble& bubble = vrp.staticScans[s];
        EXPECT_EQ(bubble.name, scan.pntFile);
        EXPECT_EQ(bubble.scannerPosition, meta.position);
        EXPECT_EQ(bubble.rotationMatrix, meta.matrix);
        ASSERT_TRUE(bubble.data && bubble.normals) << s;
        EXPECT_EQ(cache.folder / toPath(bubble.data->file), toPath(scan.viewPng));
        EXPECT_EQ(cache.folder / toPath(bubble.normals->file), toPath(scan.normalPng));
        EXPECT_EQ(bubble.data->width, meta.viewWidth);
        EXPECT_EQ(bubble.normals->height, meta.viewWidth / 2);
        EXPECT_EQ(bubble.data->maxDistance, meta.maxDistance);
        for (const std::wstring& picture : {scan.viewPng, scan.normalPng})
        {
            const cv::Mat image = cv::imread(toPath(picture).string(), cv::IMREAD_UNCHANGED);
            ASSERT_FALSE(image.empty()) << ws2s(picture);
            EXPECT_EQ(uint64_t(image.cols), meta.viewWidth);
            EXPECT_EQ(image.rows, image.cols / 2);
            EXPECT_EQ(image.type(), CV_16UC4);
        }
    }
}

TEST(Run, ArgumentErrorsComeBeforeAnyWork)
{
    pcp_test::TempFolder temp;
    const std::wstring input = temp.file(L"a.pts");
    pcp_test::writePtsFile(input, 10);
    auto logger = std::make_shared<Logger>(temp.file(L"run.log"), false, false);

    const std::wstring missing = temp.file(L"nöt-there");
    const CacheFiles missingFiles(missing, L"cache", false, false);
    // The key file comes first, and in a missing folder it cannot be written.
    EXPECT_EQ(errorText(
                  [&]
                  {
                      LibAccessor().runFull(missing, {InputFileData(input, 1.0)}, missingFiles, L"k", kStep,
                                            1, false, false, false, logger, true);
                  }),
              "writeKeyFile : Could not open ofstream to " + ws2s(missingFiles.getKeyFile()));

    Cache cache(temp);
    EXPECT_EQ(errorText([&] { cache.run({}); }), "runFull ERROR: no files are provided.\n");
    EXPECT_FALSE(readKeyFile(cache.files.getKeyFile()).complete());
}

TEST(Run, FailuresLeaveOnlyTheLog)
{
    // The first input is no PTS at all; the second decides the run, then the first fails in reading.
    pcp_test::TempFolder temp;
    Cache cache(temp);
    const std::wstring broken = temp.file(L"binary.pts");
    std::ofstream(toPath(broken), std::ios::binary) << std::string("\x00\x01\x02\xff\xfe", 5);
    const std::wstring good = temp.file(L"good.pts");
    pcp_test::writePtsFile(good, 1000);
    EXPECT_EQ(errorText(
                  [&] {
                      cache.run({InputFileData(broken, 1.0), InputFileData(good, 1.0)});
                  }),
              "Preprocessing failed: see " + ws2s(cache.files.getLogFile()));
    EXPECT_EQ(entriesOf(cache.folder), std::set<std::string>{"cache.log"});
    const std::string log = cache.log();
    EXPECT_NE(log.find("ERROR probe :"), std::string::npos);
    EXPECT_NE(log.find("ERROR reading " + ws2s(broken)), std::string::npos);
    EXPECT_NE(log.find("Disk capacity  = "), std::string::npos);
    EXPECT_EQ(cache.finalPercentage(), "FAIL");
}

TEST(Run, FailuresOutsideAnyStageEndTheSameWay)
{
    // A cancel test that cannot tell whether the cancel file exists (here a link that loops), and a worker that
    // cannot be started: the run fails like any other, with the reason in the log and only the log left.
    pcp_test::TempFolder temp;
    const std::wstring input = temp.file(L"a.pts");
    pcp_test::writePtsFile(input, 1000);
    const std::string undecidable = "ERROR preprocessing :\n\tfilesystem error: exists";
    const std::string unstarted = "ERROR reading :\n\tCould not start worker thread 1 of ";
    for (const std::string& reason : {undecidable, unstarted})
    {
        fs::remove_all(temp.path() / "cäche-缓存");
        Cache cache(temp);
        if (reason == undecidable)
            fs::create_symlink("cancel", cache.folder / "cancel");
        else
            cache.accessor.useThreadStarter(pcp_test::threadStartFailingAt(1));
        EXPECT_EQ(errorText([&] { cache.run({InputFileData(input, 1.0)}); }),
                  "Preprocessing failed: see " + ws2s(cache.files.getLogFile()));
        EXPECT_EQ(entriesOf(cache.folder), std::set<std::string>{"cache.log"});
        EXPECT_NE(cache.log().find(reason), std::string::npos) << cache.log();
        EXPECT_NE(cache.log().find("Disk capacity  = "), std::string::npos);
        EXPECT_EQ(cache.finalPercentage(), "FAIL");
    }
}

TEST(Run, CancelFileEndsTheRunWithOnlyTheLog)
{
    pcp_test::TempFolder temp;
    {
        // A cancel file present from the start ends the run right after the first probe.
        Cache cache(temp);
        const std::wstring input = temp.file(L"a.pts");
        pcp_test::writePtsFile(input, 100);
        std::ofstream(cache.folder / "cancel").flush();
        EXPECT_EQ(errorText([&] { cache.run({InputFileData(input, 1.0)}); }), "Preprocessing cancelled.");
        EXPECT_EQ(entriesOf(cache.folder), std::set<std::string>{"cache.log"});
        EXPECT_EQ(cache.finalPercentage(), "CANCEL");
    }
    fs::remove_all(temp.path() / "cäche-缓存");
    {
        // Cancelled while the workers read: many files, so that the run is still reading when the cancel
        // file appears right after the first scan file.
        Cache cache(temp);
        const std::vector<InputFileData> inputs = manySmallInputs(temp, L"part");
        const std::string outcome = cache.runCancelledWhen(readingHasBegun, inputs, 1, true);
        EXPECT_EQ(outcome, "Preprocessing cancelled by user.");
        EXPECT_EQ(entriesOf(cache.folder), std::set<std::string>{"cache.log"});
        EXPECT_EQ(cache.log().find("ERROR reading"), std::string::npos);
        EXPECT_EQ(cache.finalPercentage(), "CANCEL");
    }
}

TEST(Run, HspcRunEndsInADataSetOrWithOnlyTheLog)
{
    pcp_test::TempFolder temp;
    std::vector<InputFileData> inputs;
    for (int i = 0; i < 6; ++i)
    {
        const std::wstring input = temp.file(L"scan-" + std::to_wstring(i) + L".pts");
        pcp_test::writePtsFile(input, 20000, {}, uint64_t(i) * 20000);
        inputs.emplace_back(input, 1.0);
    }
    {
        // A finished run: the complete key file, the data set under the names of the cache files, the scans'
        // files consumed, and no sorting folder.
        Cache cache(temp, true);
        cache.run(inputs, 2, false);
        EXPECT_TRUE(readKeyFile(cache.files.getKeyFile()).complete());
        EXPECT_TRUE(fs::is_regular_file(cache.folder / "queryTree.hspc"));
        EXPECT_TRUE(fs::is_regular_file(cache.folder / "queryTree.vrp"));
        EXPECT_TRUE(fs::is_empty(cache.folder / "Data"));
        EXPECT_FALSE(fs::exists(cache.folder / "temp"));
        EXPECT_NE(cache.log().find("Finished converting HSPC : Elapsed time = "), std::string::npos);
        // The host completes the step plan once the run has returned.
        while (cache.logger->running())
            cache.logger->increaseStep("Done");
        EXPECT_EQ(cache.finalPercentage(), "100");
    }
    fs::remove_all(temp.path() / "cäche-缓存");
    {
        // Cancelled once the conversion has read a scan: "CANCEL", and only the log is left.
        Cache cache(temp, true);
        const auto converting = [&](const fs::path& folder)
        {
            if (cache.log().find("Started converting to HSPC") == std::string::npos)
                return false;
            size_t scans = 0;
            for (const auto& entry : fs::directory_iterator(folder / "Data"))
                scans += entry.path().extension() == ".pnt";
            return scans < inputs.size();
        };
        EXPECT_EQ(cache.runCancelledWhen(converting, inputs, 2, false), "Preprocessing cancelled by user.")
            << cache.log();
        EXPECT_EQ(entriesOf(cache.folder), std::set<std::string>{"cache.log"});
        EXPECT_EQ(cache.finalPercentage(), "CANCEL");
    }
    fs::remove_all(temp.path() / "cäche-缓存");
    {
        // The converter cannot have its sorting folder: "FAIL", the reason in the log, and only the log.
        Cache cache(temp, true);
        std::ofstream(cache.folder / "temp") << "in the way";
        EXPECT_EQ(errorText([&] { cache.run(inputs, 2, false); }),
                  "Preprocessing failed: see " + ws2s(cache.files.getLogFile()));
        EXPECT_EQ(entriesOf(cache.folder), std::set<std::string>{"cache.log"});
        EXPECT_NE(cache.log().find("ERROR converting HSPC :\n\tHspcExport ERROR: Could not create "),
                  std::string::npos)
            << cache.log();
        EXPECT_EQ(cache.finalPercentage(), "FAIL");
    }
}

TEST(Run, ThreadedConversionTakesLargestFirstAndStopsQuietlyAtCancel)
{
    pcp_test::TempFolder temp;
    Cache cache(temp);
    fs::create_directory(cache.folder / "Data");
    std::vector<InputFileData> inputs;
    for (uint64_t count : {300, 900, 600})
    {
        const std::wstring input = temp.file(L"n" + std::to_wstring(count) + L".pts");
        pcp_test::writePtsFile(input, count);
        inputs.emplace_back(input, 1.0);
    }
    IoTransfo transfo;
    transfo.offset = {100.0, 200.0, 10.0};
    transfo.scale = {kStep, kStep, kStep};
    const ColorMode mode(kRgb8Bit, kIntensity8Bit);

    const auto [scans, attributes] = LibAccessor().convertFilesThreaded(cache.wideFolder, inputs, transfo,
                                                                        mode, 1, false, cache.logger, {});
    ASSERT_EQ(scans.size(), 3u);
    EXPECT_EQ(toPath(scans[0].pntFile).filename().string(), "n900-0000-temp.pnt");
    EXPECT_EQ(toPath(scans[1].pntFile).filename().string(), "n600-0000-temp.pnt");
    EXPECT_EQ(toPath(scans[2].pntFile).filename().string(), "n300-0000-temp.pnt");
    EXPECT_TRUE(attributes.color && attributes.intensity && attributes.radius && attributes.scanId);
    EXPECT_FALSE(attributes.normals || attributes.classification);

    // A cancel that comes while the first file is read stops the workers without an error.
    int calls = 0;
    const auto [cancelledScans, unused] = LibAccessor().convertFilesThreaded(
        cache.wideFolder, inputs, transfo, mode, 1, false, cache.logger, [&] { return ++calls > 2; });
    EXPECT_TRUE(cancelledScans.empty());
    EXPECT_FALSE(cache.logger->errorHasOccurred());

    // A cancel test that throws, in the workers' loop or inside an importer, and a worker that cannot be
    // started: every worker ends, and the failure comes out once all are joined instead of ending the process.
    // Each stage has a logger of its own, as in a run, whose progress only grows.
    const auto freshLogger = [&] { return std::make_shared<Logger>(temp.file(L"stage.log"), false, false); };
    std::atomic<int> asked = 0;
    const auto throwing = freshLogger();
    EXPECT_EQ(errorText(
                  [&]
                  {
                      LibAccessor().convertFilesThreaded(
                          cache.wideFolder, inputs, transfo, mode, 2, false, throwing,
                          pcp_test::cancelThatThrowsWhen([&] { return ++asked > 3; }));
                  }),
              pcp_test::cancelFailureText());
    const auto unstarted = freshLogger();
    LibAccessor accessor;
    accessor.useThreadStarter(pcp_test::threadStartFailingAt(2));
    EXPECT_EQ(errorText(
                  [&]
                  {
                      accessor.convertFilesThreaded(cache.wideFolder, inputs, transfo, mode, 3, false,
                                                    unstarted, {});
                  }),
              "Could not start worker thread 2 of 3: thread start: Resource temporarily unavailable");
    EXPECT_FALSE(unstarted->errorHasOccurred());
}

TEST(Run, FullDiskEndsInFailWithOnlyTheLog)
{
    pcp_test::TempFolder temp;
    const std::wstring input = temp.file(L"big.pts");
    pcp_test::writePtsFile(input, 20000);

    // The run's writes stop at 64 KB, as on a disk that fills.
    const std::string log = logOfRunOnFullDisk(temp, {InputFileData(input, 1.0)}, 1, true,
                                               [](Cache&) { limitFileSizes(64 * 1024); });
    EXPECT_NE(log.find("Convertor::run : Could not (fully) write "), std::string::npos) << log;
    EXPECT_NE(log.find("\nDisk full?"), std::string::npos);
}

namespace
{

// A LAS tile whose points, all but one far away, crowd into the lowest octant of its box: that child of the
// root and its children are split again, in memory, by a tree worker.
std::wstring crowdedLasTile(const pcp_test::TempFolder& temp)
{
    std::mt19937 random(17);
    std::uniform_int_distribution<int32_t> coordinate(0, 2'000'000);
    std::vector<pcp_test::LasRecord> records(720000);
    for (pcp_test::LasRecord& r : records)
        r = {coordinate(random), coordinate(random), coordinate(random), 100, 2, 1000, 2000, 3000};
    records.push_back({8'000'000, 8'000'000, 8'000'000, 100, 2, 1000, 2000, 3000});
    const std::wstring tile = temp.file(L"crowded.las");
    pcp_test::writeBytes(toPath(tile), pcp_test::lasFileBytes({}, records));
    return tile;
}

// True once a node file four digits long is written: only a tree worker's subtree in memory goes so deep.
bool subtreeHasBegun(const fs::path& cacheFolder)
{
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(cacheFolder / "Data", error))
        if (entry.path().extension() == ".pnz" && entry.path().stem().string().size() == 4)
            return true;
    return false;
}

}  // namespace

TEST(Run, CancelAndFullDiskInsideATreeWorkerLeaveOnlyTheLog)
{
    pcp_test::TempFolder temp;
    const std::wstring tile = crowdedLasTile(temp);
    const fs::path folder = temp.path() / "cäche-缓存";
    {
        Cache cache(temp);
        const std::string outcome =
            cache.runCancelledWhen(subtreeHasBegun, {InputFileData(tile, 1.0)}, 2, false);
        // A cancel inside the tree building ends the run as cancelled, not as failed.
        EXPECT_EQ(outcome, "Preprocessing cancelled by user.");
        EXPECT_EQ(entriesOf(cache.folder), std::set<std::string>{"cache.log"});
        const std::string log = cache.log();
        EXPECT_NE(log.find("\nPreprocessing cancelled.\n"), std::string::npos) << log;
        EXPECT_NE(log.find("Started splitting threaded"), std::string::npos);
        EXPECT_EQ(log.find("ERROR tree building"), std::string::npos) << log;
        EXPECT_EQ(log.find("Finished splitting threaded"), std::string::npos);
        EXPECT_EQ(cache.finalPercentage(), "CANCEL");
    }
    fs::remove_all(folder);

    // The disk fills as the tree workers begin: the conversion worker is the first thread the run starts,
    // the first tree worker the second, and from then on no file can grow beyond 16 KB. Only the node files
    // of the subtrees are written then, and the first of them fails.
    const std::string log =
        logOfRunOnFullDisk(temp, {InputFileData(tile, 1.0)}, 2, false,
                           [](Cache& cache)
                           {
                               auto starts = std::make_shared<std::atomic<int>>(0);
                               cache.accessor.useThreadStarter(
                                   [starts](std::function<void()> body)
                                   {
                                       if (++*starts == 2)
                                           limitFileSizes(16 * 1024);
                                       return startThread(std::move(body));
                                   });
                           });
    EXPECT_NE(log.find("ERROR splitting threaded :\n\t"), std::string::npos) << log;
    EXPECT_NE(log.find("SerializedPoints: Could not (fully) write "), std::string::npos) << log;
    EXPECT_NE(log.find("\nDisk full?"), std::string::npos) << log;
}

namespace
{

// Disk figures that fall from plenty to nearly nothing over the polls.
class FillingDisk : public PreprocessGuard
{
public:
    using PreprocessGuard::PreprocessGuard;
    diskSpaceInfo getDiskSpaceInfo() override
    {
        constexpr uint64_t kGiB = uint64_t(1) << 30;
        const uint64_t available[] = {500 * kGiB, 15 * kGiB, 1 * kGiB};
        const int poll = std::min(m_polls++, 2);
        return {1000 * kGiB, available[poll]};
    }

private:
    int m_polls = 0;
};

}  // namespace

TEST(Run, WatchdogWarnsThenCancelsTheRun)
{
    pcp_test::TempFolder temp;
    Cache cache(temp);
    const std::vector<InputFileData> inputs = manySmallInputs(temp, L"w");
    PreprocessGuardParams params;
    params.cacheFolder = cache.wideFolder;
    params.finishedFile = temp.file(L"finished");
    params.warningGB = 20;
    params.warningFraction = 0.1;
    params.alertGB = 2;
    params.alertFraction = 0.01;
    params.intervalMs = 1;
    FillingDisk guard(params);
    std::vector<std::wstring> warnings;
    guard.memoryWarningCallBack([&](const std::wstring& report) { warnings.push_back(report); });

    // The guard waits for the first scan file, so that it strikes while the run reads.
    std::thread watcher(
        [&]
        {
            while (!readingHasBegun(cache.folder) && !fs::exists(toPath(params.finishedFile)))
                std::this_thread::sleep_for(std::chrono::microseconds(200));
            guard.run(cache.logger);
        });
    const std::string outcome = errorText([&] { cache.run(inputs, 1); });
    // As a host does once the run has returned: the guard is stopped and joined before anyone looks at the
    // folder, so that nothing of the guard's is still on its way.
    std::ofstream(toPath(params.finishedFile)).flush();
    guard.stop();
    watcher.join();

    EXPECT_EQ(guard.state(), PreprocessGuard::kCancelledForDisk);
    EXPECT_EQ(warnings.size(), 1u);
    EXPECT_EQ(outcome, "Preprocessing failed: see " + ws2s(cache.files.getLogFile()));
    EXPECT_NE(cache.log().find("ALERT: available disk space lower than"), std::string::npos) << cache.log();
    // The guard raises its error before it writes the cancel file, so that the run ends as failed and not as
    // cancelled; a run that stops at the error may clean its folder before that file lands. The file is then
    // the guard's, left for the host to remove before its next run in this folder; the run itself leaves only
    // its log.
    std::set<std::string> left = entriesOf(cache.folder);
    left.erase("cancel");
    EXPECT_EQ(left, std::set<std::string>{"cache.log"});
    EXPECT_EQ(cache.finalPercentage(), "FAIL");
}
