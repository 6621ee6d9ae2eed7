#include "services/PreprocessGuard.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <limits>
#include <system_error>

#include "core/StringConversion.h"
#include "core/WorkerThreads.h"
#include "services/DiskSpaceReport.h"
#include "services/Logger.h"
#include "services/Translate.h"

namespace pc_preprocess
{

namespace
{

constexpr uint64_t kGiB = uint64_t(1) << 30;
constexpr uint64_t kMaxLevel = std::numeric_limits<uint64_t>::max();
// A pause of more than a day watches nothing; the bound also keeps the wait's deadline far from overflow.
constexpr uint64_t kMaxIntervalMs = uint64_t(24) * 3600 * 1000;

// Whatever keeps the question from being answered counts as "not there": the guard then stops watching
// rather than act on a file it cannot see.
bool exists(const std::wstring& path)
{
    std::error_code error;
    return std::filesystem::exists(toPath(path), error);
}

uint64_t levelOfGiB(uint64_t gib)
{
    return gib > kMaxLevel / kGiB ? kMaxLevel : gib * kGiB;
}

uint64_t levelOfFraction(uint64_t capacity, double fraction)
{
    const double level = std::round(double(capacity) * fraction);
    return level >= double(kMaxLevel) ? kMaxLevel : uint64_t(level);
}

// The log is the guard's report, not its job: a log that cannot be written must not end the watch, which is
// what keeps the disk from filling up.
void logMessage(Logger* logger, const std::string& text)
{
    if (logger == nullptr)
        return;
    runWithoutThrowing([&] { logger->message(text); }, [](const std::string&) {});
}

}  // namespace

PreprocessGuard::PreprocessGuard(const PreprocessGuardParams& params)
    : m_finishedFile(params.finishedFile),
      m_cancelFile(toWide(toPath(params.cacheFolder) / "cancel")),
      m_params(params)
{
}

PreprocessGuard::~PreprocessGuard() = default;

void PreprocessGuard::memoryWarningCallBack(CallBack callBack)
{
    if (callBack)
        m_memoryWarningCallBack = std::move(callBack);
}

void PreprocessGuard::memoryAlertCallBack(CallBack callBack)
{
    if (callBack)
        m_memoryAlertCallBack = std::move(callBack);
}

diskSpaceInfo PreprocessGuard::getDiskSpaceInfo()
{
    std::error_code error;
    const std::filesystem::space_info space = std::filesystem::space(toPath(m_params.cacheFolder), error);
    if (error)
        return {};
    return {space.capacity, space.available};
}

bool PreprocessGuard::parametersValid() const
{
    const PreprocessGuardParams& p = m_params;
    return exists(p.cacheFolder) && !p.finishedFile.empty() && p.alertGB > 1 && p.alertFraction > 0.0 &&
           p.alertFraction < 1.0 && p.warningGB > 1 && p.warningFraction > 0.0 && p.warningFraction < 1.0 &&
           p.warningFraction > p.alertFraction && p.alertGB < p.warningGB;
}

bool PreprocessGuard::run(std::shared_ptr<Logger> logger)
{
    bool finished = false;
    runWithoutThrowing([&] { finished = watch(logger); },
                       [&](const std::string& text)
                       {
                           m_state = kStopped;
                           logMessage(logger.get(), "Disk watchdog stopped: " + text);
                       });
    return finished;
}

bool PreprocessGuard::watch(const std::shared_ptr<Logger>& logger)
{
    m_state = kInitial;
    if (!parametersValid())
        return false;
    bool warned = false;
    while (m_active)
    {
        if (exists(m_finishedFile))
            return finish();
        if (exists(m_cancelFile))
            return stopPath("Preprocessing will be cancelled...");
        if (!exists(m_params.cacheFolder))
            return stopPath("Cache folder does not exist; preprocessing will be cancelled...");

        const diskSpaceInfo disk = getDiskSpaceInfo();
        if (disk.capacity > 0)
        {
            const uint64_t warningLevel = std::min(levelOfGiB(m_params.warningGB),
                                                   levelOfFraction(disk.capacity, m_params.warningFraction));
            const uint64_t alertLevel = std::min(levelOfGiB(m_params.alertGB),
                                                 levelOfFraction(disk.capacity, m_params.alertFraction));
            if (disk.available < warningLevel)
            {
                const std::wstring report =
                    diskSpaceReport(disk.capacity, disk.available, warningLevel, alertLevel);
                if (disk.available < alertLevel)
                    return alertPath(report, logger.get());
                if (!warned)
                {
                    warned = true;
                    m_state = kWarned;
                    m_memoryWarningCallBack(report);
                }
                logMessage(logger.get(), ws2s(report));
            }
        }
        pause();
    }
    if (exists(m_finishedFile))
        return finish();
    m_state = kStopped;
    return false;
}

void PreprocessGuard::stop()
{
    {
        // Cleared under the lock that the pause waits with, so the wake-up cannot slip in before the wait.
        std::lock_guard lock(m_wakeMutex);
        m_active = false;
    }
    m_wake.notify_all();
}

bool PreprocessGuard::finish()
{
    if (m_state != kWarned)
        m_state = kFinished;
    return true;
}

bool PreprocessGuard::stopPath(const char* english)
{
    m_memoryAlertCallBack(s2ws(translate(english)));
    m_state = kStopped;
    return false;
}

bool PreprocessGuard::alertPath(const std::wstring& report, Logger* logger)
{
    m_state = kCancelledForDisk;
    // Neither the host's callback nor the log may keep the cancel from being made: it is what saves the disk.
    const auto ignore = [](const std::string&) {};
    runWithoutThrowing([&] { m_memoryAlertCallBack(report); }, ignore);
    // A cancel file that is there already means that the run is being cancelled anyway; its failure is then
    // not the guard's to report.
    if (!exists(m_cancelFile))
    {
        if (logger != nullptr)
            runWithoutThrowing([&] { logger->error(ws2s(report)); }, ignore);
        // Should even this empty file not fit on the disk, the error above still stops the run: its workers
        // end when the logger reports an error.
        std::ofstream cancel(toPath(m_cancelFile));
    }
    return false;
}

void PreprocessGuard::pause()
{
    const auto interval = std::chrono::milliseconds(std::min(m_params.intervalMs, kMaxIntervalMs));
    std::unique_lock lock(m_wakeMutex);
    m_wake.wait_for(lock, interval, [this] { return !m_active; });
}

}  // namespace pc_preprocess
