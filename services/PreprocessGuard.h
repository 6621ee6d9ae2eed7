#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "core/Export.h"

namespace pc_preprocess
{

class Logger;

struct PreprocessGuardParams
{
    std::wstring cacheFolder;   // the folder whose disk is watched
    std::wstring finishedFile;  // appears when the run is over; must not be empty
    double warningFraction = 0.0;
    uint64_t warningGB = 0;  // GiB
    double alertFraction = 0.0;
    uint64_t alertGB = 0;     // GiB
    uint64_t intervalMs = 0;  // pause between polls
};

// Bytes of a disk: all of it, and what the caller may still use.
struct diskSpaceInfo
{
    uint64_t capacity = 0;
    uint64_t available = 0;
};

// A watchdog on the disk of a run's cache folder, run by the host on a thread of its own beside the run. It
// warns in the log when free space runs low, and before the disk is full it cancels the run the way anyone
// can: by creating the file "cancel" in the cache folder. The levels are the smaller of an amount and a share
// of the capacity, so that neither a small nor a huge disk gets a useless level.
//
// Only run() goes on the watching thread; any other thread may call stop() and read state(). Set the
// callbacks before run() starts.
class PCP_API PreprocessGuard
{
public:
    using CallBack = std::function<void(const std::wstring&)>;

    // What state() tells.
    static constexpr int32_t kFinished = 0;          // the run finished, no warning went out
    static constexpr int32_t kWarned = 1;            // a warning went out; a finished run keeps this state
    static constexpr int32_t kCancelledForDisk = 2;  // the guard cancelled the run: the disk is nearly full
    static constexpr int32_t kStopped = 3;  // the cache folder went, the run is being cancelled, or stop()
    static constexpr int32_t kInitial = 4;  // also while run() checks its parameters

    explicit PreprocessGuard(const PreprocessGuardParams& params);
    virtual ~PreprocessGuard();
    PreprocessGuard(const PreprocessGuard&) = delete;
    PreprocessGuard& operator=(const PreprocessGuard&) = delete;

    // Called with the report on the first poll below the warning level.
    void memoryWarningCallBack(CallBack callBack);
    // Called with the report when the guard cancels the run, or with the reason when it stops watching.
    void memoryAlertCallBack(CallBack callBack);

    // The disk of the cache folder; all zero when the file system cannot tell, and that poll is skipped.
    virtual diskSpaceInfo getDiskSpaceInfo();

    // Watches until the run ends. True when the finished file appeared; false when the guard stopped or
    // cancelled, or at once, without a message, when the parameters are not valid: the cache folder exists,
    // the finished file is named, each fraction lies strictly between 0 and 1, each amount is above 1 GiB,
    // and the warning level lies above the alert level in both. Nothing leaves run(), the body of the
    // host's thread: should the watch itself fail (the disk figures, a callback, the log), the guard stops
    // with the reason in the log, as state kStopped, and returns false.
    bool run(std::shared_ptr<Logger> logger);

    // Ends run() at its next look, waking it from its pause between polls.
    void stop();
    int32_t state() const { return m_state.load(); }

private:
    bool watch(const std::shared_ptr<Logger>& logger);
    bool parametersValid() const;
    bool finish();
    bool stopPath(const char* english);
    bool alertPath(const std::wstring& report, Logger* logger);
    void pause();

    std::atomic<bool> m_active{true};
    std::atomic<int32_t> m_state{kInitial};
    const std::wstring m_finishedFile;
    const std::wstring m_cancelFile;
    const PreprocessGuardParams m_params;
    CallBack m_memoryWarningCallBack = [](const std::wstring&) {};
    CallBack m_memoryAlertCallBack = [](const std::wstring&) {};
    std::mutex m_wakeMutex;
    std::condition_variable m_wake;
};

}  // namespace pc_preprocess
