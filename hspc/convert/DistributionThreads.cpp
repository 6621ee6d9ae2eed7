#include <algorithm>
#include <queue>
#include <string>

#include "hspc/convert/DistributionNodeCompression.h"
#include "hspc/convert/DistributionStage.h"
#include "hspc/convert/LeafDistribution.h"
#include "hspc/convert/MortonRecords.h"
#include "hspc/convert/RunSliceReader.h"
#include "hspc/format/NodeBlobName.h"

namespace HSPC
{

namespace
{

// Below this many compressed nodes waiting for a writer, compressing comes before anything else.
constexpr std::size_t kWriterQueueShort = 10;

template <typename W>
void deleteRunFile(DistributionStage<W>& stage, uint32_t run)
{
    const std::string name = stage.input.tempPointFile(stage.input.readList()[run].fileNumber);
    if (!stage.input.tempFiles().remove(name))
    {
        reportTo(stage.config.warningLogger, "Could not delete temporary file=" + name);
    }
}

// Reads every slice of leaf read.readNumber into a piece of its own; a run whose last slice this was is
// forgotten by the reader and its temp file deleted.
template <typename W>
bool readLeaf(DistributionStage<W>& stage, RunSliceReader<W>& reader, ReadLeaf& read)
{
    const uint32_t leaf = read.readNumber;
    for (uint32_t s = stage.layout.sliceBegin[leaf]; s < stage.layout.sliceBegin[leaf + 1]; ++s)
    {
        const RunSlice& slice = stage.layout.slices[s];
        read.pieces.emplace_back();
        if (!reader.readRecords(slice, read.pieces.back()))
        {
            return false;
        }
        if (--stage.slicesLeft[slice.run] == 0)
        {
            reader.release(slice.run);
            deleteRunFile(stage, slice.run);
        }
    }
    return true;
}

// The sorted pieces of one leaf as one buffer sorted by Morton code.
template <typename W>
HSPCBuffer<uint8_t> mergePieces(std::vector<HSPCBuffer<uint8_t>>& pieces, uint32_t recordSize)
{
    if (pieces.size() == 1)
    {
        return std::move(pieces.front());
    }
    std::size_t bytes = 0;
    for (const HSPCBuffer<uint8_t>& piece : pieces)
    {
        bytes += piece.size();
    }
    HSPCBuffer<uint8_t> merged;
    merged.reserve(bytes);
    struct Head
    {
        MortonIndex3D<W> code;
        std::size_t piece;
        std::size_t offset;
    };
    const auto later = [](const Head& a, const Head& b) { return b.code < a.code; };
    std::vector<Head> heads;
    heads.reserve(pieces.size());
    for (std::size_t i = 0; i < pieces.size(); ++i)
    {
        if (!pieces[i].empty())
        {
            heads.push_back(Head{loadMortonKey<W>(pieces[i].data()), i, 0});
        }
    }
    std::priority_queue<Head, std::vector<Head>, decltype(later)> next(later, std::move(heads));
    while (!next.empty())
    {
        Head head = next.top();
        next.pop();
        const uint8_t* record = pieces[head.piece].data() + head.offset;
        merged.insert(merged.end(), record, record + recordSize);
        head.offset += recordSize;
        if (head.offset < pieces[head.piece].size())
        {
            head.code = loadMortonKey<W>(pieces[head.piece].data() + head.offset);
            next.push(head);
        }
    }
    pieces.clear();
    return merged;
}

// The upper tree's nodes that leaf `leaf` feeds get their pieces; a node whose last leaf this was goes on to
// be compressed.
template <typename W>
void deliverUpperPieces(DistributionStage<W>& stage, uint32_t leaf, std::vector<DistributionNode<W>>& pieces)
{
    const UpperTree<W>& upper = stage.layout.upper;
    for (uint32_t t = upper.leafTakeBegin[leaf]; t < upper.leafTakeBegin[leaf + 1]; ++t)
    {
        const uint32_t node = upper.leafTakes[t].node;
        const auto piece = std::find_if(pieces.begin(), pieces.end(), [&](const DistributionNode<W>& p)
                                        { return p.lod == upper.nodes[node].lod; });
        DistributionNode<W> given;
        if (piece != pieces.end())
        {
            given = std::move(*piece);
        }
        if (std::optional<DistributionNode<W>> complete = stage.upperNodes.deliver(node, leaf, std::move(given)))
        {
            stage.manager.compressQueue().push(std::move(*complete));
        }
    }
}

template <typename W>
bool distributeJob(DistributionStage<W>& stage)
{
    std::optional<ReadLeaf> read = stage.manager.takeReadyLeaf();
    if (!read)
    {
        return false;
    }
    const uint32_t leaf = read->readNumber;
    const UpperTree<W>& upper = stage.layout.upper;
    std::array<uint64_t, 65> upperTakes{};
    for (uint32_t t = upper.leafTakeBegin[leaf]; t < upper.leafTakeBegin[leaf + 1]; ++t)
    {
        upperTakes[upper.nodes[upper.leafTakes[t].node].lod] = upper.leafTakes[t].points;
    }
    HSPCBuffer<uint8_t> records = mergePieces<W>(read->pieces, stage.config.encodedRecordSize);
    LeafDistribution<W> result;
    if (!records.empty())
    {
        LeafDistributionRequest<W> request;
        request.records = records;
        request.recordSize = stage.config.encodedRecordSize;
        request.leafIndex = upper.leaves[leaf].index;
        request.leafEntryLod = upper.leaves[leaf].lod;
        request.takes = stage.layout.takes;
        request.upperTake = [&upperTakes](unsigned lod) { return upperTakes[std::min(lod, 64u)]; };
        request.maxNodeSize = stage.config.maxNodeSize;
        request.filterDuplicates = stage.config.filterDuplicates;
        if (!distributeLeaf(request, result, stage.config.errorLogger))
        {
            stage.manager.markFailed(makeFailure(FailureCode::kStage, "Could not distribute points onto nodes."));
            return true;
        }
    }
    records = {};
    for (DistributionNode<W>& node : result.nodes)
    {
        stage.manager.compressQueue().push(std::move(node));
    }
    deliverUpperPieces(stage, leaf, result.upperPieces);
    // Dropped duplicates count as done, so that the progress reaches 100 and the total adds up.
    stage.manager.reportPointsDone(result.droppedDuplicates);
    return true;
}

template <typename W>
bool compressJob(DistributionStage<W>& stage, DistributionWorkerTools& tools)
{
    std::optional<DistributionNode<W>> node = stage.manager.compressQueue().tryPop();
    if (!node)
    {
        return false;
    }
    std::string error;
    const LogFunction log = [&](const std::string& text)
    {
        error = text;
        reportTo(stage.config.errorLogger, text);
    };
    const NodePlacement placement{stage.config.scale, stage.config.origin};
    if (!compressDistributionNode(*node, tools.statistics, *tools.compressor, placement, tools.scratch, log))
    {
        stage.manager.markFailed(makeFailure(FailureCode::kStage, error));
        return true;
    }
    const uint32_t points = node->pointCount;
    stage.manager.writerQueue().push(std::move(*node));
    stage.manager.reportPointsDone(points);
    return true;
}

template <typename W>
bool readJob(DistributionStage<W>& stage)
{
    std::optional<ReadLeaf> leaf = stage.manager.readQueue().tryPop();
    if (!leaf)
    {
        return false;
    }
    stage.manager.addToLeafCache(std::move(*leaf));
    return true;
}

enum class Job
{
    kCompress = 0,
    kDistribute = 1,
    kRead = 2,
    kNone = 3,
};

// Compressing comes first while the writers are short of work. Otherwise a read job when no leaf is ready,
// and else the jobs in an order drawn at random, taking the first whose downstream load is at most the
// average of the four buffers, or the last possible one.
template <typename W>
Job chooseJob(StaticPointDistributionProcessHandler<W>& manager, std::minstd_rand& random)
{
    const bool canCompress = !manager.compressQueue().empty();
    if (canCompress && manager.writerQueue().size() < kWriterQueueShort)
    {
        return Job::kCompress;
    }
    const uint64_t writerBytes = manager.writerQueue().bytes();
    const uint64_t compressBytes = manager.compressQueue().bytes();
    const uint64_t cacheBytes = manager.leafCacheBytes();
    const uint64_t average = (writerBytes + compressBytes + cacheBytes + manager.readQueue().bytes()) / 4;
    const bool leafReady = manager.leafReady();
    const bool canRead = !manager.readQueue().empty();
    if (!leafReady && canRead)
    {
        return Job::kRead;
    }
    const std::array<bool, 3> possible{canCompress, leafReady, canRead};
    const std::array<uint64_t, 3> load{writerBytes, compressBytes, cacheBytes};
    const unsigned first = unsigned(random() % 3);
    Job lastPossible = Job::kNone;
    for (unsigned k = 0; k < 3; ++k)
    {
        const unsigned job = (first + k) % 3;
        if (!possible[job])
        {
            continue;
        }
        if (load[job] <= average)
        {
            return Job(job);
        }
        lastPossible = Job(job);
    }
    return lastPossible;
}

template <typename W>
bool runOneJob(DistributionStage<W>& stage, DistributionWorkerTools& tools)
{
    const Job job = chooseJob(stage.manager, tools.random);
    if (job == Job::kNone)
    {
        return false;
    }
    stage.manager.beginJob();
    bool done = false;
    switch (job)
    {
    case Job::kCompress:
        done = compressJob(stage, tools);
        break;
    case Job::kDistribute:
        done = distributeJob(stage);
        break;
    case Job::kRead:
        done = readJob(stage);
        break;
    case Job::kNone:
        break;
    }
    stage.manager.endJob();
    return done;
}

}  // namespace

template <typename W>
DistributionStage<W>::DistributionStage(const RuntimeConfig& config_, PointDistributionInputHandler<W>& input_,
                                        const DistributionLayout<W>& layout_,
                                        StaticPointDistributionProcessHandler<W>& manager_, RootWriter& writer_)
    : config(config_),
      input(input_),
      layout(layout_),
      manager(manager_),
      writer(writer_),
      upperNodes(layout_.upper),
      slicesLeft(std::make_unique<std::atomic<uint32_t>[]>(input_.readList().size()))
{
    for (const RunSlice& slice : layout.slices)
    {
        ++slicesLeft[slice.run];
    }
}

template <typename W>
void runLeafReader(DistributionStage<W>& stage, uint32_t readerIndex, uint32_t readerCount)
{
    StaticPointDistributionProcessHandler<W>& manager = stage.manager;
    RunSliceReader<W> reader(stage.input);
    const uint32_t leafCount = uint32_t(stage.layout.upper.leaves.size());
    for (uint32_t leaf = readerIndex; leaf < leafCount && !manager.failed(); leaf += readerCount)
    {
        for (uint64_t seen = manager.changeCount(); manager.shouldWaitForMemory(leaf); seen = manager.changeCount())
        {
            manager.waitForChange(seen);
        }
        ReadLeaf read{leaf, {}};
        if (!readLeaf(stage, reader, read))
        {
            const std::string failure = "Could not read leaf data for iRead=" + std::to_string(leaf);
            reportTo(stage.config.errorLogger, failure);
            manager.markFailed(makeFailure(FailureCode::kStage, failure));
            break;
        }
        manager.readQueue().push(std::move(read));
        manager.notifyChange();
    }
    manager.reportInputFinished();
}

template <typename W>
void runDistributionWorker(DistributionStage<W>& stage, DistributionWorkerTools& tools)
{
    StaticPointDistributionProcessHandler<W>& manager = stage.manager;
    while (manager.shouldKeepWorking())
    {
        const uint64_t seen = manager.changeCount();
        if (!runOneJob(stage, tools))
        {
            manager.waitForChange(seen);
        }
    }
    manager.reportWorkerFinished();
}

template <typename W>
void runNodeWriter(DistributionStage<W>& stage)
{
    StaticPointDistributionProcessHandler<W>& manager = stage.manager;
    const auto stop = [&manager] { return manager.allWorkersDone() || manager.failed(); };
    while (std::optional<DistributionNode<W>> node = manager.writerQueue().pop(stop))
    {
        if (manager.failed())
        {
            continue;
        }
        const std::array<W, 3> corner = decodeMorton(node->index);
        const std::string name = nodeBlobName(node->lod, corner[0], corner[1], corner[2]);
        if (!stage.writer.write(name, node->data))
        {
            const std::string failure = "Failed to write node file=" + name;
            reportTo(stage.config.errorLogger, failure);
            manager.markFailed(makeFailure(FailureCode::kStage, failure));
            continue;
        }
        {
            std::lock_guard lock(stage.writtenMutex);
            stage.written.push_back(WrittenNode<W>{node->index, node->lod, node->pointCount, node->localMin,
                                                   node->localMax, node->data.size()});
        }
        node.reset();
        manager.notifyChange();
    }
}

template struct DistributionStage<uint32_t>;
template struct DistributionStage<uint64_t>;
template void runLeafReader(DistributionStage<uint32_t>&, uint32_t, uint32_t);
template void runLeafReader(DistributionStage<uint64_t>&, uint32_t, uint32_t);
template void runDistributionWorker(DistributionStage<uint32_t>&, DistributionWorkerTools&);
template void runDistributionWorker(DistributionStage<uint64_t>&, DistributionWorkerTools&);
template void runNodeWriter(DistributionStage<uint32_t>&);
template void runNodeWriter(DistributionStage<uint64_t>&);

}  // namespace HSPC
