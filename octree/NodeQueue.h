#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <exception>
#include <functional>
#include <mutex>

#include "octree/Node.h"

namespace pc_preprocess
{

// The nodes that the workers of a split or a merge take one by one. Working on a node may queue more nodes,
// so the work is over only when the queue is empty and no worker is busy. An idle worker looks at the queue
// again when a node comes in, and every 750 ms in any case, so that a cancel reaches it.
class NodeQueue
{
public:
    static constexpr std::chrono::milliseconds kIdleWait{750};

    // A queue for `workers` threads; `cancel`, when set, is asked before each node is taken.
    NodeQueue(size_t workers, std::function<bool()> cancel);

    void push(Node& node);

    // Runs `work` on the queued nodes, and on those it queues, on the queue's worker threads until the work
    // is over; work learns the index of its worker, from 0 to workers - 1, so that each worker can keep
    // buffers of its own. Work that throws ends the work of every worker, after `failed` has reported the
    // error. False after a failure or a cancel.
    bool run(const std::function<void(Node&, size_t worker)>& work,
             const std::function<void(const Node&, const std::exception&)>& failed);

private:
    // The next node for the calling worker, whose last node is done; null when the work is over, was
    // cancelled, or a worker failed.
    Node* next();
    void fail();

    const size_t m_workers;
    const std::function<bool()> m_cancel;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<Node*> m_queue;
    size_t m_busy;  // every worker counts as busy until its first call of next()
    bool m_stopped = false;
};

}  // namespace pc_preprocess
