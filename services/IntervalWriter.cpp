#include "services/IntervalWriter.h"

#include <algorithm>
#include <functional>
#include <string>

#include "core/WorkerThreads.h"

namespace pc_preprocess
{

namespace
{

// Waits at most the given time; true when the wait ended because the thread is asked to stop.
using WakeWait = std::function<bool(std::chrono::milliseconds)>;

// One wait never asks for more than a day, so that the clock is read again at least that often.
constexpr std::chrono::milliseconds kLongestWait{86'400'000};

// The one loop behind writeAtIntervals and IntervalWriter: each log write moves the deadline, so the bar is
// only repeated after a full interval of silence.
void repeatProgressWhileSilent(Logger& logger, std::chrono::milliseconds interval,
                               const WakeWait& waitForWake)
{
    while (logger.running())
    {
        const auto deadline = logger.lastWriteTime() + interval;
        for (auto now = std::chrono::system_clock::now(); now < deadline;
             now = std::chrono::system_clock::now())
        {
            const auto rest = std::chrono::ceil<std::chrono::milliseconds>(deadline - now);
            if (waitForWake(std::min(rest, kLongestWait)))
                return;
        }
        if (!logger.running())
            return;
        logger.outputProgress();
    }
}

// A progress entry fails when the cache folder's disk cannot be read; that ends the run like any other error of
// a stage, and nothing leaves the thread.
void repeatWithoutThrowing(Logger& logger, const std::function<void()>& body)
{
    runWithoutThrowing(body, [&logger](const std::string& text) { logger.error("Progress writer: " + text); });
}

}  // namespace

void writeAtIntervals(std::shared_ptr<Logger> logger, std::condition_variable& wake)
{
    std::mutex waitMutex;
    const WakeWait waitForWake = [&](std::chrono::milliseconds time)
    {
        std::unique_lock lock(waitMutex);
        return wake.wait_for(lock, time) == std::cv_status::no_timeout;
    };
    repeatWithoutThrowing(*logger,
                       [&] { repeatProgressWhileSilent(*logger, kProgressRepeatInterval, waitForWake); });
}

IntervalWriter::IntervalWriter(std::shared_ptr<Logger> logger, std::chrono::milliseconds interval)
    : m_thread(
          [this, logger = std::move(logger), interval]
          {
              const WakeWait waitForWake = [this](std::chrono::milliseconds time)
              {
                  std::unique_lock lock(m_mutex);
                  return m_wake.wait_for(lock, time, [this] { return m_stop; });
              };
              repeatWithoutThrowing(*logger, [&] { repeatProgressWhileSilent(*logger, interval, waitForWake); });
          })
{
}

IntervalWriter::~IntervalWriter()
{
    {
        std::lock_guard lock(m_mutex);
        m_stop = true;
    }
    m_wake.notify_all();
    m_thread.join();
}

}  // namespace pc_preprocess
