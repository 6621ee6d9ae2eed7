// The two kinds of query: records handed to the client's sink, and a new data set of the chosen nodes
// written through a RootWriter.
#pragma once

#include <array>
#include <mutex>
#include <optional>
#include <vector>

#include "hspc/query/QueryDataHandler.h"
#include "hspc/query/QueryExecutorPrivate.h"

namespace HSPC
{

// What the walk and the runs share of one query.
class QueryRunBase : public QueryRun
{
public:
    QueryRunBase(const QueryExecutorPrivate& executor, QueryLayout layout,
                 std::optional<std::array<double, 6>> box);

    std::string blobName(const GeometricFilterTraversalNode& node) const override;
    const QueryLayout& layout() const { return layout_; }
    uint64_t pointsDelivered() const;

protected:
    // Decodes the block into data.records, cut to the box when the node is.
    bool decode(QueryNodeData& data, QueryWorker& worker, std::string& error) const;
    // Counts the node's points and tells the client's callbacks, one node at a time.
    void reportWritten(const QueryNodeData& data);

    const QueryExecutorPrivate& executor_;
    mutable std::mutex deliveryMutex_;

private:
    QueryLayout layout_;
    std::optional<std::array<double, 6>> box_;
    uint64_t pointsDelivered_ = 0;
    uint64_t nodesWritten_ = 0;
};

class RecordSinkRun : public QueryRunBase
{
public:
    RecordSinkRun(const QueryExecutorPrivate& executor, QueryLayout layout,
                  std::optional<std::array<double, 6>> box, const QueryRecordSink& sink);

    bool process(QueryNodeData& data, QueryWorker& worker, std::string& error) override;
    bool write(QueryNodeData& data, std::string& error) override;

private:
    const QueryRecordSink& sink_;
};

// The points and box each written node kept, for the new tree.
struct KeptNode
{
    uint64_t pointCount = 0;
    std::array<uint64_t, 3> min{};
    std::array<uint64_t, 3> max{};
};

class DataSetWriteRun : public QueryRunBase
{
public:
    DataSetWriteRun(const QueryExecutorPrivate& executor, std::optional<std::array<double, 6>> box,
                    RootWriter& writer);

    bool process(QueryNodeData& data, QueryWorker& worker, std::string& error) override;
    bool write(QueryNodeData& data, std::string& error) override;

    // Valid once every node has come out of the pipeline.
    const std::vector<KeptNode>& keptNodes() const { return kept_; }

private:
    RootWriter& writer_;
    // One entry per node of the tree; each is written by the one thread that writes its node.
    std::vector<KeptNode> kept_;
};

}  // namespace HSPC
