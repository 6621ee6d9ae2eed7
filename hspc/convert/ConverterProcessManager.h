// The manager of one conversion stage: every thread of the stage reports through it (progress of reading,
// memory taken by batches in flight, failures) and asks it whether to go on. Each stage derives its own
// manager; this base holds what all of them share.
//
// Failure stops a stage in two ways at once: the running flag falls, so that readers stop fetching, and the
// memory in use jumps to kFailedMemoryMark, so that a reader waiting for memory looks at the flag at once.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <mutex>

#include "hspc/convert/ConversionFailure.h"

namespace HSPC
{

enum class ConversionState : uint8_t
{
    kReading = 0,
    kInputFinished = 1,
    kFailed = 2,
};

// The mean integer position of the most recent batch that reported one, for a preview of the data.
struct MeanPosition
{
    std::array<int64_t, 3> mean{};
    // Batch number that gave the mean; kNoRank before any batch reported.
    uint32_t rank = kNoRank;

    static constexpr uint32_t kNoRank = 0xffffffff;
};

class ConverterProcessManager
{
public:
    static constexpr uint64_t kFailedMemoryMark = 0x8000000000000000ull;

    explicit ConverterProcessManager(uint64_t memoryLimit);
    virtual ~ConverterProcessManager();

    ConverterProcessManager(const ConverterProcessManager&) = delete;
    ConverterProcessManager& operator=(const ConverterProcessManager&) = delete;

    virtual void markFailed(ConversionFailure failure) = 0;
    virtual bool shouldContinue() const;
    virtual void reportInputFinished() = 0;
    virtual void cancel() = 0;
    virtual bool isMemoryExceeded() const = 0;
    virtual ConversionFailures failures() const = 0;
    virtual bool hasWork() const;

    uint64_t memoryLimit() const { return m_memoryLimit; }
    uint64_t memoryInUse() const;
    void addMemoryInUse(uint64_t bytes);
    // Takes bytes back; never below zero, so that a release after a failure cannot wrap the count.
    void releaseMemory(uint64_t bytes);

    ConversionState state() const { return m_state.load(); }

    // Numbers handed out in order, one per call, from 0.
    uint32_t nextBatchNumber();

    // Keeps `mean` when `batchNumber` is the highest that reported so far.
    void reportMeanPosition(uint32_t batchNumber, const std::array<int64_t, 3>& mean);
    MeanPosition meanPosition() const;

protected:
    void setState(ConversionState state) { m_state.store(state); }
    void stopRunning() { m_running.store(false); }
    // For markFailed: holds readers back at once, see kFailedMemoryMark.
    void setMemoryFailed();

private:
    const uint64_t m_memoryLimit;

    mutable std::mutex m_counterMutex;
    uint32_t m_nextBatchNumber = 0;

    mutable std::mutex m_meanMutex;
    MeanPosition m_meanPosition;

    mutable std::mutex m_memoryMutex;
    uint64_t m_memoryInUse = 0;

    std::atomic<ConversionState> m_state{ConversionState::kReading};
    std::atomic<bool> m_running{true};
};

}  // namespace HSPC
