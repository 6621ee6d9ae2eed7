#include "hspc/convert/StaticRawSortProcessHandler.h"

#include <utility>

namespace HSPC
{

namespace
{

// The share of the target memory that batches of the raw sort may take; the rest is left to the workers'
// cell counts and to what the caller runs beside the conversion.
uint64_t rawSortMemoryLimit(const RuntimeConfig& config)
{
    return config.targetMemory / 3 * 2;
}

}  // namespace

template <typename W>
StaticRawSortProcessHandler<W>::StaticRawSortProcessHandler(const RuntimeConfig& config,
                                                            PointDistributionInputHandler<W>& input,
                                                            uint32_t readerCount, uint32_t workerCount)
    : StaticRawSortProcessHandler(config, input, readerCount, workerCount, rawSortMemoryLimit(config))
{
}

template <typename W>
StaticRawSortProcessHandler<W>::StaticRawSortProcessHandler(const RuntimeConfig& config,
                                                            PointDistributionInputHandler<W>& input,
                                                            uint32_t readerCount, uint32_t workerCount,
                                                            uint64_t memoryLimit)
    : ConverterProcessManager(memoryLimit),
      m_config(config),
      m_input(input),
      m_readerCount(readerCount),
      m_workerCount(workerCount)
{
    // Without input threads nobody would report the input finished.
    if (readerCount == 0)
    {
        setState(ConversionState::kInputFinished);
    }
}

template <typename W>
void StaticRawSortProcessHandler<W>::markFailed(ConversionFailure failure)
{
    {
        std::lock_guard lock(m_failureMutex);
        setMemoryFailed();
        // An input that could not be read ends the reading only: what was read is still sorted.
        const uint8_t code = failure.code;
        m_failures.push_back(std::move(failure));
        if (state() != ConversionState::kFailed)
        {
            setState(code == FailureCode::kInputRead ? ConversionState::kInputFinished : ConversionState::kFailed);
        }
        stopRunning();
    }
    wakeAll();
}

template <typename W>
void StaticRawSortProcessHandler<W>::reportInputFinished()
{
    {
        std::lock_guard lock(m_failureMutex);
        if (++m_readersFinished == m_readerCount && state() != ConversionState::kFailed)
        {
            setState(ConversionState::kInputFinished);
        }
    }
    wakeAll();
}

template <typename W>
void StaticRawSortProcessHandler<W>::cancel()
{
    markFailed(makeFailure(FailureCode::kCancelled, kCancelText));
}

template <typename W>
bool StaticRawSortProcessHandler<W>::isMemoryExceeded() const
{
    if (state() == ConversionState::kFailed)
    {
        return false;
    }
    const uint64_t inUse = memoryInUse();
    if (inUse > memoryLimit())
    {
        return true;
    }
    return inUse + m_input.queuedBytes() > memoryLimit();
}

template <typename W>
ConversionFailures StaticRawSortProcessHandler<W>::failures() const
{
    std::lock_guard lock(m_failureMutex);
    return m_failures;
}

template <typename W>
bool StaticRawSortProcessHandler<W>::hasWork() const
{
    if (state() == ConversionState::kFailed)
    {
        return false;
    }
    return !m_workersDone.load() || !m_input.queuesEmpty();
}

template <typename W>
void StaticRawSortProcessHandler<W>::reportWorkerFinished()
{
    if (++m_workersFinished == m_workerCount)
    {
        m_workersDone.store(true);
    }
    wakeAll();
}

template <typename W>
bool StaticRawSortProcessHandler<W>::shouldKeepWorking() const
{
    return keepsWorking(!m_rawQueue.empty());
}

template <typename W>
bool StaticRawSortProcessHandler<W>::keepsWorking(bool queued) const
{
    switch (state())
    {
    case ConversionState::kFailed:
        return false;
    case ConversionState::kReading:
        return true;
    case ConversionState::kInputFinished:
        break;
    }
    return queued;
}

template <typename W>
void StaticRawSortProcessHandler<W>::wakeAll()
{
    m_rawQueue.wakeWaiters();
    // Temp writers sleep on the first of their queues; a push onto the others wakes them there too.
    m_input.rawTempQueue().wakeWaiters();
}

template class StaticRawSortProcessHandler<uint32_t>;
template class StaticRawSortProcessHandler<uint64_t>;

}  // namespace HSPC
