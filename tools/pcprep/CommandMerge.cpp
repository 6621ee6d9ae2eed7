// pcprep merge: joins HSPC data sets that lie on one grid into one data set, without sorting their points
// again, the way a survey converted in tiles is put together.
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "hspc/convert/DataSetMerge.h"
#include "hspc/tree/SerializeTree.h"
#include "pcprep/ArgumentParser.h"
#include "pcprep/Command.h"
#include "pcprep/HspcDataSet.h"
#include "pcprep/InterruptWatch.h"
#include "pcprep/ProgressDisplay.h"

namespace pcprep
{

namespace
{

namespace fs = std::filesystem;

constexpr int kExitCancelled = 130;
// Name of the folder inside OUT that holds the merge's temporary files while it runs.
constexpr const char* kTempFolderName = "merge-temp";

// The merge's own thread and how the command waits for it: woken when it ends, or every tenth of a second
// to look for a Ctrl-C.
class MergeThread
{
public:
    explicit MergeThread(HSPC::DataSetMerge& merge)
        : m_thread([this, &merge] {
              const int result = merge.run();
              std::lock_guard lock(m_mutex);
              m_result = result;
              m_done = true;
              m_ended.notify_all();
          })
    {
    }
    ~MergeThread() { m_thread.join(); }

    // True once the merge has ended; waits at most `timeout` for it.
    bool waitFor(std::chrono::milliseconds timeout)
    {
        std::unique_lock lock(m_mutex);
        return m_ended.wait_for(lock, timeout, [this] { return m_done; });
    }
    int result()
    {
        std::lock_guard lock(m_mutex);
        return m_result;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_ended;
    bool m_done = false;
    int m_result = 1;
    std::thread m_thread;
};

void prepareOutput(const fs::path& out)
{
    std::error_code error;
    if (fs::exists(out, error) && !(fs::is_directory(out, error) && fs::is_empty(out, error)))
        throw std::runtime_error(out.string() + " exists and is not an empty folder");
    fs::create_directories(out / kTempFolderName, error);
    if (error)
        throw std::runtime_error("cannot create " + (out / kTempFolderName).string() + ": " + error.message());
}

// Where the merged data set lies: the folder itself, or the one archive in it that --pack asks for.
fs::path mergedDataSet(const fs::path& out, const HSPC::AdvancedConfig& advanced)
{
    return advanced.useArchive ? out / (advanced.treeName + ".hspc.pack") : out;
}

void printSummary(const fs::path& merged, size_t inputs, double seconds)
{
    const HspcDataSet dataSet = openHspcDataSet(merged);
    const HSPC::Tree tree = loadHspcTree(*dataSet.reader, HSPC::kQueryTreeName);
    std::printf("pcprep merge: %zu data sets joined into %s: %llu points in %zu nodes, %.1f s\n", inputs,
                merged.string().c_str(), static_cast<unsigned long long>(tree.header.pointCount), tree.nodes.size(),
                seconds);
}

}  // namespace

int runMerge(const Arguments& arguments)
{
    const ParsedArguments parsed(arguments, {{"--threads", true}, {"--memory-mb", true}, {"--pack", false}});
    const std::vector<std::string>& positional = parsed.positional();
    if (positional.size() < 2)
        throw UsageError("merge needs the output folder and at least one data set");
    const fs::path out = positional.front();
    const std::vector<std::string> inputs(positional.begin() + 1, positional.end());
    prepareOutput(out);

    ProgressDisplay display("");
    HSPC::BasicConfig basic;
    basic.outputPath = out.string();
    basic.tempPath = (out / kTempFolderName).string();
    HSPC::AdvancedConfig advanced;
    advanced.workerCount = parsed.threadCount();
    advanced.targetMemory = parsed.number("--memory-mb", 0) << 20;
    advanced.useArchive = parsed.has("--pack");
    advanced.infoLogger = [](const std::string&) {};
    advanced.warningLogger = [&display](const std::string& text) { display.note("pcprep merge: warning: " + text); };
    advanced.errorLogger = [&display](const std::string& text) { display.note("pcprep merge: " + text); };
    advanced.progressLogger = [&display](int percent, const std::string&) { display.update(std::to_string(percent)); };

    const auto start = std::chrono::steady_clock::now();
    HSPC::DataSetMerge merge(inputs, basic, advanced, HSPC::PointCloudEncodingConfig{});
    InterruptWatch interrupt;
    bool cancelled = false;
    int result = 1;
    {
        MergeThread thread(merge);
        while (!thread.waitFor(std::chrono::milliseconds(100)))
        {
            if (interrupt.requested() && !cancelled)
            {
                cancelled = true;
                merge.processHandle().cancel();
                display.note("pcprep merge: cancelling, waiting for the merge to stop");
            }
        }
        result = thread.result();
    }
    display.finish();
    std::error_code ignored;
    fs::remove_all(out / kTempFolderName, ignored);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (result == 0)
    {
        printSummary(mergedDataSet(out, advanced), inputs.size(), seconds);
        return 0;
    }
    if (cancelled)
    {
        std::fprintf(stderr, "pcprep merge: cancelled\n");
        return kExitCancelled;
    }
    std::fprintf(stderr, "pcprep merge: the data sets were not merged\n");
    return 1;
}

}  // namespace pcprep
