// The reading front of a data set: opens its full tree, describes it, fixes the layout in which the client
// wants points, and answers box and level-of-detail queries through a pipeline of reader, decoder and
// writer threads (QueryDataHandler.h).
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "hspc/format/Attribute.h"
#include "hspc/format/Config.h"
#include "hspc/store/RootStore.h"
#include "hspc/tree/Tree.h"

namespace HSPC
{

// What a data set holds, in the form a client asked for by position type.
struct DataSetInfo
{
    std::array<double, 3> origin{};
    std::array<double, 3> scale{};
    std::array<double, 3> center{};
    std::array<double, 3> boxMin{};
    std::array<double, 3> boxMax{};
    uint8_t minLod = 0;
    uint8_t maxLod = 0;
    // The record a query delivers for `requestedPositionType`: the position, then the stored attributes.
    std::vector<Attribute> attributes;
    uint8_t requestedPositionType = AttributeType::UNDEFINED;
    uint8_t storedPositionType = AttributeType::UNDEFINED;
    uint32_t outputRecordSize = 0;
    uint32_t storedRecordSize = 0;
    uint64_t pointCount = 0;
    uint32_t nodeSize = 0;
    uint32_t maxNodeSize = 0;
    uint32_t formatVersion = 0;
    uint64_t timeStamp = 0;
    std::string comment;
    // Per lod, from maxLod down to minLod.
    std::vector<uint64_t> lodNodeCounts;
    std::vector<uint64_t> lodPointCounts;
};

// What a query asks for. All parts are optional: an empty request returns every point.
struct QueryRequest
{
    // Real units: x0, y0, z0, x1, y1, z1; both ends inclusive.
    std::optional<std::array<double, 6>> box;
    // Deliver only nodes whose lod is at least this (the coarser ones); none goes down to the leaves.
    std::optional<uint8_t> minLod;
    // 0: no budget. Otherwise no lod finer than the one at which this many points were delivered is read.
    uint64_t pointBudget = 0;
};

// The points of one node in the layout of updateAttributeLayout.
struct QueryNodeRecords
{
    uint32_t nodeIndex = 0;
    uint8_t lod = 0;
    uint64_t pointCount = 0;
    std::span<const uint8_t> records;
    // The cell that integer positions (I32, I64) are relative to: real = (anchor + value) * scale + origin.
    std::array<int64_t, 3> anchor{};
};

// Receives the nodes of a query, one call at a time; returning false cancels the query.
using QueryRecordSink = std::function<bool(const QueryNodeRecords&)>;

class QueryExecutorPrivate;

class QueryExecutor
{
public:
    QueryExecutor();
    ~QueryExecutor();
    QueryExecutor(const QueryExecutor&) = delete;
    QueryExecutor& operator=(const QueryExecutor&) = delete;

    // Loads the tree file in `treeBytes` (a "/queryTree.hspc"), checks it and, unless `passive`, starts the
    // pipeline. Nodes are read from `config.readBlob` when set, otherwise from `config.path` (a data set
    // folder, a tree file in one, or a pack archive). False with the reason on the config's error logger.
    bool initializeQueryExecutor(const QueryConfig& config, std::span<const uint8_t> treeBytes, bool passive);
    bool isInitialized() const;

    // False when not initialized or when the stored positions can't be delivered as `positionType`.
    bool getInfo(uint8_t positionType, DataSetInfo& info) const;

    // Sets the record queries deliver: a position first (one POSITION attribute of type I32..M192, or X, Y,
    // Z of one type I32..F64, or single F64 axes X, Y or Z), then any stored attributes, each as its stored
    // type or one it widens to (canWiden); an attribute the data set lacks reads as zero. False with a message,
    // and nothing changed, for a layout that can't be served or while reads are queued.
    bool updateAttributeLayout(const std::vector<Attribute>& requested);
    // The current layout and its record size (the positions as M96 or M192 and every stored attribute until
    // updateAttributeLayout is called).
    std::vector<Attribute> attributeLayout() const;
    uint32_t recordSize() const;

    const Tree& tree() const;

    // Reads and decodes one node into the current layout: `records` receives pointCount records. Safe to
    // call from several threads at once, in passive mode too. False with the reason in `error`.
    bool readNode(uint32_t nodeIndex, std::vector<uint8_t>& records, uint64_t& pointCount, std::string& error);

    // Walks the nodes that meet the request, coarse to fine, and hands each one's points to `sink`. False
    // on any failure (on the error logger), when the sink or the config's cancel test cancelled the query,
    // and in passive mode.
    bool query(const QueryRequest& request, const QueryRecordSink& sink);
    // The same nodes, cut to the box, written through `writer` as a new data set with its tree files.
    bool query(const QueryRequest& request, RootWriter& writer);

    // Node reads waiting for an input thread, over all queries running: a layout change waits for none.
    size_t queuedReads() const;
    // The pipeline's byte budget: two thirds of the memory limit, or the largest value without a limit.
    uint64_t memoryBudget() const;

private:
    friend class QueryExecutorPrivate;
    std::shared_ptr<QueryExecutorPrivate> d;
};

// Reads "/queryTree.hspc" of `config.path` (a folder, a tree file in one, or a pack archive by its name) or
// through `config.readBlob`, and initializes `executor` with it. False with the reason on the error logger.
bool openQueryExecutor(QueryExecutor& executor, const QueryConfig& config, bool passive);

}  // namespace HSPC
