// The manager of the recomputation of critical cells. Reader threads take the run slices of the units in
// read order, read their Morton codes and hand them in; once all pieces of a unit are in, the unit is ready
// and a computing worker splits it. The manager holds the pieces in between and bounds their memory: a reader
// waits while the pieces held exceed the limit, as long as a ready unit is there whose worker will free some.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <vector>

#include "hspc/convert/ConverterProcessManager.h"
#include "hspc/convert/CriticalCellSplit.h"
#include "hspc/format/ConcurrentQueue.h"
#include "hspc/format/TrackedMemory.h"

namespace HSPC
{

// One slice of a unit to read: piece `piece` of unit `unit`.
struct BufferToProcess
{
    uint32_t unit = 0;
    uint32_t piece = 0;
    RunSlice slice;
};

// The Morton codes of a BufferToProcess, once read.
template <typename W>
struct RawTempBuffer
{
    uint32_t unit = 0;
    uint32_t piece = 0;
    std::vector<MortonIndex3D<W>> codes;
};

// A unit whose pieces are all read, taken by a worker.
template <typename W>
struct ReadyUnit
{
    uint32_t position = 0;
    std::vector<std::vector<MortonIndex3D<W>>> pieces;
};

template <typename W>
class LeafRecomputationProcessManager : public ConverterProcessManager
{
public:
    static constexpr const char* kCancelText = "Recomputation: process got cancelled!";

    LeafRecomputationProcessManager(uint64_t memoryLimit, uint32_t readerCount);

    // Takes the units and lays out the reads: units by the first run that holds their points, the pieces of
    // a unit in run order, so that runs are read front to back and a unit is complete soon after it starts.
    void initializeComputation(HSPCBuffer<NodeToProcess<W>>&& units);
    const HSPCBuffer<NodeToProcess<W>>& units() const { return m_units; }

    void markFailed(ConversionFailure failure) override;
    // False once failed; otherwise true while a unit is not finished.
    bool shouldContinue() const override;
    void reportInputFinished() override;
    void cancel() override;
    // The bytes of the pieces held, read but not yet split, above the limit. Never once failed.
    bool isMemoryExceeded() const override;
    ConversionFailures failures() const override;
    // For workers: false once failed, or once every unit is split.
    bool hasWork() const override;

    // For readers: the next slice to read, nothing when all are handed out or the stage failed.
    std::optional<BufferToProcess> nextRead();
    // Waits while isMemoryExceeded and a ready unit's worker is going to free memory.
    void waitForMemory();
    void deliver(RawTempBuffer<W>&& piece);

    // For workers: waits for a ready unit; nothing once failed or once all readers are through and no ready
    // unit is left.
    std::optional<ReadyUnit<W>> nextReadyUnit();
    void finishUnit(const ReadyUnit<W>& unit, RecomputedLeaves<W>&& leaves);

    // The finer leaves of each unit, in the order of units(); complete when the stage did not fail.
    std::vector<RecomputedLeaves<W>> takeResults() { return std::move(m_results); }

private:
    struct PendingUnit
    {
        std::vector<std::vector<MortonIndex3D<W>>> pieces;
        std::size_t arrived = 0;
    };

    void makeReady(uint32_t unit);
    void wakeAll();

    const uint32_t m_readerCount;
    HSPCBuffer<NodeToProcess<W>> m_units;
    std::vector<BufferToProcess> m_reads;
    std::vector<RecomputedLeaves<W>> m_results;

    std::mutex m_readMutex;
    std::size_t m_nextRead = 0;

    std::mutex m_pendingMutex;
    std::condition_variable m_memoryFreed;
    std::vector<PendingUnit> m_pending;
    // Units whose pieces are all in and that no worker has finished yet.
    std::size_t m_readyUnits = 0;
    ConcurrentQueue<uint32_t> m_ready;

    std::atomic<uint32_t> m_readersFinished{0};
    std::atomic<std::size_t> m_unitsLeft{0};

    mutable std::mutex m_failureMutex;
    ConversionFailures m_failures;
};

extern template class LeafRecomputationProcessManager<uint32_t>;
extern template class LeafRecomputationProcessManager<uint64_t>;

}  // namespace HSPC
