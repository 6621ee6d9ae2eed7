#include "hspc/query/QueryDataHandler.h"

#include <algorithm>

namespace HSPC
{
namespace
{

template <typename Item>
bool smallerPriorityFirst(const Item& a, const Item& b)
{
    return a.priority < b.priority;
}

void joinAll(std::vector<std::thread>& threads)
{
    for (std::thread& thread : threads)
    {
        if (thread.joinable())
        {
            thread.join();
        }
    }
    threads.clear();
}

}  // namespace

QueryDataHandler::QueryDataHandler(const QueryHandlerSettings& settings, BlobReadFunction readBlob,
                                   LogFunction errorLogger, std::vector<Attribute> attributes, uint32_t recordSize)
    : settings_(settings),
      readBlob_(std::move(readBlob)),
      errorLogger_(std::move(errorLogger)),
      attributes_(std::move(attributes)),
      recordSize_(recordSize),
      pointsPerBatch_(recordSize > 0 ? settings.cacheSize / recordSize : 0),
      input_(smallerPriorityFirst<QueryReadNode>),
      filter_(smallerPriorityFirst<QueryNodeData>),
      write_(smallerPriorityFirst<QueryNodeData>)
{
    for (uint32_t i = 0; i < std::max(settings_.inputThreads, 1u); ++i)
    {
        inputThreads_.emplace_back([this] { inputLoop(); });
    }
    startProcessing();
    for (uint32_t i = 0; i < std::max(settings_.writeThreads, 1u); ++i)
    {
        writeThreads_.emplace_back([this] { writeLoop(); });
    }
}

QueryDataHandler::~QueryDataHandler()
{
    // Each pool ends once the one before it has, so that nothing is pushed into a closed queue unseen.
    input_.queue.close();
    joinAll(inputThreads_);
    filter_.queue.close();
    joinAll(processingThreads_);
    write_.queue.close();
    joinAll(writeThreads_);
}

void QueryDataHandler::startProcessing()
{
    for (uint32_t i = 0; i < std::max(settings_.processingThreads, 1u); ++i)
    {
        processingThreads_.emplace_back([this] { processingLoop(); });
    }
}

template <typename Item>
void QueryDataHandler::enter(Stage<Item>& stage, Item&& item)
{
    {
        std::lock_guard lock(stage.bytesMutex);
        stage.bytes += item.bytes;
    }
    stage.queue.push(std::move(item));
}

template <typename Item>
void QueryDataHandler::leave(Stage<Item>& stage, uint64_t bytes)
{
    {
        std::lock_guard lock(stage.bytesMutex);
        stage.bytes -= bytes;
    }
    // A node may be through the later stages before the earlier one lets go of it, so every release wakes
    // the walks that wait for room; the progress lock orders this after their test of the budget.
    {
        std::lock_guard lock(progressMutex_);
    }
    progress_.notify_all();
}

void QueryDataHandler::pushToInput(QueryReadNode&& node)
{
    enter(input_, std::move(node));
}

void QueryDataHandler::pushToFilter(QueryNodeData&& data)
{
    enter(filter_, std::move(data));
}

void QueryDataHandler::pushToWrite(QueryNodeData&& data)
{
    enter(write_, std::move(data));
}

uint64_t QueryDataHandler::bytesInFlight() const
{
    // One stage at a time: a node moving on is counted in both stages for a moment, never in none.
    const auto bytesOf = [](const auto& stage)
    {
        std::lock_guard lock(stage.bytesMutex);
        return stage.bytes;
    };
    return bytesOf(input_) + bytesOf(filter_) + bytesOf(write_);
}

void QueryDataHandler::fail(QueryRun& run, const std::string& message)
{
    run.markFailed();
    {
        std::lock_guard lock(failureMutex_);
        failures_.push_back(message);
    }
    reportTo(errorLogger_, message);
}

void QueryDataHandler::finish(QueryRun& run, const GeometricFilterTraversalNode& node)
{
    signalNodeWritten(run, node);
}

void QueryDataHandler::signalNodeWritten(QueryRun& run, const GeometricFilterTraversalNode&)
{
    {
        std::lock_guard lock(progressMutex_);
        run.nodesFinished.fetch_add(1);
    }
    progress_.notify_all();
}

void QueryDataHandler::waitForRoom(const QueryRun& run, uint64_t bytes)
{
    std::unique_lock lock(progressMutex_);
    progress_.wait(lock,
                   [&]
                   {
                       const uint64_t inFlight = bytesInFlight();
                       return run.stopped() || inFlight == 0 ||
                              bytes <= settings_.memoryBudget - std::min(inFlight, settings_.memoryBudget);
                   });
}

void QueryDataHandler::waitForAll(const QueryRun& run)
{
    std::unique_lock lock(progressMutex_);
    progress_.wait(lock, [&] { return run.nodesFinished.load() == run.nodesQueued.load(); });
}

void QueryDataHandler::inputLoop()
{
    while (std::optional<QueryReadNode> next = input_.queue.pop())
    {
        QueryReadNode& node = *next;
        QueryRun& run = *node.run;
        const uint64_t bytes = node.bytes;
        const std::string name = run.blobName(node.node);
        if (!run.stopped() && !readBlob_(name, node.buffer))
        {
            fail(run, "Failed to read node file=" + name + "; the data set lacks it or it could not be read.");
        }
        if (run.stopped())
        {
            leave(input_, bytes);
            finish(run, node.node);
            continue;
        }
        QueryNodeData data{std::move(node.run), node.node, node.priority, bytes, {}, std::move(node.buffer)};
        pushToFilter(std::move(data));
        leave(input_, bytes);
    }
}

void QueryDataHandler::processingLoop()
{
    QueryWorker worker;
    while (std::optional<QueryNodeData> next = filter_.queue.pop([this] { return pauseProcessing_.load(); }))
    {
        QueryNodeData& data = *next;
        QueryRun& run = *data.run;
        const uint64_t bytes = data.bytes;
        std::string error;
        if (!run.stopped() && !run.process(data, worker, error))
        {
            fail(run, error);
        }
        if (run.stopped())
        {
            leave(filter_, bytes);
            finish(run, data.node);
            continue;
        }
        pushToWrite(std::move(data));
        leave(filter_, bytes);
    }
}

void QueryDataHandler::writeLoop()
{
    while (std::optional<QueryNodeData> next = write_.queue.pop())
    {
        QueryNodeData& data = *next;
        QueryRun& run = *data.run;
        std::string error;
        if (!run.stopped() && !run.write(data, error))
        {
            if (error.empty())
            {
                run.markCancelled();
            }
            else
            {
                fail(run, error);
            }
        }
        // The records go before the node counts as written, so that the walk's budget sees them gone.
        data.records = {};
        leave(write_, data.bytes);
        signalNodeWritten(run, data.node);
    }
}

bool QueryDataHandler::changeLayout(const std::vector<Attribute>& attributes, uint32_t recordSize)
{
    std::lock_guard layoutLock(layoutMutex_);
    // Any queued read refuses the change at once rather than polling until the queue runs low: a queued read
    // belongs to a running query, which keeps the layout it started with, and a caller gets its answer now.
    if (!input_.queue.empty())
    {
        return false;
    }
    // The processing pool is stopped and started again around the change, so that no thread is between two
    // nodes with the old layout's sizes.
    pauseProcessing_.store(true);
    filter_.queue.wakeWaiters();
    joinAll(processingThreads_);
    attributes_ = attributes;
    recordSize_ = recordSize;
    pointsPerBatch_ = recordSize > 0 ? settings_.cacheSize / recordSize : 0;
    pauseProcessing_.store(false);
    startProcessing();
    return true;
}

uint64_t QueryDataHandler::pointsPerBatch() const
{
    std::lock_guard lock(layoutMutex_);
    return pointsPerBatch_;
}

std::vector<std::string> QueryDataHandler::failures() const
{
    std::lock_guard lock(failureMutex_);
    return failures_;
}

}  // namespace HSPC
