#include "hspc/query/QueryRuns.h"

#include <algorithm>
#include <cstring>

#include "hspc/format/MortonIndex3D.h"
#include "hspc/format/NodeBlobName.h"

namespace HSPC
{
namespace
{

// The box of the node's kept points relative to its corner, from their Morton codes at the start of each
// record.
template <typename W>
void localBoxOfCodes(const std::vector<uint8_t>& records, size_t stride, uint64_t count,
                     const std::array<uint64_t, 3>& corner, KeptNode& kept)
{
    kept.min.fill(UINT64_MAX);
    kept.max.fill(0);
    for (uint64_t i = 0; i < count; ++i)
    {
        MortonIndex3D<W> code;
        std::memcpy(code.words.data(), records.data() + i * stride, MortonIndex3D<W>::kBytes);
        const std::array<W, 3> axes = decodeMorton(code);
        for (unsigned axis = 0; axis < 3; ++axis)
        {
            const uint64_t local = uint64_t(W(axes[axis] - W(corner[axis])));
            kept.min[axis] = std::min(kept.min[axis], local);
            kept.max[axis] = std::max(kept.max[axis], local);
        }
    }
}

}  // namespace

QueryRunBase::QueryRunBase(const QueryExecutorPrivate& executor, QueryLayout layout,
                           std::optional<std::array<double, 6>> box)
    : executor_(executor), layout_(std::move(layout)), box_(box)
{
}

std::string QueryRunBase::blobName(const GeometricFilterTraversalNode& node) const
{
    return nodeBlobName(node.lod, node.corner[0], node.corner[1], node.corner[2]);
}

uint64_t QueryRunBase::pointsDelivered() const
{
    std::lock_guard lock(deliveryMutex_);
    return pointsDelivered_;
}

bool QueryRunBase::decode(QueryNodeData& data, QueryWorker& worker, std::string& error) const
{
    const std::vector<uint8_t> block = std::move(data.records);
    data.records = {};
    if (!worker.decoder.decode(block, executor_.placeOf(data.node.nodeIndex), layout_, executor_.grid,
                               data.node.cut ? box_ : std::nullopt, data.records, data.decoded, error))
    {
        error = "QueryExecutor: failed to read node with index = " + std::to_string(data.node.nodeIndex) + ": " +
                error;
        return false;
    }
    return true;
}

void QueryRunBase::reportWritten(const QueryNodeData& data)
{
    // Under the delivery lock: the callbacks of one query are never called from two threads at once.
    pointsDelivered_ += data.decoded.pointCount;
    ++nodesWritten_;
    const QueryConfig& config = executor_.configuration;
    if (config.nodeWritten)
    {
        config.nodeWritten(data.node.nodeIndex, data.decoded.pointCount);
    }
    if (config.progress)
    {
        config.progress(nodesWritten_, nodesQueued.load());
    }
}

RecordSinkRun::RecordSinkRun(const QueryExecutorPrivate& executor, QueryLayout layout,
                             std::optional<std::array<double, 6>> box, const QueryRecordSink& sink)
    : QueryRunBase(executor, std::move(layout), box), sink_(sink)
{
}

bool RecordSinkRun::process(QueryNodeData& data, QueryWorker& worker, std::string& error)
{
    return decode(data, worker, error);
}

bool RecordSinkRun::write(QueryNodeData& data, std::string&)
{
    std::lock_guard lock(deliveryMutex_);
    // A node the box left empty is not handed over, but it counts as done.
    if (data.decoded.pointCount > 0)
    {
        const QueryNodeRecords records{data.node.nodeIndex, data.node.lod, data.decoded.pointCount, data.records,
                                       data.decoded.anchor};
        if (!sink_(records))
        {
            return false;
        }
    }
    reportWritten(data);
    return true;
}

DataSetWriteRun::DataSetWriteRun(const QueryExecutorPrivate& executor, std::optional<std::array<double, 6>> box,
                                 RootWriter& writer)
    : QueryRunBase(executor, storedLayout(executor.storedAttributes()), box),
      writer_(writer),
      kept_(executor.tree.nodes.size())
{
}

bool DataSetWriteRun::process(QueryNodeData& data, QueryWorker& worker, std::string& error)
{
    if (!decode(data, worker, error))
    {
        return false;
    }
    NodeHeader& header = data.decoded.header;
    const uint64_t count = data.decoded.pointCount;
    if (count == 0)
    {
        data.records = {};
        return true;
    }
    if (count < header.pointCount)
    {
        KeptNode box;
        if (executor_.grid.storedPositionType == AttributeType::M192)
            localBoxOfCodes<uint64_t>(data.records, layout().recordSize, count, header.node, box);
        else
            localBoxOfCodes<uint32_t>(data.records, layout().recordSize, count, header.node, box);
        header.localMin = box.min;
        header.localMax = box.max;
    }
    if (!worker.compressor || worker.compressor->pointLimit() < count)
    {
        worker.compressor = NodeCompressor::create(layout().attributes, size_t(count));
    }
    std::vector<uint8_t> block;
    if (!worker.compressor ||
        !compressNode(false, header, *worker.compressor, data.records, block, worker.compressorScratch))
    {
        error = "Failed to compress node with index = " + std::to_string(data.node.nodeIndex);
        return false;
    }
    data.records = std::move(block);
    return true;
}

bool DataSetWriteRun::write(QueryNodeData& data, std::string& error)
{
    const NodeHeader& header = data.decoded.header;
    if (data.decoded.pointCount > 0)
    {
        const std::string name = blobName(data.node);
        if (!writer_.write(name, data.records))
        {
            error = "Failed to write file=" + name + "; You might want to check the disk or write permissions.";
            return false;
        }
        kept_[data.node.nodeIndex] = {data.decoded.pointCount, header.localMin, header.localMax};
    }
    std::lock_guard lock(deliveryMutex_);
    reportWritten(data);
    return true;
}

}  // namespace HSPC
