#include "octree/NodeSplit.h"

#include <cstring>
#include <stdexcept>

#include "cachefiles/PntFiles.h"
#include "cachefiles/PntFormat.h"
#include "octree/NodeFilters.h"

namespace pc_preprocess
{

namespace
{

// Nodes with this many points, or this volume in cells, are kept from filtering while they are sparse.
constexpr uint64_t kFilterThreshold = 0x100000;

// Memory for one full buffer per child, so that distributing never grows a buffer point by point.
constexpr size_t kRecordBytes = 0x1A0000;
constexpr size_t kClassBytes = 0x10000;
constexpr size_t kNormalBytes = 0xC0000;

struct ChildTally
{
    size_t visited = 0;
    size_t kept = 0;
};

void dropChild(Node& child, TreeCounts& counts)
{
    counts.inSmallChildren += child.totalPoints();
    child.buffers.m_buffer.clear();
    child.buffers.m_classes.clear();
    child.buffers.m_normals.clear();
    child.buffers.m_numBuffered = 0;
    child.streams.reset();
    child.deletePntFiles();
    child.pointsOnDisk = 0;
}

FilteredPoints filterNode(const Node& child, const SplitSettings& settings)
{
    return settings.tandStyle
               ? filterTandStyle(child.pntPath, child.extents, child.transfo, settings.keepMultiple)
               : filterFernalStyle(child.pntPath, child.extents, child.transfo);
}

// Returns whether the child survives.
bool finishNode(Node& child, const SplitSettings& settings, const ChildTally& tally, PnzCoder& coder)
{
    // A child with children of its own was split while its parent was distributed, as splitNonRoot would
    // have split it from its file: it is kept, and its children's files move with its name.
    if (!child.isLeaf())
    {
        if (tally.visited != tally.kept)
            child.renameToIndex(tally.kept);
        return true;
    }
    const uint64_t total = child.totalPoints();
    if (total < kMinChildPoints)
    {
        dropChild(child, *settings.counts);
        return false;
    }
    if (!settings.tandStyle && child.pointsOnDisk == 0 && child.numBuffered() > 0)
        giveRecordsTheNodeSize(child, child.buffers.m_buffer);

    if (keptFromFilter(child, total, settings))
    {
        if (child.pointsOnDisk > 0)
        {
            child.flushAndClose();
            if (tally.visited != tally.kept)
                child.renameToIndex(tally.kept);
        }
        else
        {
            if (tally.visited != tally.kept)
                child.renameToIndex(tally.kept);
            child.writeBuffersAsPnz(coder);
        }
        // A finished tree holds thousands of nodes: none may keep its write buffers' memory.
        child.buffers.clear();
        return true;
    }

    child.flushAndClose();
    FilteredPoints result = filterNode(child, settings);
    child.filtered = true;
    child.maxRadius = result.maxRadius;
    child.pointsOnDisk = 0;
    child.deletePntFiles();
    settings.counts->filteredAway += total - result.points.size();
    if (result.points.size() < kMinChildPoints)
    {
        settings.counts->inSmallChildren += result.points.size();
        return false;
    }
    if (tally.visited != tally.kept)
        child.renameToIndex(tally.kept);
    child.buffers.add(result.points);
    if (result.points.size() <= kMaxNodePoints)
        child.writeBuffersAsPnz(coder);
    else
        child.flushAndClose();  // left as a PNT to be split further
    child.buffers.clear();
    return true;
}

}  // namespace

void giveRecordsTheNodeSize(Node& child, std::span<uint8_t> records)
{
    float radius = 0.0f;
    std::memcpy(&radius, records.data() + kPntRadiusOffset, sizeof radius);
    if (radius > 0.0f)
        return;
    const float size = static_cast<float>(child.extents.pointSize(child.transfo));
    for (size_t at = 0; at < records.size(); at += kPntRecordSize)
        std::memcpy(records.data() + at + kPntRadiusOffset, &size, sizeof size);
    child.maxRadius = size;
}

bool keptFromFilter(const Node& child, uint64_t total, const SplitSettings& settings)
{
    const uint64_t volume = child.extents.discreteVolume();
    return (volume >= kFilterThreshold || total <= volume) &&
           (!settings.tandStyle || child.filtered || total > kFilterThreshold);
}

void createChildren(Node& node, bool reserveBuffers)
{
    node.children.clear();
    node.children.reserve(8);
    for (size_t index = 0; index < 8; ++index)
    {
        Node child;
        child.buffers = SerializedPoints(node.hasClasses(), node.hasNormals());
        if (reserveBuffers)
        {
            child.buffers.m_buffer.reserve(kRecordBytes);
            if (node.hasClasses())
                child.buffers.m_classes.reserve(kClassBytes);
            if (node.hasNormals())
                child.buffers.m_normals.reserve(kNormalBytes);
        }
        child.pntPath = node.childPnt(index);
        child.pnzPath = child.pntPath.substr(0, child.pntPath.size() - 4) + L".pnz";
        child.transfo = node.transfo;
        child.parent = &node;
        child.filtered = node.filtered;
        node.children.push_back(std::move(child));
        // Copying a box turns an empty one into the origin cell; the child's box must start empty.
        node.children.back().extents.reset();
    }
}

bool distributePoint(Node& node, const std::array<ExtentsI32, 8>& boxes, IoLightPoint point,
                     float radiusFactor, uint16_t scanId)
{
    point.radius = distributedRadius(point.radius, radiusFactor);
    point.scanId = scanId;
    const size_t index = firstBoxHolding(boxes, point);
    // A point of a node lies in its box by construction: this is rounding or a damaged file.
    if (index == boxes.size())
        return false;
    node.children[index].addPoint(point);
    return true;
}

uint64_t distributePoints(Node& node, const std::array<ExtentsI32, 8>& boxes, const std::wstring& pntFile,
                          float radiusFactor, uint16_t scanId, TreeCounts& counts)
{
    uint64_t read = 0;
    uint64_t outside = 0;
    // The node's file goes once it is distributed: its space goes to its children's files as it is read.
    consumePNT(pntFile,
               [&](const IoLightPoint& point)
               {
                   ++read;
                   if (!distributePoint(node, boxes, point, radiusFactor, scanId))
                       ++outside;
               });
    counts.outsideBoxes += outside;
    return read;
}

void finishChildren(Node& node, const SplitSettings& settings, PnzCoder& coder)
{
    ChildTally tally;
    std::vector<Node> survivors;
    survivors.reserve(node.children.size());
    for (Node& child : node.children)
    {
        if (finishNode(child, settings, tally, coder))
        {
            ++tally.kept;
            survivors.push_back(std::move(child));
        }
        ++tally.visited;
    }
    node.children = std::move(survivors);
    // A survivor that has children already moved with them: it is still their parent.
    for (Node& child : node.children)
        for (Node& grandchild : child.children)
            grandchild.parent = &child;
}

void splitNonRoot(Node& node, const SplitSettings& settings, PnzCoder& coder)
{
    if (node.numBuffered() > 0)
        throw std::runtime_error("splitNonRoot: node should be flushed before splitting");
    if (node.pointsOnDisk <= kMaxNodePoints)
        return;
    const std::array<ExtentsI32, 8> boxes = node.extents.split8(node.transfo);
    createChildren(node);
    distributePoints(node, boxes, node.pntPath, 1.0f, 0, *settings.counts);
    finishChildren(node, settings, coder);
    node.deletePntFiles();
    node.pointsOnDisk = 0;
    node.filtered = false;
}

}  // namespace pc_preprocess
