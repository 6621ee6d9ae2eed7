#include "hspc/convert/FirstStageWorker.h"

#include <optional>
#include <string>

#include "hspc/convert/MemoryReservation.h"
#include "hspc/convert/MortonSort.h"
#include "hspc/convert/PositionEncoding.h"
#include "hspc/format/Loggers.h"

namespace HSPC
{

namespace
{

template <typename W>
void failBatch(StaticRawSortProcessHandler<W>& manager, const std::string& text)
{
    reportTo(manager.config().errorLogger, text);
    manager.markFailed(makeFailure(FailureCode::kBatchProcessing, text));
}

PositionLayout positionLayout(const RuntimeConfig& config)
{
    return PositionLayout{config.inputAttributes.front().type, config.inputRecordSize, config.encodedRecordSize,
                          config.origin, config.scale};
}

}  // namespace

template <typename W>
void processFirstStage(StaticRawSortProcessHandler<W>& manager, FirstStageCollector<W>& collector,
                       RawBatch& batch)
{
    const RuntimeConfig& config = manager.config();
    MemoryReservation reservation = MemoryReservation::adopt(manager, batch.reservedBytes);
    batch.reservedBytes = 0;

    HSPCBuffer<uint8_t> points;
    const bool converted = batch.importer->convertBatch(batch.data, points);
    batch.data = HSPCBuffer<uint8_t>();
    reservation.resize(points.capacity());
    if (!converted)
    {
        failBatch(manager, "processFirstStage: Failed to convert points.");
        return;
    }
    if (config.inputRecordSize == 0 || points.size() % config.inputRecordSize != 0)
    {
        failBatch(manager, "processFirstStage: output size from encodingPoints is not a multiple of point size.");
        return;
    }
    if (points.empty())
    {
        return;
    }
    if (!isMortonType(config.inputAttributes.front().type))
    {
        const std::optional<std::string> error = encodePosition<W>(points, positionLayout(config));
        reservation.resize(points.capacity());
        if (error)
        {
            reportTo(config.errorLogger, *error);
            failBatch(manager, "processFirstStage: could not encode position.");
            return;
        }
    }
    sortRecordsByMorton<W>(points.data(), points.size() / config.encodedRecordSize, config.encodedRecordSize);
    if (config.convert && !collector.processor.process(points))
    {
        failBatch(manager, "processFirstStage: Failed to process buffer.");
    }
}

template <typename W>
PointTotals runFirstStageWorker(StaticRawSortProcessHandler<W>& manager)
{
    FirstStageCollector<W> collector(manager);
    while (manager.shouldKeepWorking())
    {
        std::optional<RawBatch> batch =
            manager.rawQueue().pop([&] { return manager.state() != ConversionState::kReading; });
        if (!batch)
        {
            continue;
        }
        if (manager.state() == ConversionState::kFailed)
        {
            // Only the memory of a batch that nobody will process is taken back.
            MemoryReservation::adopt(manager, batch->reservedBytes);
            continue;
        }
        processFirstStage(manager, collector, *batch);
    }
    return finishWorker(manager, collector.processor);
}

template <typename W>
PointTotals finishWorker(StaticRawSortProcessHandler<W>& manager, StaticPointProcessor<W>& processor)
{
    const PointTotals totals{processor.pointsSeen(), processor.pointsFiltered()};
    if (!manager.input().addWorkerResults(processor.takeResults(), processor.statistics()))
    {
        manager.markFailed(makeFailure(FailureCode::kBatchProcessing,
                                       "StaticPointProcessor: could not determine range of attributes."));
    }
    manager.reportWorkerFinished();
    return totals;
}

template void processFirstStage(StaticRawSortProcessHandler<uint32_t>&, FirstStageCollector<uint32_t>&,
                                RawBatch&);
template void processFirstStage(StaticRawSortProcessHandler<uint64_t>&, FirstStageCollector<uint64_t>&,
                                RawBatch&);
template PointTotals runFirstStageWorker(StaticRawSortProcessHandler<uint32_t>&);
template PointTotals runFirstStageWorker(StaticRawSortProcessHandler<uint64_t>&);
template PointTotals finishWorker(StaticRawSortProcessHandler<uint32_t>&, StaticPointProcessor<uint32_t>&);
template PointTotals finishWorker(StaticRawSortProcessHandler<uint64_t>&, StaticPointProcessor<uint64_t>&);

}  // namespace HSPC
