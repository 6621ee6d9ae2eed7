#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

#include "core/Export.h"
#include "services/Logger.h"

namespace pc_preprocess
{

// How long the log may stay silent during a long stage before the progress bar is written again.
inline constexpr std::chrono::milliseconds kProgressRepeatInterval{60'000};

// Repeats the progress bar while a long stage is silent, for as long as the object lives. A stage creates one
// for its duration; the destructor wakes the thread and joins it. Unlike a bare writeAtIntervals thread, an
// end that comes before the thread waits is never lost, so the join cannot outlast the stage.
class PCP_API IntervalWriter
{
public:
    explicit IntervalWriter(std::shared_ptr<Logger> logger,
                            std::chrono::milliseconds interval = kProgressRepeatInterval);
    ~IntervalWriter();
    IntervalWriter(const IntervalWriter&) = delete;
    IntervalWriter& operator=(const IntervalWriter&) = delete;

private:
    std::mutex m_mutex;
    std::condition_variable m_wake;
    bool m_stop = false;
    std::thread m_thread;  // last, so that the thread starts after the members it waits on
};

}  // namespace pc_preprocess
