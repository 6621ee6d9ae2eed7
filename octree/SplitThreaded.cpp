#include <algorithm>
#include <cmath>
#include <mutex>

#include "octree/NodeQueue.h"
#include "octree/NodeSplit.h"
#include "octree/SubtreeInMemory.h"
#include "octree/TreeWorkers.h"
#include "services/IntervalWriter.h"
#include "services/Logger.h"

namespace pc_preprocess
{

namespace
{

// The work of splitting a node of n points: n for each level of the octree that will lie below it.
double splitWork(uint64_t points)
{
    constexpr double kOneOverLn8 = 0.48089834696298783;
    const double levels = std::ceil(std::log(double(points) / double(kMaxNodePoints)) * kOneOverLn8);
    return std::max(levels, 0.0) * double(points);
}

class SplitPool
{
public:
    SplitPool(size_t workers, const SplitSettings& settings, const std::shared_ptr<Logger>& logger,
              const std::function<bool()>& cancel, const ThreadStarter& startWorker)
        : m_queue(workers, cancel, startWorker),
          m_workspaces(workers),
          m_settings(settings),
          m_logger(logger),
          m_cancel(cancel)
    {
    }

    void enqueue(Node& node)
    {
        {
            const std::lock_guard lock(m_progressMutex);
            m_remaining += splitWork(node.pointsOnDisk);
        }
        m_queue.push(node);
    }

    // The leaves below the node that are to be split: the root's children, and the children of those that
    // the root split has split already.
    void enqueueLeavesBelow(Node& node)
    {
        for (Node& child : node.children)
            if (!child.isLeaf())
                enqueueLeavesBelow(child);
            else if (child.pointsOnDisk > kMaxNodePoints)
                enqueue(child);
    }

    bool run()
    {
        return m_queue.run(
            [this](Node& node, size_t worker)
            {
                const uint64_t points = node.pointsOnDisk;
                if (points <= m_settings.subtreePointBudget)
                {
                    if (!buildSubtreeInMemory(node, m_settings, m_workspaces[worker], m_cancel))
                        return;  // cancelled: the queue stops the workers
                }
                else
                {
                    splitNonRoot(node, m_settings, m_workspaces[worker].coder);
                    for (Node& child : node.children)
                        if (child.pointsOnDisk > kMaxNodePoints)
                            enqueue(child);
                }
                advance(points);
            },
            [this](const Node*, const std::string& text)
            { m_logger->error("ERROR splitting threaded :\n\t" + text); });
    }

private:
    void advance(uint64_t points)
    {
        const std::lock_guard lock(m_progressMutex);
        m_done += double(points);
        m_remaining = std::max(0.0, m_remaining - double(points));
        const auto percent = static_cast<unsigned int>(50.0 * m_done / (m_done + m_remaining));
        // New work may lower the share; the bar never goes back.
        if (percent > m_reported)
        {
            m_reported = percent;
            m_logger->updateProgress(2 * percent);
        }
    }

    NodeQueue m_queue;
    std::vector<TreeWorkspace> m_workspaces;  // one per worker
    const SplitSettings m_settings;
    const std::shared_ptr<Logger> m_logger;
    const std::function<bool()> m_cancel;
    std::mutex m_progressMutex;
    double m_done = 0.0;
    double m_remaining = 0.0;
    unsigned int m_reported = 0;
};

}  // namespace

bool splitRootChildrenThreaded(Node& root, uint64_t threads, const SplitSettings& settings,
                               const std::shared_ptr<Logger>& logger, const std::function<bool()>& cancel,
                               const ThreadStarter& startWorker)
{
    if (root.children.empty())
        return true;
    const size_t workers = std::max<size_t>(1, std::min<size_t>(root.children.size(), threads));
    SplitPool pool(workers, settings, logger, cancel, startWorker);
    pool.enqueueLeavesBelow(root);
    logger->startProgress("splitting threaded");
    const IntervalWriter repeater(logger);
    return pool.run();
}

}  // namespace pc_preprocess
