#include <chrono>
#include <thread>

#include "hspc/convert/MemoryReservation.h"
#include "hspc/convert/RawSortThreads.h"
#include "hspc/format/Loggers.h"

namespace HSPC
{

namespace
{

constexpr std::chrono::milliseconds kMemoryPoll{20};

// Reads one importer to its end; false when it failed and the stage was told.
template <typename W>
bool readImporter(StaticRawSortProcessHandler<W>& manager, const AssignedImporter& assigned)
{
    const uint64_t batchSize = manager.config().batchSize;
    while (manager.shouldContinue())
    {
        // The running flag is asked too: after a failed read the memory stays marked as exceeded.
        while (manager.shouldContinue() && manager.isMemoryExceeded())
        {
            std::this_thread::sleep_for(kMemoryPoll);
        }
        if (!manager.shouldContinue())
        {
            break;
        }
        MemoryReservation reservation(manager, batchSize);
        RawBatch batch;
        const ReadResult result = assigned.importer->readBatch(batch.data, batchSize);
        if (result == ReadResult::kData && !batch.data.empty())
        {
            batch.batchNumber = manager.nextBatchNumber();
            batch.importerIndex = assigned.index;
            batch.importer = assigned.importer;
            reservation.resize(batch.data.capacity());
            batch.reservedBytes = reservation.handOver();
            manager.rawQueue().push(std::move(batch));
        }
        if (result == ReadResult::kRequestFailed)
        {
            reportTo(manager.config().errorLogger, "inputBuffer: request failed.");
            manager.markFailed(makeFailure(FailureCode::kInputRead, "inputReadingFromDisk: file reading failed."));
            return false;
        }
        if (result != ReadResult::kData)
        {
            break;
        }
    }
    return true;
}

}  // namespace

template <typename W>
void runInputThread(StaticRawSortProcessHandler<W>& manager, const std::vector<AssignedImporter>& importers)
{
    for (const AssignedImporter& assigned : importers)
    {
        if (!manager.shouldContinue() || !readImporter(manager, assigned))
        {
            break;
        }
    }
    manager.reportInputFinished();
}

template void runInputThread(StaticRawSortProcessHandler<uint32_t>&, const std::vector<AssignedImporter>&);
template void runInputThread(StaticRawSortProcessHandler<uint64_t>&, const std::vector<AssignedImporter>&);

}  // namespace HSPC
