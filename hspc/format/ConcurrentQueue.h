// The queue between the threads of a conversion stage: producers push work, consumers pop it. Items are
// moved in and out and never copied, so a batch of points changes hands without touching its bytes. One mutex
// and one condition guard it; the mutex is held only to move an item in or out.
//
// A queue is first in, first out, or ordered by a comparing function: with `before`, pop hands out an item
// for which no other queued item comes before it (equal items leave in no defined order).
//
// Consumers stop waiting when an item arrives, when the queue is closed (no more items will come), or when a
// stop predicate of their own holds; whoever makes such a predicate true calls wakeWaiters so that waiting
// consumers look at it again.
#pragma once

#include <algorithm>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <utility>

namespace HSPC
{

template <typename T>
class ConcurrentQueue
{
public:
    using Before = std::function<bool(const T& a, const T& b)>;

    ConcurrentQueue() = default;
    explicit ConcurrentQueue(Before before) : m_before(std::move(before)) {}

    ConcurrentQueue(const ConcurrentQueue&) = delete;
    ConcurrentQueue& operator=(const ConcurrentQueue&) = delete;

    // Items pushed after close are still handed out; close only tells waiting consumers not to wait for more.
    void push(T&& item)
    {
        {
            std::lock_guard lock(m_mutex);
            m_items.push_back(std::move(item));
            if (m_before)
            {
                std::push_heap(m_items.begin(), m_items.end(), heapOrder());
            }
        }
        m_condition.notify_one();
    }

    std::optional<T> tryPop()
    {
        std::lock_guard lock(m_mutex);
        return takeLocked();
    }

    // Waits for an item; nothing once the queue is closed and empty.
    std::optional<T> pop()
    {
        std::unique_lock lock(m_mutex);
        m_condition.wait(lock, [this] { return !m_items.empty() || m_closed; });
        return takeLocked();
    }

    // Waits for an item; nothing once the queue is closed and empty, or once `stop()` holds while it is
    // empty. `stop` runs without the queue's lock held, so it may take locks of its own, and it is asked
    // again after every push, close and wakeWaiters.
    template <typename Stop>
    std::optional<T> pop(Stop&& stop)
    {
        std::unique_lock lock(m_mutex);
        while (true)
        {
            if (!m_items.empty() || m_closed)
            {
                return takeLocked();
            }
            const uint64_t wakeups = m_wakeups;
            lock.unlock();
            const bool stopped = stop();
            lock.lock();
            if (!m_items.empty() || m_closed)
            {
                return takeLocked();
            }
            if (stopped)
            {
                return std::nullopt;
            }
            // A wakeWaiters between asking stop() and now has already been missed by the condition: ask
            // again at once instead of waiting.
            m_condition.wait(lock, [&] { return !m_items.empty() || m_closed || m_wakeups != wakeups; });
        }
    }

    // No more items will come: consumers drain what is queued and then stop waiting.
    void close()
    {
        {
            std::lock_guard lock(m_mutex);
            m_closed = true;
        }
        m_condition.notify_all();
    }

    // Makes waiting consumers ask their stop predicates again.
    void wakeWaiters()
    {
        {
            std::lock_guard lock(m_mutex);
            ++m_wakeups;
        }
        m_condition.notify_all();
    }

    std::size_t size() const
    {
        std::lock_guard lock(m_mutex);
        return m_items.size();
    }

    bool empty() const { return size() == 0; }

    bool closed() const
    {
        std::lock_guard lock(m_mutex);
        return m_closed;
    }

private:
    // The standard heap keeps its largest element first; "largest" here is the item that comes first.
    auto heapOrder() const
    {
        return [this](const T& a, const T& b) { return m_before(b, a); };
    }

    std::optional<T> takeLocked()
    {
        if (m_items.empty())
        {
            return std::nullopt;
        }
        if (m_before)
        {
            std::pop_heap(m_items.begin(), m_items.end(), heapOrder());
            std::optional<T> item(std::move(m_items.back()));
            m_items.pop_back();
            return item;
        }
        std::optional<T> item(std::move(m_items.front()));
        m_items.pop_front();
        return item;
    }

    const Before m_before;
    mutable std::mutex m_mutex;
    std::condition_variable m_condition;
    std::deque<T> m_items;
    bool m_closed = false;
    uint64_t m_wakeups = 0;
};

}  // namespace HSPC
