#include "hspc/convert/StaticPointDistributionProcessHandler.h"

#include <chrono>
#include <string>
#include <utility>

namespace HSPC
{

namespace
{

// The share of the target memory that the distribution's buffers may take; the rest is left to the
// workers' compressors and to what the caller runs beside the conversion.
uint64_t distributionMemoryLimit(const RuntimeConfig& config)
{
    return config.targetMemory / 3 * 2;
}

// How long a waiting thread sleeps at most before it looks at the tracked memory again: buffers freed
// anywhere in the process lower it without telling the stage.
constexpr std::chrono::milliseconds kLongestWait{50};

}  // namespace

uint64_t heldBytes(const ReadLeaf& leaf)
{
    uint64_t bytes = 0;
    for (const HSPCBuffer<uint8_t>& piece : leaf.pieces)
    {
        bytes += piece.capacity();
    }
    return bytes;
}

template <typename W>
StaticPointDistributionProcessHandler<W>::StaticPointDistributionProcessHandler(const RuntimeConfig& config,
                                                                                uint32_t readerCount,
                                                                                uint32_t workerCount,
                                                                                uint64_t totalPoints)
    : ConverterProcessManager(distributionMemoryLimit(config)),
      m_config(config),
      m_readerCount(readerCount),
      m_workerCount(workerCount),
      m_totalPoints(totalPoints),
      m_readQueue([](const ReadLeaf& a, const ReadLeaf& b) { return a.readNumber < b.readNumber; }),
      m_progressMark(config.progressStep + 50.0f)
{
    if (readerCount == 0)
    {
        m_allRead.store(true);
    }
}

template <typename W>
void StaticPointDistributionProcessHandler<W>::markFailed(ConversionFailure failure)
{
    {
        std::lock_guard lock(m_failureMutex);
        setMemoryFailed();
        m_failures.push_back(std::move(failure));
        setState(ConversionState::kFailed);
        stopRunning();
    }
    notifyChange();
}

template <typename W>
void StaticPointDistributionProcessHandler<W>::reportInputFinished()
{
    if (++m_readersFinished == m_readerCount)
    {
        m_allRead.store(true);
    }
    notifyChange();
}

template <typename W>
void StaticPointDistributionProcessHandler<W>::cancel()
{
    markFailed(makeFailure(FailureCode::kCancelled, kCancelText));
}

template <typename W>
bool StaticPointDistributionProcessHandler<W>::isMemoryExceeded() const
{
    return !failed() && trackedByteCount() > memoryLimit();
}

template <typename W>
ConversionFailures StaticPointDistributionProcessHandler<W>::failures() const
{
    std::lock_guard lock(m_failureMutex);
    return m_failures;
}

template <typename W>
bool StaticPointDistributionProcessHandler<W>::hasLeafWork(uint32_t readNumber) const
{
    if (failed() || (m_allRead.load() && !downstreamHoldsWork() && m_readQueue.empty()))
    {
        return false;
    }
    std::lock_guard lock(m_cacheMutex);
    return readNumber == m_nextReady;
}

template <typename W>
void StaticPointDistributionProcessHandler<W>::reportWorkerFinished()
{
    if (++m_workersFinished == m_workerCount)
    {
        m_allWorkersDone.store(true);
    }
    notifyChange();
}

template <typename W>
void StaticPointDistributionProcessHandler<W>::reportPointsDone(uint64_t points)
{
    if (points == 0 || m_totalPoints == 0)
    {
        return;
    }
    std::lock_guard lock(m_progressMutex);
    m_pointsDone += points;
    const float progress = (float(double(m_pointsDone) / double(m_totalPoints)) + 1.0f) * 50.0f;
    if (progress > m_progressMark)
    {
        if (m_config.progressLogger)
        {
            m_config.progressLogger(int(progress), "Finished converting point nr. " + std::to_string(m_pointsDone));
        }
        m_progressMark += m_config.progressStep;
    }
}

template <typename W>
uint64_t StaticPointDistributionProcessHandler<W>::pointsDone() const
{
    std::lock_guard lock(m_progressMutex);
    return m_pointsDone;
}

template <typename W>
bool StaticPointDistributionProcessHandler<W>::downstreamHoldsWork() const
{
    if (m_activeJobs.load() > 0 || !m_compressQueue.empty())
    {
        return true;
    }
    std::lock_guard lock(m_cacheMutex);
    return !m_leafCache.empty();
}

template <typename W>
bool StaticPointDistributionProcessHandler<W>::shouldKeepWorking() const
{
    if (failed())
    {
        return false;
    }
    // All read is looked at first: a leaf pushed before the last reader reported is then seen below.
    return !m_allRead.load() || !m_readQueue.empty() || downstreamHoldsWork();
}

template <typename W>
bool StaticPointDistributionProcessHandler<W>::shouldWaitForMemory(uint32_t readNumber) const
{
    if (!isMemoryExceeded() || hasLeafWork(readNumber))
    {
        return false;
    }
    // Nodes in the writer queue are freed by the writers, whatever the workers do.
    return downstreamHoldsWork() || !m_readQueue.empty() || !m_writerQueue.empty();
}

template <typename W>
void StaticPointDistributionProcessHandler<W>::addToLeafCache(ReadLeaf&& leaf)
{
    {
        std::lock_guard lock(m_cacheMutex);
        m_leafCacheBytes += heldBytes(leaf);
        const uint32_t readNumber = leaf.readNumber;
        m_leafCache.emplace(readNumber, std::move(leaf));
    }
    notifyChange();
}

template <typename W>
bool StaticPointDistributionProcessHandler<W>::leafReady() const
{
    std::lock_guard lock(m_cacheMutex);
    return !m_leafCache.empty() && m_leafCache.begin()->first == m_nextReady;
}

template <typename W>
std::optional<ReadLeaf> StaticPointDistributionProcessHandler<W>::takeReadyLeaf()
{
    std::lock_guard lock(m_cacheMutex);
    if (m_leafCache.empty() || m_leafCache.begin()->first != m_nextReady)
    {
        return std::nullopt;
    }
    std::optional<ReadLeaf> leaf(std::move(m_leafCache.begin()->second));
    m_leafCache.erase(m_leafCache.begin());
    m_leafCacheBytes -= heldBytes(*leaf);
    ++m_nextReady;
    return leaf;
}

template <typename W>
uint64_t StaticPointDistributionProcessHandler<W>::leafCacheBytes() const
{
    std::lock_guard lock(m_cacheMutex);
    return m_leafCacheBytes;
}

template <typename W>
void StaticPointDistributionProcessHandler<W>::endJob()
{
    --m_activeJobs;
    notifyChange();
}

template <typename W>
void StaticPointDistributionProcessHandler<W>::notifyChange()
{
    {
        std::lock_guard lock(m_changeMutex);
        ++m_changeCount;
    }
    m_change.notify_all();
    m_writerQueue.wakeWaiters();
}

template <typename W>
void StaticPointDistributionProcessHandler<W>::waitForChange(uint64_t seen)
{
    std::unique_lock lock(m_changeMutex);
    m_change.wait_for(lock, kLongestWait, [&] { return m_changeCount != seen || failed(); });
}

template <typename W>
uint64_t StaticPointDistributionProcessHandler<W>::changeCount() const
{
    std::lock_guard lock(m_changeMutex);
    return m_changeCount;
}

template class StaticPointDistributionProcessHandler<uint32_t>;
template class StaticPointDistributionProcessHandler<uint64_t>;

}  // namespace HSPC
