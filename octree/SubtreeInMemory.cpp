#include "octree/SubtreeInMemory.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <stdexcept>

#include "cachefiles/PntFormat.h"
#include "cachefiles/TreeNodeFiles.h"
#include "octree/NodeFilters.h"
#include "octree/NodeSplit.h"

namespace pc_preprocess
{

namespace
{

// Thrown inside the recursion when the cancel predicate holds, caught where the subtree began.
struct Cancelled
{
};

// Where a child's records lie: in one of the worker's two record buffers, which the levels of the recursion
// take in turn, so that distributing a node's range writes its children's ranges at the same place in the
// other buffer and leaves every other range alone.
struct ChildPoints
{
    int side = 0;
    size_t first = 0;  // in records
    size_t count = 0;
    bool split = false;
    std::vector<IoLightPoint> finished;  // of a split child: its merged points, or all of them if it folded
};

void zeroScanIds(std::vector<IoLightPoint>& points)
{
    for (IoLightPoint& p : points)
        p.scanId = 0;
}

double largestRadius(std::span<const IoLightPoint> points)
{
    double largest = Node::kNoRadius;
    for (const IoLightPoint& p : points)
        largest = std::max(largest, static_cast<double>(p.radius));
    return largest;
}

class SubtreeBuilder
{
public:
    SubtreeBuilder(const SplitSettings& settings, TreeWorkspace& workspace,
                   const std::function<bool()>& cancel)
        : m_settings(settings), m_workspace(workspace), m_cancel(cancel)
    {
    }

    // Splits the node whose count records lie at `first` in buffer `side`, builds its children's subtrees,
    // and merges it. `finished` receives what its parent merges: the node's merged points, whose PNZ is
    // written, or, when its children folded into it, all its points, whose PNZ its parent writes (or the
    // node itself, at the top).
    void build(Node& node, int side, size_t first, size_t count, std::vector<IoLightPoint>& finished)
    {
        if (m_cancel && m_cancel())
            throw Cancelled{};
        std::vector<ChildPoints> children = distribute(node, side, first, count);
        for (size_t k = 0; k < children.size(); ++k)
            if (children[k].split)
                build(node.children[k], children[k].side, children[k].first, children[k].count,
                      children[k].finished);
        merge(node, children, finished);
    }

private:
    std::span<uint8_t> records(int side, size_t first, size_t count)
    {
        return std::span(m_workspace.records[side]).subspan(first * kPntRecordSize, count * kPntRecordSize);
    }

    // Distributes the node's points into its children, in order, as distributePoints does, and ends each
    // child as finishNode does: dropped, kept, or filtered, and the survivors numbered without gaps.
    std::vector<ChildPoints> distribute(Node& node, int side, size_t first, size_t count)
    {
        const std::array<ExtentsI32, 8> boxes = node.extents.split8(node.transfo);
        createChildren(node, false);
        std::vector<uint8_t>& childOf = m_workspace.childOf;
        childOf.resize(count);
        std::array<size_t, 9> sizes{};
        const std::span<uint8_t> source = records(side, first, count);
        for (size_t i = 0; i < count; ++i)
        {
            const uint8_t* record = source.data() + i * kPntRecordSize;
            int32_t x, y, z;
            float radius;
            std::memcpy(&x, record, 4);
            std::memcpy(&y, record + 4, 4);
            std::memcpy(&z, record + 8, 4);
            std::memcpy(&radius, record + kPntRadiusOffset, 4);
            uint8_t k = 0;
            while (k < 8 && !boxes[k].contains(x, y, z))
                ++k;
            childOf[i] = k;
            ++sizes[k];
            if (k < 8)
            {
                Node& child = node.children[k];
                child.extents.extend(x, y, z);
                child.maxRadius = std::max(child.maxRadius, static_cast<double>(radius));
            }
        }
        // A point of a node lies in its box by construction: this is rounding or a damaged file.
        m_settings.counts->outsideBoxes += sizes[8];

        const int target = 1 - side;
        std::array<size_t, 8> at{};
        for (size_t k = 0, start = first; k < 8; start += sizes[k], ++k)
            at[k] = start;
        const std::array<size_t, 8> starts = at;
        uint8_t* destination = m_workspace.records[target].data();
        constexpr uint16_t kNoScan = 0;
        for (size_t i = 0; i < count; ++i)
            if (childOf[i] < 8)
            {
                uint8_t* record = destination + at[childOf[i]]++ * kPntRecordSize;
                std::memcpy(record, source.data() + i * kPntRecordSize, kPntRecordSize);
                std::memcpy(record + 24, &kNoScan, 2);
            }

        std::vector<ChildPoints> survivors;
        std::vector<Node> kept;
        size_t visited = 0;
        for (Node& child : node.children)
        {
            ChildPoints points;
            points.side = target;
            points.first = starts[visited];
            points.count = sizes[visited];
            if (finish(child, points))
            {
                if (visited != kept.size())
                    child.renameToIndex(kept.size());
                kept.push_back(std::move(child));
                survivors.push_back(std::move(points));
            }
            ++visited;
        }
        // The survivors have no children yet, so moving them leaves no pointer behind.
        node.children = std::move(kept);
        node.filtered = false;
        return survivors;
    }

