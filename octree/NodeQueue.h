#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <string>

#include "core/WorkerThreads.h"
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

    // Reports a failure: the node whose work failed, or null when the failure is not one node's (a cancel
    // test that throws, a thread that cannot be started), and the error's text.
    using FailureReport = std::function<void(const Node*, const std::string&)>;

    // A queue for `workers` threads, started by `start`; `cancel`, when set, is asked before each node is
    // taken.
    NodeQueue(size_t workers, std::function<bool()> cancel, ThreadStarter start = startThread);

    void push(Node& node);

    // Runs `work` on the queued nodes, and on those it queues, on the queue's worker threads until the work
    // is over; work learns the index of its worker, from 0 to workers - 1, so that each worker can keep
    // buffers of its own. Any failure, of the work or of the queue itself, ends the work of every worker after
    // `failed` has reported it; nothing leaves a worker thread. False after a failure or a cancel.
    bool run(const std::function<void(Node&, size_t worker)>& work, const FailureReport& failed);

private:
    void workUntilDone(const std::function<void(Node&, size_t worker)>& work, size_t worker,
                              const FailureReport& failed);
    // The next node for the calling worker, whose last node is done; null when the work is over, was
    // cancelled, or a worker failed.
    Node* next();
    void fail() noexcept;

    const size_t m_workers;
    const std::function<bool()> m_cancel;
    const ThreadStarter m_start;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<Node*> m_queue;
    size_t m_busy;  // every worker counts as busy until its first call of next()
    bool m_stopped = false;
};

}  // namespace pc_preprocess
