// The manager of the raw sort: input threads, first-stage workers and temp writers report to it and ask it
// whether to go on. It holds the raw queue between readers and workers, and bounds the memory of the stage:
// batches being read, queued, processed or written, and the runs waiting for a temp writer.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

#include "hspc/convert/ConverterProcessManager.h"
#include "hspc/convert/Importer.h"
#include "hspc/convert/PointDistributionInputHandler.h"
#include "hspc/format/ConcurrentQueue.h"
#include "hspc/format/RuntimeConfig.h"
#include "hspc/format/TrackedMemory.h"

namespace HSPC
{

// What an input thread hands to the workers: one request's worth of an importer's points, as it gave them.
// The bytes reserved for it in the manager's memory in use travel with it and are released by the worker
// that has processed it.
struct RawBatch
{
    uint32_t batchNumber = 0;
    uint32_t importerIndex = 0;
    HSPCBuffer<uint8_t> data;
    Importer* importer = nullptr;
    uint64_t reservedBytes = 0;
};

template <typename W>
class StaticRawSortProcessHandler : public ConverterProcessManager
{
public:
    static constexpr const char* kCancelText = "Recording main thread: process got cancelled!";

    StaticRawSortProcessHandler(const RuntimeConfig& config, PointDistributionInputHandler<W>& input,
                                uint32_t readerCount, uint32_t workerCount);

    void markFailed(ConversionFailure failure) override;
    void reportInputFinished() override;
    void cancel() override;
    bool isMemoryExceeded() const override;
    ConversionFailures failures() const override;
    // For temp writers: false once failed, or once all workers are done and nothing is queued.
    bool hasWork() const override;
    void reportWorkerFinished();

    // For workers: false once failed, or once all input is read and the raw queue is empty.
    bool shouldKeepWorking() const;

    ConcurrentQueue<RawBatch>& rawQueue() { return m_rawQueue; }
    PointDistributionInputHandler<W>& input() { return m_input; }
    const RuntimeConfig& config() const { return m_config; }
    uint32_t workerCount() const { return m_workerCount; }
    // A change that may end waits of workers or temp writers: they look at their stop tests again.
    virtual void wakeAll();

protected:
    // For a stage that makes runs the way the raw sort does from another kind of input, with a memory share
    // of its own.
    StaticRawSortProcessHandler(const RuntimeConfig& config, PointDistributionInputHandler<W>& input,
                                uint32_t readerCount, uint32_t workerCount, uint64_t memoryLimit);
    // Whether workers go on: never once failed, always while input is read, and after that while their queue
    // still holds work (`queued`).
    bool keepsWorking(bool queued) const;

private:
    const RuntimeConfig& m_config;
    PointDistributionInputHandler<W>& m_input;
    const uint32_t m_readerCount;
    const uint32_t m_workerCount;
    ConcurrentQueue<RawBatch> m_rawQueue;

    std::atomic<uint32_t> m_readersFinished{0};
    std::atomic<uint32_t> m_workersFinished{0};
    std::atomic<bool> m_workersDone{false};

    mutable std::mutex m_failureMutex;
    ConversionFailures m_failures;
};

extern template class StaticRawSortProcessHandler<uint32_t>;
extern template class StaticRawSortProcessHandler<uint64_t>;

}  // namespace HSPC
