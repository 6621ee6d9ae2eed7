#include "octree/NodeQueue.h"

#include <thread>
#include <vector>

namespace pc_preprocess
{

NodeQueue::NodeQueue(size_t workers, std::function<bool()> cancel)
    : m_workers(workers), m_cancel(std::move(cancel)), m_busy(workers)
{
}

bool NodeQueue::run(const std::function<void(Node&, size_t worker)>& work,
                    const std::function<void(const Node&, const std::exception&)>& failed)
{
    const auto worker = [&](size_t index)
    {
        while (Node* node = next())
        {
            try
            {
                work(*node, index);
            }
            catch (const std::exception& e)
            {
                failed(*node, e);
                fail();
                return;
            }
        }
    };
    std::vector<std::thread> threads;
    threads.reserve(m_workers);
    for (size_t index = 0; index < m_workers; ++index)
        threads.emplace_back(worker, index);
    for (std::thread& thread : threads)
        thread.join();
    const std::lock_guard lock(m_mutex);
    return !m_stopped;
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

void NodeQueue::fail()
{
    {
        const std::lock_guard lock(m_mutex);
        m_stopped = true;
    }
    m_changed.notify_all();
}

}  // namespace pc_preprocess
