// The pipeline of queries: nodes move through three pools of threads, each around a queue that hands out
// the node of the smallest priority first (coarse before fine): input threads read node blocks, processing
// threads decode and cut them, write threads hand them to the client or write them out. A query (QueryRun)
// says what processing and writing mean for it; several queries may share the pipeline at once.
#pragma once

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "hspc/format/ConcurrentQueue.h"
#include "hspc/format/Loggers.h"
#include "hspc/format/NodeCompressor.h"
#include "hspc/query/QueryNodeDecoder.h"

namespace HSPC
{

// A node that the walk chose: where it lies and whether the query box cuts it.
struct GeometricFilterTraversalNode
{
    uint32_t nodeIndex = 0;
    uint8_t lod = 0;
    std::array<uint64_t, 3> corner{};
    // The box crosses the node: its points are tested one by one.
    bool cut = false;
};

class QueryRun;

// A request to read a node, and the block once read.
struct QueryReadNode
{
    std::shared_ptr<QueryRun> run;
    GeometricFilterTraversalNode node;
    uint64_t priority = 0;
    // What the node will hold at most while it moves through the pipeline, counted against the budget.
    uint64_t bytes = 0;
    std::vector<uint8_t> buffer;
};

// A node on its way from decoding to writing: its records, or its block re-encoded.
struct QueryNodeData
{
    std::shared_ptr<QueryRun> run;
    GeometricFilterTraversalNode node;
    uint64_t priority = 0;
    uint64_t bytes = 0;
    DecodedNode decoded;
    std::vector<uint8_t> records;
};

// What one processing thread keeps from node to node.
struct QueryWorker
{
    QueryNodeDecoder decoder;
    std::unique_ptr<NodeCompressor> compressor;
    std::vector<uint8_t> compressorScratch;
};

// One query as the pipeline sees it. Failures and cancels stop it: its remaining nodes pass through without
// work, and its walk learns of each through nodeFinished.
class QueryRun
{
public:
    virtual ~QueryRun() = default;

    // The blob of the node's block.
    virtual std::string blobName(const GeometricFilterTraversalNode& node) const = 0;
    // Decodes (and re-encodes) the block in data.records; false with a message for the error logger.
    virtual bool process(QueryNodeData& data, QueryWorker& worker, std::string& error) = 0;
    // Delivers the node; false with a message, or false with none when the client cancelled.
    virtual bool write(QueryNodeData& data, std::string& error) = 0;

    bool stopped() const { return failed_.load() || cancelled_.load(); }
    bool failed() const { return failed_.load(); }
    void markFailed() { failed_.store(true); }
    void markCancelled() { cancelled_.store(true); }

    // Counts of the walk: nodes handed to the pipeline and nodes that came out, written or not.
    std::atomic<uint64_t> nodesQueued{0};
    std::atomic<uint64_t> nodesFinished{0};

private:
    std::atomic<bool> failed_{false};
    std::atomic<bool> cancelled_{false};
};

struct QueryHandlerSettings
{
    uint32_t inputThreads = 3;
    uint32_t processingThreads = 10;
    uint32_t writeThreads = 3;
    uint64_t memoryBudget = UINT64_MAX;
    uint64_t cacheSize = 0;
};

using BlobReadFunction = std::function<bool(const std::string& name, std::vector<uint8_t>& bytes)>;

class QueryDataHandler
{
public:
    QueryDataHandler(const QueryHandlerSettings& settings, BlobReadFunction readBlob, LogFunction errorLogger,
                     std::vector<Attribute> attributes, uint32_t recordSize);
    // Lets the pools drain what is queued and joins them.
    ~QueryDataHandler();
    QueryDataHandler(const QueryDataHandler&) = delete;
    QueryDataHandler& operator=(const QueryDataHandler&) = delete;

    void pushToInput(QueryReadNode&& node);
    void pushToFilter(QueryNodeData&& data);
    void pushToWrite(QueryNodeData&& data);
    // A node of `run` came out of the pipeline: wakes the walks waiting for room or for their last node.
    void signalNodeWritten(QueryRun& run, const GeometricFilterTraversalNode& node);

    // Waits until `bytes` more fit the budget (or nothing is in flight, so that a node larger than the
    // budget still passes), or `run` stopped.
    void waitForRoom(const QueryRun& run, uint64_t bytes);
    // Waits until every node the walk of `run` queued has come out.
    void waitForAll(const QueryRun& run);

    // Replaces the layout the pools serve. False, and nothing changed, while node reads are queued.
    bool changeLayout(const std::vector<Attribute>& attributes, uint32_t recordSize);

    uint64_t bytesInFlight() const;
    size_t queuedReads() const { return input_.queue.size(); }
    uint64_t memoryBudget() const { return settings_.memoryBudget; }
    uint64_t pointsPerBatch() const;
    std::vector<std::string> failures() const;

private:
    // A queue and the bytes of the nodes in its stage, queued or being worked on.
    template <typename Item>
    struct Stage
    {
        explicit Stage(typename ConcurrentQueue<Item>::Before before) : queue(std::move(before)) {}
        ConcurrentQueue<Item> queue;
        mutable std::mutex bytesMutex;
        uint64_t bytes = 0;
    };

    template <typename Item>
    static void enter(Stage<Item>& stage, Item&& item);
    template <typename Item>
    void leave(Stage<Item>& stage, uint64_t bytes);

    void startProcessing();
    void inputLoop();
    void processingLoop();
    void writeLoop();
    void fail(QueryRun& run, const std::string& message);
    void finish(QueryRun& run, const GeometricFilterTraversalNode& node);

    QueryHandlerSettings settings_;
    BlobReadFunction readBlob_;
    LogFunction errorLogger_;

    mutable std::mutex layoutMutex_;
    std::vector<Attribute> attributes_;
    uint32_t recordSize_ = 0;
    uint64_t pointsPerBatch_ = 0;

    Stage<QueryReadNode> input_;
    Stage<QueryNodeData> filter_;
    Stage<QueryNodeData> write_;

    // Walks wait here for room and for their last node.
    mutable std::mutex progressMutex_;
    std::condition_variable progress_;

    mutable std::mutex failureMutex_;
    std::vector<std::string> failures_;

    std::atomic<bool> pauseProcessing_{false};
    std::vector<std::thread> inputThreads_;
    std::vector<std::thread> processingThreads_;
    std::vector<std::thread> writeThreads_;
};

}  // namespace HSPC
