#include "hspc/convert/LeafRecomputationProcessManager.h"

#include <algorithm>
#include <numeric>
#include <utility>

namespace HSPC
{

namespace
{

template <typename W>
uint64_t bytesOf(const std::vector<MortonIndex3D<W>>& codes)
{
    return uint64_t(codes.capacity()) * sizeof(MortonIndex3D<W>);
}

}  // namespace

template <typename W>
LeafRecomputationProcessManager<W>::LeafRecomputationProcessManager(uint64_t memoryLimit, uint32_t readerCount)
    : ConverterProcessManager(memoryLimit), m_readerCount(readerCount)
{
}

template <typename W>
void LeafRecomputationProcessManager<W>::initializeComputation(HSPCBuffer<NodeToProcess<W>>&& units)
{
    m_units = std::move(units);
    m_pending.assign(m_units.size(), PendingUnit{});
    m_results.assign(m_units.size(), RecomputedLeaves<W>{});
    m_unitsLeft.store(m_units.size());
    std::vector<uint32_t> order(m_units.size());
    std::iota(order.begin(), order.end(), 0u);
    const auto firstRun = [this](uint32_t unit)
    { return m_units[unit].slices.empty() ? 0u : m_units[unit].slices.front().run; };
    std::stable_sort(order.begin(), order.end(),
                     [&](uint32_t a, uint32_t b) { return firstRun(a) < firstRun(b); });
    for (uint32_t unit : order)
    {
        const std::vector<RunSlice>& slices = m_units[unit].slices;
        m_pending[unit].pieces.resize(slices.size());
        for (uint32_t piece = 0; piece < slices.size(); ++piece)
        {
            m_reads.push_back(BufferToProcess{unit, piece, slices[piece]});
        }
        if (slices.empty())
        {
            std::lock_guard lock(m_pendingMutex);
            makeReady(unit);
        }
    }
}

template <typename W>
void LeafRecomputationProcessManager<W>::markFailed(ConversionFailure failure)
{
    {
        std::lock_guard lock(m_failureMutex);
        setMemoryFailed();
        m_failures.push_back(std::move(failure));
        setState(ConversionState::kFailed);
        stopRunning();
    }
    wakeAll();
}

template <typename W>
bool LeafRecomputationProcessManager<W>::shouldContinue() const
{
    return state() != ConversionState::kFailed && m_unitsLeft.load() > 0;
}

template <typename W>
void LeafRecomputationProcessManager<W>::reportInputFinished()
{
    ++m_readersFinished;
    m_ready.wakeWaiters();
}

template <typename W>
void LeafRecomputationProcessManager<W>::cancel()
{
    markFailed(makeFailure(FailureCode::kCancelled, kCancelText));
}

template <typename W>
bool LeafRecomputationProcessManager<W>::isMemoryExceeded() const
{
    return state() != ConversionState::kFailed && memoryInUse() > memoryLimit();
}

template <typename W>
ConversionFailures LeafRecomputationProcessManager<W>::failures() const
{
    std::lock_guard lock(m_failureMutex);
    return m_failures;
}

template <typename W>
bool LeafRecomputationProcessManager<W>::hasWork() const
{
    return shouldContinue();
}

template <typename W>
std::optional<BufferToProcess> LeafRecomputationProcessManager<W>::nextRead()
{
    std::lock_guard lock(m_readMutex);
    if (state() == ConversionState::kFailed || m_nextRead == m_reads.size())
    {
        return std::nullopt;
    }
    return m_reads[m_nextRead++];
}

template <typename W>
void LeafRecomputationProcessManager<W>::waitForMemory()
{
    std::unique_lock lock(m_pendingMutex);
    // Without a ready unit no worker frees anything: waiting would never end, so the reader reads on and the
    // limit is exceeded by the unit being completed.
    m_memoryFreed.wait(lock, [this] { return !isMemoryExceeded() || m_readyUnits == 0; });
}

template <typename W>
void LeafRecomputationProcessManager<W>::deliver(RawTempBuffer<W>&& piece)
{
    std::lock_guard lock(m_pendingMutex);
    addMemoryInUse(bytesOf(piece.codes));
    PendingUnit& pending = m_pending[piece.unit];
    pending.pieces[piece.piece] = std::move(piece.codes);
    if (++pending.arrived == pending.pieces.size())
    {
        makeReady(piece.unit);
    }
}

template <typename W>
void LeafRecomputationProcessManager<W>::makeReady(uint32_t unit)
{
    ++m_readyUnits;
    m_ready.push(uint32_t(unit));
}

template <typename W>
std::optional<ReadyUnit<W>> LeafRecomputationProcessManager<W>::nextReadyUnit()
{
    const std::optional<uint32_t> position = m_ready.pop(
        [this] { return state() == ConversionState::kFailed || m_readersFinished.load() == m_readerCount; });
    if (!position || state() == ConversionState::kFailed)
    {
        return std::nullopt;
    }
    std::lock_guard lock(m_pendingMutex);
    return ReadyUnit<W>{*position, std::move(m_pending[*position].pieces)};
}

template <typename W>
void LeafRecomputationProcessManager<W>::finishUnit(const ReadyUnit<W>& unit, RecomputedLeaves<W>&& leaves)
{
    {
        std::lock_guard lock(m_pendingMutex);
        for (const std::vector<MortonIndex3D<W>>& piece : unit.pieces)
        {
            releaseMemory(bytesOf(piece));
        }
        --m_readyUnits;
        m_results[unit.position] = std::move(leaves);
    }
    --m_unitsLeft;
    m_memoryFreed.notify_all();
}

template <typename W>
void LeafRecomputationProcessManager<W>::wakeAll()
{
    m_ready.wakeWaiters();
    {
        // Taken so that a reader between testing its wait and starting to wait cannot miss the call.
        std::lock_guard lock(m_pendingMutex);
    }
    m_memoryFreed.notify_all();
}

template class LeafRecomputationProcessManager<uint32_t>;
template class LeafRecomputationProcessManager<uint64_t>;

}  // namespace HSPC
