#include "hspc/convert/ConverterProcessManager.h"

#include <algorithm>

namespace HSPC
{

ConverterProcessManager::ConverterProcessManager(uint64_t memoryLimit) : m_memoryLimit(memoryLimit) {}

ConverterProcessManager::~ConverterProcessManager() = default;

bool ConverterProcessManager::shouldContinue() const
{
    return m_running.load();
}

bool ConverterProcessManager::hasWork() const
{
    return false;
}

uint64_t ConverterProcessManager::memoryInUse() const
{
    std::lock_guard lock(m_memoryMutex);
    return m_memoryInUse;
}

void ConverterProcessManager::addMemoryInUse(uint64_t bytes)
{
    std::lock_guard lock(m_memoryMutex);
    m_memoryInUse += bytes;
}

void ConverterProcessManager::releaseMemory(uint64_t bytes)
{
    std::lock_guard lock(m_memoryMutex);
    m_memoryInUse -= std::min(bytes, m_memoryInUse);
}

void ConverterProcessManager::setMemoryFailed()
{
    std::lock_guard lock(m_memoryMutex);
    m_memoryInUse = kFailedMemoryMark;
}

uint32_t ConverterProcessManager::nextBatchNumber()
{
    std::lock_guard lock(m_counterMutex);
    return m_nextBatchNumber++;
}

void ConverterProcessManager::reportMeanPosition(uint32_t batchNumber, const std::array<int64_t, 3>& mean)
{
    std::lock_guard lock(m_meanMutex);
    if (m_meanPosition.rank == MeanPosition::kNoRank || batchNumber > m_meanPosition.rank)
    {
        m_meanPosition = MeanPosition{mean, batchNumber};
    }
}

MeanPosition ConverterProcessManager::meanPosition() const
{
    std::lock_guard lock(m_meanMutex);
    return m_meanPosition;
}

}  // namespace HSPC
