#include <optional>
#include <string>

#include "hspc/convert/RawSortThreads.h"
#include "hspc/format/Loggers.h"

namespace HSPC
{

namespace
{

enum class TempKind
{
    kPoints,
    kLeafBuffer,
    kRasterLeaf,
};

struct TempWork
{
    TempKind kind;
    TempFileData data;
    TempFileQueue* queue;
};

// The queues in the order a writer serves them; when all are empty it sleeps on the first.
template <typename W>
std::optional<TempWork> nextWork(StaticRawSortProcessHandler<W>& manager)
{
    PointDistributionInputHandler<W>& input = manager.input();
    if (std::optional<TempFileData> item = input.rawTempQueue().tryPop())
    {
        return TempWork{TempKind::kPoints, std::move(*item), &input.rawTempQueue()};
    }
    if (std::optional<TempFileData> item = input.leafBufferQueue().tryPop())
    {
        return TempWork{TempKind::kLeafBuffer, std::move(*item), &input.leafBufferQueue()};
    }
    if (std::optional<TempFileData> item = input.rasterLeafQueue().tryPop())
    {
        return TempWork{TempKind::kRasterLeaf, std::move(*item), &input.rasterLeafQueue()};
    }
    std::optional<TempFileData> item = input.rawTempQueue().pop([&] {
        return !manager.hasWork() || !input.leafBufferQueue().empty() || !input.rasterLeafQueue().empty();
    });
    if (!item)
    {
        return std::nullopt;
    }
    return TempWork{TempKind::kPoints, std::move(*item), &input.rawTempQueue()};
}

template <typename W>
std::string fileName(PointDistributionInputHandler<W>& input, const TempWork& work)
{
    switch (work.kind)
    {
    case TempKind::kPoints:
        return input.tempPointFile(work.data.fileNumber);
    case TempKind::kLeafBuffer:
        return input.leafBufferFile(work.data.fileNumber);
    case TempKind::kRasterLeaf:
        break;
    }
    return input.rasterLeafFile(work.data.fileNumber);
}

// The error text and the failure's text of a write that went wrong.
struct WriteFailureTexts
{
    std::string logged;
    std::string failure;
};

WriteFailureTexts failureTexts(TempKind kind, TempFileStore::WriteResult result, const std::string& name)
{
    constexpr const char* kCheckDisk = "; You might want to check your disk.";
    switch (kind)
    {
    case TempKind::kLeafBuffer:
        return {"Failed to write leaf buffer=" + name + kCheckDisk, "Failed to write to disk."};
    case TempKind::kRasterLeaf:
        return {"Failed to write raster leaf=" + name + kCheckDisk, "Failed to write to disk."};
    case TempKind::kPoints:
        break;
    }
    const std::string text = (result == TempFileStore::WriteResult::kOpenFailed ? "Failed to open file="
                                                                                 : "Failed to write to file=") +
                             name + kCheckDisk;
    return {text, text};
}

}  // namespace

template <typename W>
void runTempWriter(StaticRawSortProcessHandler<W>& manager)
{
    PointDistributionInputHandler<W>& input = manager.input();
    while (manager.hasWork())
    {
        std::optional<TempWork> work = nextWork(manager);
        if (!work)
        {
            continue;
        }
        const std::string name = fileName(input, *work);
        const TempFileStore::WriteResult result =
            input.tempFiles().write(name, work->data.bytes.data(), work->data.bytes.size());
        if (result != TempFileStore::WriteResult::kWritten)
        {
            const WriteFailureTexts texts = failureTexts(work->kind, result, name);
            reportTo(manager.config().errorLogger, texts.logged);
            manager.markFailed(makeFailure(FailureCode::kTempFile, texts.failure));
        }
        // Only now do the bytes leave the stage's memory: a reader waiting for memory sees them until then.
        work->queue->done(work->data);
    }
}

template void runTempWriter(StaticRawSortProcessHandler<uint32_t>&);
template void runTempWriter(StaticRawSortProcessHandler<uint64_t>&);

}  // namespace HSPC
