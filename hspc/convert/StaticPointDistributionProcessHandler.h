// The manager of the point distribution: read threads, distribution workers and node writers report to it
// and ask it whether to go on. It holds what passes between them: the read queue (leaves as read, handed on
// in read order), the leaf cache (leaves ready to distribute), the compress queue (finished nodes) and the
// writer queue (compressed nodes), each with the bytes it holds, and it bounds the stage's memory by the
// process-wide tracked byte count.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <vector>

#include "hspc/convert/ConverterProcessManager.h"
#include "hspc/convert/DistributionNode.h"
#include "hspc/format/ConcurrentQueue.h"
#include "hspc/format/RuntimeConfig.h"
#include "hspc/format/TrackedMemory.h"

namespace HSPC
{

// One leaf as a read thread delivers it: the points of each of its slices, sorted by Morton code.
struct ReadLeaf
{
    // The leaf's position in the layout, which is its place in the read order.
    uint32_t readNumber = 0;
    std::vector<HSPCBuffer<uint8_t>> pieces;
};

// A queue that knows the bytes it holds, for the load rule by which workers choose their jobs.
template <typename T>
class MeasuredQueue
{
public:
    MeasuredQueue() = default;
    explicit MeasuredQueue(typename ConcurrentQueue<T>::Before before) : m_queue(std::move(before)) {}

    void push(T&& item)
    {
        m_bytes += heldBytes(item);
        m_queue.push(std::move(item));
    }
    std::optional<T> tryPop() { return taken(m_queue.tryPop()); }
    template <typename Stop>
    std::optional<T> pop(Stop&& stop)
    {
        return taken(m_queue.pop(std::forward<Stop>(stop)));
    }
    void wakeWaiters() { m_queue.wakeWaiters(); }
    bool empty() const { return m_queue.empty(); }
    std::size_t size() const { return m_queue.size(); }
    uint64_t bytes() const { return m_bytes.load(); }

private:
    std::optional<T> taken(std::optional<T> item)
    {
        if (item)
        {
            m_bytes -= heldBytes(*item);
        }
        return item;
    }

    ConcurrentQueue<T> m_queue;
    std::atomic<uint64_t> m_bytes{0};
};

uint64_t heldBytes(const ReadLeaf& leaf);
template <typename W>
uint64_t heldBytes(const DistributionNode<W>& node)
{
    return node.data.capacity();
}

template <typename W>
class StaticPointDistributionProcessHandler : public ConverterProcessManager
{
public:
    static constexpr const char* kCancelText = "Distribution main thread: process got cancelled!";

    StaticPointDistributionProcessHandler(const RuntimeConfig& config, uint32_t readerCount, uint32_t workerCount,
                                          uint64_t totalPoints);

    void markFailed(ConversionFailure failure) override;
    // A read thread is through its share of the leaves.
    void reportInputFinished() override;
    void cancel() override;
    bool isMemoryExceeded() const override;
    ConversionFailures failures() const override;
    // Whether leaf `readNumber` is the next to be distributed; false once failed, and once nothing is left in
    // the leaf cache and the queues after all leaves have been read.
    bool hasLeafWork(uint32_t readNumber) const;
    void reportWorkerFinished();

    // Progress from 50 to 100 by the points that reached the compress job (or were dropped as duplicates).
    void reportPointsDone(uint64_t points);
    uint64_t pointsDone() const;

    // For workers: false once failed, or once everything is read and no queue, cache or job holds anything.
    bool shouldKeepWorking() const;
    bool allWorkersDone() const { return m_allWorkersDone.load(); }
    bool failed() const { return state() == ConversionState::kFailed; }

    // For read threads: whether to hold off reading leaf `readNumber`. Only while the memory is exceeded and
    // something downstream can free it: the leaf that is to be distributed next is never held back, so that
    // the workers always have a way forward.
    bool shouldWaitForMemory(uint32_t readNumber) const;

    MeasuredQueue<ReadLeaf>& readQueue() { return m_readQueue; }
    MeasuredQueue<DistributionNode<W>>& compressQueue() { return m_compressQueue; }
    MeasuredQueue<DistributionNode<W>>& writerQueue() { return m_writerQueue; }

    // The leaf cache: leaves taken from the read queue, handed to the distribute job in read order.
    void addToLeafCache(ReadLeaf&& leaf);
    bool leafReady() const;
    std::optional<ReadLeaf> takeReadyLeaf();
    uint64_t leafCacheBytes() const;

    // Jobs under way: a worker counts itself in before it takes an item, so that a queue that looks empty
    // while it works on the item does not end the stage.
    void beginJob() { ++m_activeJobs; }
    void endJob();

    // Something changed that may give a waiting thread work or room: wakes them all.
    void notifyChange();
    // Waits until notifyChange has been called after `seen` was taken from changeCount, or the stage fails.
    // A wait is also ended after a short while, for memory that the tracked count frees without a call here.
    void waitForChange(uint64_t seen);
    uint64_t changeCount() const;

    const RuntimeConfig& config() const { return m_config; }

private:
    bool downstreamHoldsWork() const;

    const RuntimeConfig& m_config;
    const uint32_t m_readerCount;
    const uint32_t m_workerCount;
    const uint64_t m_totalPoints;

    MeasuredQueue<ReadLeaf> m_readQueue;
    MeasuredQueue<DistributionNode<W>> m_compressQueue;
    MeasuredQueue<DistributionNode<W>> m_writerQueue;

    mutable std::mutex m_cacheMutex;
    std::map<uint32_t, ReadLeaf> m_leafCache;
    uint32_t m_nextReady = 0;
    uint64_t m_leafCacheBytes = 0;

    std::atomic<uint32_t> m_readersFinished{0};
    std::atomic<uint32_t> m_workersFinished{0};
    std::atomic<bool> m_allRead{false};
    std::atomic<bool> m_allWorkersDone{false};
    std::atomic<uint32_t> m_activeJobs{0};

    mutable std::mutex m_progressMutex;
    float m_progressMark = 0.0f;
    uint64_t m_pointsDone = 0;

    mutable std::mutex m_failureMutex;
    ConversionFailures m_failures;

    mutable std::mutex m_changeMutex;
    std::condition_variable m_change;
    uint64_t m_changeCount = 0;
};

extern template class StaticPointDistributionProcessHandler<uint32_t>;
extern template class StaticPointDistributionProcessHandler<uint64_t>;

}  // namespace HSPC
