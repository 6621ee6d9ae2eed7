#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

#include "hspc/convert/ProcessHandle.h"

namespace pc_preprocess
{

// Carries a cancel of the library's kind (a predicate, polled) into a running HSPC conversion: for as long as
// the object lives, a thread asks the predicate every `interval` and cancels the conversion through its
// handle the first time it answers true. Without a predicate no thread starts.
class ConversionCancelWatch
{
public:
    static constexpr std::chrono::milliseconds kDefaultInterval{100};

    ConversionCancelWatch(std::function<bool()> cancelled, HSPC::ProcessHandle& handle,
                          std::chrono::milliseconds interval = kDefaultInterval);
    ~ConversionCancelWatch();
    ConversionCancelWatch(const ConversionCancelWatch&) = delete;
    ConversionCancelWatch& operator=(const ConversionCancelWatch&) = delete;

private:
    void watch();

    std::function<bool()> m_cancelled;
    HSPC::ProcessHandle& m_handle;
    const std::chrono::milliseconds m_interval;
    std::mutex m_mutex;
    std::condition_variable m_wake;
    bool m_stop = false;
    std::thread m_thread;  // last, so that the thread starts after the members it uses
};

}  // namespace pc_preprocess
