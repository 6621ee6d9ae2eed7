#include "octree/NodeQueue.h"

#include <atomic>

namespace pc_preprocess
{

NodeQueue::NodeQueue(size_t workers, std::function<bool()> cancel, ThreadStarter start)
    : m_workers(workers), m_cancel(std::move(cancel)), m_start(std::move(start)), m_busy(workers)
{
}

bool NodeQueue::run(const std::function<void(Node&, size_t worker)>& work, const FailureReport& failed)
{
    std::atomic<size_t> nextWorker{0};
    try
    {
        // Workers that never started would count as busy for ever: the stop lets the others end.
        runOnThreads(
            m_workers, [&] { workUntilDone(work, nextWorker++, failed); }, [this] { fail(); }, m_start);
    }
    catch (const std::exception& e)
    {
        fail();
        runWithoutThrowing([&] { failed(nullptr, e.what()); }, [](const std::string&) {});
    }
    const std::lock_guard lock(m_mutex);
    return !m_stopped;
}

void NodeQueue::workUntilDone(const std::function<void(Node&, size_t worker)>& work, size_t worker,
                              const FailureReport& failed)
{
    Node* node = nullptr;
    runWithoutThrowing(
        [&]
        {
            for (;;)
            {
                node = nullptr;
                node = next();
                if (node == nullptr)
                    return;
                work(*node, worker);
            }
        },
        [&](const std::string& text)
        {
            // Stopped first: a worker that ends while others wait for its node's children must not leave
            // them waiting, even when the report cannot be made.
            fail();
            failed(node, text);
        });
}

void NodeQueue::push(Node& node)
{
    {
        const std::lock_guard lock(m_mutex);
        m_queue.push_back(&node);
    }
    m_changed.notify_one();
}

Node* NodeQueue::next()
{
    std::unique_lock lock(m_mutex);
    --m_busy;
    for (;;)
    {
        if (!m_stopped && m_cancel)
        {
            // The cancel test may touch the disk: the others keep taking nodes meanwhile.
            lock.unlock();
            const bool cancelled = m_cancel();
            lock.lock();
            m_stopped = m_stopped || cancelled;
        }
        if (m_stopped)
            break;
        if (!m_queue.empty())
        {
            Node* node = m_queue.front();
            m_queue.pop_front();
            ++m_busy;
            return node;
        }
        if (m_busy == 0)
            break;
        m_changed.wait_for(lock, kIdleWait);
    }
    lock.unlock();
    m_changed.notify_all();
    return nullptr;
}

void NodeQueue::fail() noexcept
{
    {
        const std::lock_guard lock(m_mutex);
        m_stopped = true;
    }
    m_changed.notify_all();
}

}  // namespace pc_preprocess
