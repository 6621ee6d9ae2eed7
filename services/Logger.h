#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "core/Export.h"

namespace pc_preprocess
{

// The one channel through which a run reports to the outside: a text log for a person and a one-token
// percentage file (the log's path with the extension ".pct") that the host polls for its progress bar and the
// run's final state, "0" to "100", "CANCEL" or "FAIL".
//
// Both files are opened, written and closed for every single write, so the host may read or delete them at
// any time and a full disk shows at the very write that hits it. One mutex guards all state and both files;
// every thread of a run writes through the same object.
//
// A run moves through a step plan: each step is worth a share of the total, and reaching the plan's last step
// ends "running". The two flags choose the plan:
//   false, either: 1, 16, 14, 28, 25, 16, 0
//   true,  false:  1, 38, 45, 16, 0
//   true,  true:   1, 10, 59, 30, 0, 0
class PCP_API Logger
{
public:
    // Throws when the folder of logPath does not exist; no file is touched then. Otherwise the percentage
    // file says "0" and the log starts over with a "Start" banner.
    Logger(const std::wstring& logPath, bool shortPlan, bool shortPlanWithTail);
    // A logger that goes away before the total reached 100 counts as cancelled, so that an early end never
    // leaves a bare number in the percentage file.
    ~Logger();
    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;

    // Three lines: asterisks, "*   <title> : <local time>   *", asterisks.
    static std::string header(const std::string& title);

    // The folder whose disk figures appear in every log line. Not locked: call it before other threads use
    // the logger. Throws the file system error of "space" when the folder's disk cannot be read.
    void setCacheFolder(const std::wstring& folder);

    // One log line "<time> - <disk> - <step> - <text>", or the bare text on the plan's last step. Dropped
    // once an error was raised.
    void message(const std::string& text);
    // Raises the error flag ("FAIL" in the percentage file) and holds the text until outputErrors.
    void error(const std::string& text);
    void cancel();
    bool errorHasOccurred();
    // Writes the held errors and extra to the log, even after a failure. False, with the errors still held,
    // when that write fails too.
    bool outputErrors(const std::string& extra);

    // Moves to the next step of the plan. Throws when no step is left or the total would fall.
    void increaseStep(const std::string& name);
    // Starts a job of the current step at 0 % and writes its progress bar.
    void startProgress(const std::string& job);
    // Sets the job's percent and the total from it; writes the percentage file only when the total changes.
    // Throws when percent is above 100 or below the job's current percent, or when the total would fall.
    void updateProgress(unsigned int percent);
    // Writes the current job's progress bar now.
    void outputProgress();
    std::chrono::system_clock::time_point lastWriteTime();
    // Neither failed nor cancelled, and not yet on the last step of the plan.
    bool running();

    // Fixed at construction, so any thread may read them without the lock.
    const std::wstring logPath;
    const std::wstring percentagePath;

private:
    // These assume that the mutex is held.
    void writeString(const std::string& text, bool truncate, bool force);
    void writePercentage();
    void writeProgress();
    std::string diskSpaceInfo();

    void recordWriteFailure(std::ofstream& stream, const std::wstring& path);
    bool onLastStep() const;
    uint32_t totalBeforeStep() const;
    std::string linePrefix();

    std::wstring cacheFolder;
    const std::vector<uint32_t> stepPercentages;
    std::ofstream logStream;
    std::ofstream percentageStream;
    std::mutex mutex;
    bool failed = false;
    bool cancelled = false;
    std::string pendingErrors;
    std::string jobName;
    uint32_t jobPercentage = 0;
    uint32_t totalPercentage = 0;
    uint64_t stepIndex = 0;
    std::string stepName = "INIT";
    std::chrono::system_clock::time_point lastWrite;
};

// Thread body for a long stage: while the logger is running and the log has been silent for 60 seconds,
// writes the progress bar again. Returns as soon as a wait on wake ends by a notification, without a final
// write. A notification sent before the thread waits is lost; IntervalWriter has no such gap.
PCP_API void writeAtIntervals(std::shared_ptr<Logger> logger, std::condition_variable& wake);

}  // namespace pc_preprocess