    // Whether the child survives; its points may shrink in place through a filter.
    bool finish(Node& child, ChildPoints& points)
    {
        TreeCounts& counts = *m_settings.counts;
        if (points.count < kMinChildPoints)
        {
            counts.inSmallChildren += points.count;
            return false;
        }
        const std::span<uint8_t> own = records(points.side, points.first, points.count);
        // Up to a full buffer, the file path would have written nothing to disk yet.
        if (!m_settings.tandStyle && points.count <= kMaxNodePoints)
            giveRecordsTheNodeSize(child, own);
        if (!keptFromFilter(child, points.count, m_settings))
        {
            FilteredPoints result =
                m_settings.tandStyle
                    ? filterTandStyle(own, child.extents, child.transfo, m_settings.keepMultiple)
                    : filterFernalStyle(own, child.extents, child.transfo);
            child.filtered = true;
            child.maxRadius = result.maxRadius;
            counts.filteredAway += points.count - result.points.size();
            if (result.points.size() < kMinChildPoints)
            {
                counts.inSmallChildren += result.points.size();
                return false;
            }
            // A filter never gives more points than it was given: the result takes the child's place.
            points.count = result.points.size();
            for (size_t i = 0; i < points.count; ++i)
                encodePntRecord(result.points[i], own.data() + i * kPntRecordSize);
        }
        child.pointsOnDisk = points.count;
        points.split = points.count > kMaxNodePoints;
        return true;
    }

    // Merges the node from its children's points in memory, as mergeSingleNode does from their files, and
    // writes the leaves below it that are final now.
    void merge(Node& node, std::vector<ChildPoints>& children, std::vector<IoLightPoint>& finished)
    {
        std::vector<IoLightPoint>& points = m_workspace.points;
        points.clear();
        bool allLeaves = true;
        for (size_t k = 0; k < children.size(); ++k)
        {
            const ChildPoints& child = children[k];
            allLeaves = allLeaves && node.children[k].isLeaf();
            if (child.split)
            {
                points.insert(points.end(), child.finished.begin(), child.finished.end());
                continue;
            }
            const std::span<uint8_t> own = records(child.side, child.first, child.count);
            const size_t at = points.size();
            points.resize(at + child.count);
            for (size_t i = 0; i < child.count; ++i)
                decodePntRecord(own.data() + i * kPntRecordSize, true, points[at + i]);
        }

        if (allLeaves && points.size() <= kMaxNodePoints)
        {
            node.children.clear();
            finished.assign(points.begin(), points.end());
            zeroScanIds(finished);
            node.pointsOnDisk = finished.size();
            node.maxRadius = largestRadius(finished);
            node.merged = true;
            return;
        }

        for (size_t k = 0; k < children.size(); ++k)
        {
            Node& child = node.children[k];
            if (child.isLeaf())
            {
                if (children[k].split)
                    writePnzPoints(child.pnzPath, child.transfo, children[k].finished, m_workspace.coder);
                else
                    writePnzRecords(child.pnzPath, child.transfo,
                                    records(children[k].side, children[k].first, children[k].count),
                                    "SerializedPoints: ", m_workspace.coder);
            }
            child.merged = true;
            std::vector<IoLightPoint>().swap(children[k].finished);
        }
        if (points.size() > kMaxNodePoints)
            m_workspace.simplifier.simplify(points, node.transfo, kMaxNodePoints, finished);
        else
        {
            finished.assign(points.begin(), points.end());
            zeroScanIds(finished);
        }
        writePnzPoints(node.pnzPath, node.transfo, finished, m_workspace.coder);
        node.pointsOnDisk = finished.size();
        node.maxRadius = largestRadius(finished);
        node.merged = true;
    }

    const SplitSettings& m_settings;
    TreeWorkspace& m_workspace;
    const std::function<bool()>& m_cancel;
};

}  // namespace

bool buildSubtreeInMemory(Node& node, const SplitSettings& settings, TreeWorkspace& workspace,
                          const std::function<bool()>& cancel)
{
    if (node.numBuffered() > 0)
        throw std::runtime_error("splitNonRoot: node should be flushed before splitting");
    if (node.pointsOnDisk <= kMaxNodePoints)
        return true;
    readPntRecords(node.pntPath, workspace.records[0]);
    node.deletePntFiles();
    const size_t count = workspace.records[0].size() / kPntRecordSize;
    workspace.records[1].resize(workspace.records[0].size());
    std::vector<IoLightPoint> finished;
    try
    {
        SubtreeBuilder(settings, workspace, cancel).build(node, 0, 0, count, finished);
    }
    catch (const Cancelled&)
    {
        return false;
    }
    if (node.isLeaf())
        writePnzPoints(node.pnzPath, node.transfo, finished, workspace.coder);
    return true;
}

}  // namespace pc_preprocess
