#include <algorithm>
#include <filesystem>
#include <mutex>
#include <stdexcept>
#include <vector>

#include "cachefiles/TreeNodeFiles.h"
#include "core/NodePaths.h"
#include "core/StringConversion.h"
#include "octree/NodeQueue.h"
#include "octree/TreeWorkers.h"
#include "services/IntervalWriter.h"
#include "services/Logger.h"

namespace pc_preprocess
{

namespace
{

void removeIfThere(const std::wstring& path)
{
    std::error_code ignored;
    std::filesystem::remove(toPath(path), ignored);
}

bool allLeaves(const Node& node)
{
    return std::all_of(node.children.begin(), node.children.end(), [](const Node& c) { return c.isLeaf(); });
}

bool allMerged(const Node& node)
{
    return std::all_of(node.children.begin(), node.children.end(), [](const Node& c) { return c.merged; });
}

// Marks the leaves merged, lists the inner nodes whose children are all merged, and counts the inner nodes
// left to merge. Subtrees that the split stage built in memory are merged already.
uint64_t collectMergeWork(Node& node, std::vector<Node*>& ready)
{
    if (node.isLeaf())
        node.merged = true;
    if (node.merged)
        return 0;
    uint64_t inner = 1;
    for (Node& child : node.children)
        inner += collectMergeWork(child, ready);
    if (allMerged(node))
        ready.push_back(&node);
    return inner;
}

class MergePool
{
public:
    MergePool(Node& root, size_t workers, const std::shared_ptr<Logger>& logger,
              const std::function<bool()>& cancel, const ThreadStarter& startWorker)
        : m_queue(workers, cancel, startWorker), m_workspaces(workers), m_logger(logger)
    {
        std::vector<Node*> ready;
        m_total = collectMergeWork(root, ready);
        for (Node* node : ready)
            m_queue.push(*node);
    }

    bool run()
    {
        return m_queue.run(
            [this](Node& node, size_t worker)
            { mergeSingleNode(node, m_workspaces[worker], [this](Node& merged) { finished(merged); }); },
            [this](const Node* node, const std::string& text)
            {
                const std::string where = node != nullptr ? " " + ws2s(node->pnzPath) : std::string();
                m_logger->error("ERROR merging threaded" + where + ":\n\t" + text);
            });
    }

private:
    // A parent is ready once the last of its children is merged; the lock makes "last" unambiguous.
    void finished(Node& node)
    {
        bool parentReady = false;
        {
            const std::lock_guard lock(m_mutex);
            node.merged = true;
            ++m_done;
            const auto percent = static_cast<unsigned int>(m_done * 50 / std::max<uint64_t>(m_total, 1));
            if (percent > m_reported)
            {
                m_reported = percent;
                m_logger->updateProgress(2 * percent);
            }
            parentReady = node.parent != nullptr && allMerged(*node.parent);
        }
        if (parentReady)
            m_queue.push(*node.parent);
    }

    NodeQueue m_queue;
    std::vector<TreeWorkspace> m_workspaces;  // one per worker
    const std::shared_ptr<Logger> m_logger;
    std::mutex m_mutex;
    uint64_t m_total = 0;
    uint64_t m_done = 0;
    unsigned int m_reported = 0;
};

}  // namespace

void mergeSingleNode(Node& node, TreeWorkspace& workspace, const std::function<void(Node&)>& merged)
{
    if (node.children.empty())
        throw std::runtime_error("If no children: shouldn't be queued.\n");
    std::error_code ignored;
    if (node.pointsOnDisk != 0 || std::filesystem::exists(toPath(node.pnzPath), ignored))
        throw std::runtime_error("File shouldn't exist!");

    std::vector<IoLightPoint>& points = workspace.points;
    points.clear();
    for (const Node& child : node.children)
    {
        try
        {
            appendPnzPoints(child.pnzPath, child.pointsOnDisk, workspace.coder, points);
        }
        catch (const std::exception& e)
        {
            throw std::runtime_error(std::string(e.what()) +
                                     "\nmergeSingleNode: Could not read points from " + ws2s(child.pnzPath) +
                                     ".");
        }
        // Classes and normals survive only in a cache of one node.
        removeIfThere(getClassPathFromPnt(child.pnzPath));
        removeIfThere(getNormalPathFromPnt(child.pnzPath));
    }

    std::span<const IoLightPoint> result = points;
    if (allLeaves(node) && points.size() <= kMaxNodePoints)
    {
        for (const Node& child : node.children)
            removeIfThere(child.pnzPath);
        node.children.clear();
    }
    else if (points.size() > kMaxNodePoints)
    {
        workspace.simplifier.simplify(points, node.transfo, kMaxNodePoints, workspace.thinned);
        result = workspace.thinned;
    }

    writePnzPoints(node.pnzPath, node.transfo, result, workspace.coder);
    node.pointsOnDisk = result.size();
    node.maxRadius = Node::kNoRadius;
    for (const IoLightPoint& p : result)
        node.maxRadius = std::max(node.maxRadius, static_cast<double>(p.radius));
    merged(node);
}

bool mergeThreaded(Node& root, uint64_t threads, const std::shared_ptr<Logger>& logger,
                   const std::function<bool()>& cancel, const ThreadStarter& startWorker)
{
    if (root.children.empty())
        return true;
    const size_t workers = std::max<size_t>(1, std::min<size_t>(root.children.size(), threads));
    MergePool pool(root, workers, logger, cancel, startWorker);
    logger->startProgress("merging threaded");
    const IntervalWriter repeater(logger);
    return pool.run();
}

}  // namespace pc_preprocess
