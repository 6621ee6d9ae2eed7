// pcprep run: a whole preprocessing run, driven the way a host drives it. The run goes on a thread of its
// own; beside it the disk watchdog runs on another, and this thread polls the percentage file for the
// progress bar and turns Ctrl-C into the cancel file.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <thread>

#include <unistd.h>

#include "cachefiles/CacheFiles.h"
#include "cachefiles/CacheFolder.h"
#include "cachefiles/KeyFile.h"
#include "cachefiles/PntFormat.h"
#include "core/FileSizeString.h"
#include "core/InputFileData.h"
#include "core/LibAccessor.h"
#include "core/StringConversion.h"
#include "hspc/tree/SerializeTree.h"
#include "pcprep/Command.h"
#include "pcprep/HspcDataSet.h"
#include "pcprep/InterruptWatch.h"
#include "pcprep/LogErrors.h"
#include "pcprep/ProgressDisplay.h"
#include "pcprep/RunOptions.h"
#include "services/Logger.h"
#include "services/PreprocessGuard.h"

namespace pcprep
{

namespace
{

namespace fs = std::filesystem;
using pc_preprocess::toPath;
using pc_preprocess::toWide;
using pc_preprocess::ws2s;

constexpr int kExitCancelled = 130;

std::vector<pc_preprocess::InputFileData> buildInputs(const RunOptions& options)
{
    std::vector<pc_preprocess::InputFileData> inputs;
    for (const std::string& input : options.inputs)
    {
        try
        {
            inputs.emplace_back(toWide(fs::absolute(input)), options.inputScale, options.columns,
                                options.colorMode, options.delimiter, options.skipPrefix);
            inputs.back().maxImagePixels = options.maxImagePixels;
            inputs.back().rieglLibrary = pc_preprocess::s2ws(options.rieglLibrary);
        }
        catch (const std::exception& e)
        {
            throw UsageError(e.what());
        }
    }
    return inputs;
}

// Every line of text behind `indent`.
std::string indented(const std::string& text, const std::string& indent)
{
    std::string out = indent;
    for (const char c : text)
    {
        out += c;
        if (c == '\n')
            out += indent;
    }
    return out;
}

struct RunSummary
{
    size_t scans = 0;
    uint64_t points = 0;
};

// Per-scan files remain only where no tree consumed them.
RunSummary summarise(const std::vector<pc_preprocess::ScanFiles>& scans)
{
    RunSummary summary;
    summary.scans = scans.size();
    for (const pc_preprocess::ScanFiles& scan : scans)
    {
        std::error_code error;
        const uintmax_t size = fs::file_size(toPath(scan.pntFile), error);
        if (!error)
            summary.points += pc_preprocess::numPointsPNT(size, true);
    }
    return summary;
}

// The panoramas a viewer shows, colour view and normal map per scan, then the pictures of camera images,
// which have a colour view only.
void printPictures(const std::vector<pc_preprocess::ScanFiles>& scans)
{
    std::vector<std::wstring> pictures;
    const auto add = [&](const std::wstring& picture)
    {
        if (!picture.empty())
            pictures.push_back(picture);
    };
    for (const pc_preprocess::ScanFiles& scan : scans)
    {
        add(scan.viewPng);
        add(scan.normalPng);
        for (const pc_preprocess::ScanImageFiles& image : scan.images)
        {
            add(image.viewPng);
            add(image.normalPng);
        }
    }
    if (pictures.empty())
        return;
    std::printf("  pictures %zu\n", pictures.size());
    for (const std::wstring& picture : pictures)
        std::printf("           %s\n", ws2s(picture).c_str());
}

// The data set a run with --hspc wrote, as its tree file tells it.
void printDataSet(const pc_preprocess::CacheFiles& files)
{
    const fs::path treeFile = toPath(files.getTreeFile());
    try
    {
        const HspcDataSet dataSet = openHspcDataSet(treeFile);
        const HSPC::Tree tree = loadHspcTree(*dataSet.reader, HSPC::kQueryTreeName);
        std::printf("  data set %s (%s), %llu points in %zu node%s\n", treeFile.string().c_str(),
                    dataSet.form.c_str(), static_cast<unsigned long long>(tree.header.pointCount),
                    tree.nodes.size(), tree.nodes.size() == 1 ? "" : "s");
    }
    catch (const std::exception& e)
    {
        std::printf("  data set %s: %s\n", treeFile.string().c_str(), e.what());
    }
}

void printSummary(const RunOptions& options, const pc_preprocess::CacheFiles& files,
                  const std::wstring& folder, const std::vector<pc_preprocess::ScanFiles>& scans,
                  double seconds)
{
    uint64_t inputBytes = 0;
    for (const std::string& input : options.inputs)
        inputBytes += fs::file_size(input);
    const RunSummary summary = summarise(scans);
    uint64_t cacheBytes = 0;
    pc_preprocess::getFoldersize(folder, cacheBytes);
    const pc_preprocess::KeyFileContent key = pc_preprocess::readKeyFile(files.getKeyFile());

    std::printf("Finished in %.2f s\n", seconds);
    std::printf("  inputs   %zu file%s, %s\n", options.inputs.size(), options.inputs.size() == 1 ? "" : "s",
                pc_preprocess::getFileSizePrettyString(inputBytes).c_str());
    std::printf("  scans    %zu\n", summary.scans);
    if (summary.points > 0)
        std::printf("  points   %llu (%.0f points per second)\n",
                    static_cast<unsigned long long>(summary.points),
                    seconds > 0.0 ? double(summary.points) / seconds : 0.0);
    std::printf("  cache    %s (%s), key file %s\n", ws2s(folder).c_str(),
                pc_preprocess::getFileSizePrettyString(cacheBytes).c_str(),
                key.complete() ? "complete" : "not complete");
    if (options.hspc)
        printDataSet(files);
    std::printf("  log      %s\n", ws2s(files.getLogFile()).c_str());
    printPictures(scans);
}

pc_preprocess::PreprocessGuardParams guardParams(const RunOptions& options, const std::wstring& folder)
{
    pc_preprocess::PreprocessGuardParams params;
    params.cacheFolder = folder;
    // pcprep stops the guard itself when the run returns; the finished file is only named, never written.
    params.finishedFile =
        toWide(fs::temp_directory_path() / ("pcprep-" + std::to_string(getpid()) + ".finished"));
    params.warningGB = options.warnGB;
    params.warningFraction = options.warnFraction;
    params.alertGB = options.alertGB;
    params.alertFraction = options.alertFraction;
    params.intervalMs = options.guardIntervalMs;
    return params;
}

}  // namespace

int runRun(const Arguments& arguments)
{
    const RunOptions options = parseRunOptions(arguments);
    const std::vector<pc_preprocess::InputFileData> inputs = buildInputs(options);
    fs::create_directories(options.cacheFolder);
    const fs::path cachePath = fs::canonical(options.cacheFolder);
    const std::wstring folder = toWide(cachePath);
    // A cancel file left by an earlier run would end this one at once.
    fs::remove(cachePath / "cancel");

    const pc_preprocess::CacheFiles files(folder, pc_preprocess::s2ws(options.name), options.hspc,
                                            options.hspc && options.pack);
    auto logger = std::make_shared<pc_preprocess::Logger>(files.getLogFile(), options.hspc,
                                                          options.hspc && options.normals);
    logger->setCacheFolder(folder);

    ProgressDisplay display(toPath(logger->percentagePath));
    pc_preprocess::PreprocessGuard guard(guardParams(options, folder));
    guard.memoryWarningCallBack([&display](const std::wstring& report)
                                { display.note("pcprep: disk space is running low" + ws2s(report)); });
    guard.memoryAlertCallBack([&display](const std::wstring& report)
                              { display.note("pcprep: the disk watchdog stops the run" + ws2s(report)); });
    std::thread guardThread([&guard, logger] { guard.run(logger); });

    std::printf("Preprocessing %zu input%s into %s\n", inputs.size(), inputs.size() == 1 ? "" : "s",
                ws2s(folder).c_str());
    std::fflush(stdout);
    const auto start = std::chrono::steady_clock::now();
    const InterruptWatch interrupt;
    std::atomic<bool> done = false;
    std::exception_ptr failure;
    std::vector<pc_preprocess::ScanFiles> scans;
    std::thread runThread(
        [&]
        {
            try
            {
                pc_preprocess::LibAccessor accessor;
                accessor.reprojectToLocalFrame(options.localFrame);
                scans = accessor.runFull(folder, inputs, files, pc_preprocess::s2ws(options.name),
                                         options.scale, options.threads, options.noPanoramaStyle,
                                         options.hspc, options.normals, logger, options.convertOnly);
            }
            catch (...)
            {
                failure = std::current_exception();
            }
            done = true;
        });

    bool cancelRequested = false;
    while (!done)
    {
        display.poll();
        if (interrupt.requested() && !cancelRequested)
        {
            cancelRequested = true;
            std::ofstream(cachePath / "cancel").flush();
            display.note("pcprep: cancelling, waiting for the run to stop (Ctrl-C again to abort at once)");
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    runThread.join();
    guard.stop();
    guardThread.join();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

    if (!failure)
    {
        // A host completes the plan once the run returns, so that the percentage file reads "100".
        while (logger->running())
            logger->increaseStep("Done");
        display.poll();
        display.finish();
        printSummary(options, files, folder, scans, seconds);
        return 0;
    }

    // The logger's end writes the final "FAIL" or "CANCEL" of a run that stopped early.
    logger.reset();
    display.poll();
    display.finish();
    std::string message;
    try
    {
        std::rethrow_exception(failure);
    }
    catch (const std::exception& e)
    {
        message = e.what();
    }
    if (guard.state() == pc_preprocess::PreprocessGuard::kCancelledForDisk)
    {
        std::fprintf(stderr, "pcprep run: the disk of %s is nearly full; the run was stopped.\n",
                     ws2s(folder).c_str());
        return 1;
    }
    if (cancelRequested || message.rfind("Preprocessing cancelled", 0) == 0)
    {
        std::fprintf(stderr, "pcprep run: cancelled; %s holds only the log.\n", ws2s(folder).c_str());
        return kExitCancelled;
    }
    std::fprintf(stderr, "pcprep run: %s\n", message.c_str());
    const std::vector<std::string> errors = errorEntries(toPath(files.getLogFile()));
    if (!errors.empty())
        std::fprintf(stderr, "  errors in the log:\n");
    for (const std::string& error : errors)
        std::fprintf(stderr, "%s\n", indented(error, "    ").c_str());
    return 1;
}

}  // namespace pcprep
