#include "exporters/ConversionCancelWatch.h"

#include <utility>

namespace pc_preprocess
{

ConversionCancelWatch::ConversionCancelWatch(std::function<bool()> cancelled, HSPC::ProcessHandle& handle,
                                             std::chrono::milliseconds interval)
    : m_cancelled(std::move(cancelled)), m_handle(handle), m_interval(interval)
{
    if (m_cancelled)
        m_thread = std::thread([this] { watch(); });
}

ConversionCancelWatch::~ConversionCancelWatch()
{
    {
        std::lock_guard lock(m_mutex);
        m_stop = true;
    }
    m_wake.notify_all();
    if (m_thread.joinable())
        m_thread.join();
}

void ConversionCancelWatch::watch()
{
    std::unique_lock lock(m_mutex);
    while (!m_stop)
    {
        lock.unlock();
        // A predicate that cannot answer (its file system test failed) counts as a cancel: the conversion
        // must not run on unobserved.
        bool cancel = true;
        try
        {
            cancel = m_cancelled();
        }
        catch (...)
        {
        }
        if (cancel)
        {
            m_handle.cancel();
            return;
        }
        lock.lock();
        m_wake.wait_for(lock, m_interval, [this] { return m_stop; });
    }
}

}  // namespace pc_preprocess
