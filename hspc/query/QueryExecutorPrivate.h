// What a QueryExecutor holds: the loaded tree with what the walk derives from it, the layout, the reader of
// the data set's blobs and the pipeline.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <shared_mutex>
#include <vector>

#include "hspc/format/Config.h"
#include "hspc/query/QueryDataHandler.h"
#include "hspc/query/QueryExecutor.h"
#include "hspc/query/QueryLayout.h"
#include "hspc/query/QueryNodeDecoder.h"
#include "hspc/tree/Tree.h"

namespace HSPC
{

class QueryExecutorPrivate
{
public:
    QueryConfig configuration;
    bool initialized = false;
    Tree tree;
    TreeForm form = TreeForm::kFull;
    LogFunction info;
    LogFunction warning;
    LogFunction error;
    QueryHandlerSettings settings;
    BlobReadFunction readBlob;
    // Absent in passive mode.
    std::unique_ptr<QueryDataHandler> handler;

    // Per node, from the tree: its lod and its corner as its block states it.
    std::vector<uint8_t> lods;
    std::vector<std::array<uint64_t, 3>> corners;
    QueryGrid grid;

    const std::vector<Attribute>& storedAttributes() const { return tree.attributes.attributes; }
    QueryNodePlace placeOf(uint32_t nodeIndex) const;
    std::string blobNameOf(uint32_t nodeIndex) const;
    // The real box of points of the node between `min` and `max` (relative to its corner): x0, y0, z0, x1,
    // y1, z1.
    std::array<double, 6> realBoxOf(uint32_t nodeIndex, const std::array<uint64_t, 3>& min,
                                    const std::array<uint64_t, 3>& max) const;

    QueryLayout currentLayout() const;
    void setLayout(QueryLayout layout);

    // Runs a query (QueryWalk.cpp).
    bool runQuery(const QueryRequest& request, const QueryRecordSink* sink, RootWriter* writer);

private:
    mutable std::shared_mutex layoutMutex_;
    QueryLayout layout_;
};

// Two thirds of the limit, truncated; the largest value for no limit.
uint64_t queryMemoryBudget(uint64_t memoryLimit);

}  // namespace HSPC
