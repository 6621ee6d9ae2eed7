#include "hspc/convert/InputLeafProcessHandler.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <system_error>
#include <thread>

#include "hspc/convert/FirstStageWorker.h"
#include "hspc/convert/MemoryReservation.h"
#include "hspc/convert/MortonSort.h"
#include "hspc/convert/RawSortThreads.h"
#include "hspc/convert/StageClock.h"
#include "hspc/convert/StageThreads.h"
#include "hspc/convert/StaticPointProcessor.h"
#include "hspc/format/Loggers.h"
#include "hspc/format/NodeDecompressor.h"
#include "hspc/format/NodeHeader.h"

namespace HSPC
{

namespace
{

constexpr std::chrono::milliseconds kMemoryPoll{20};
// The most points a node of any data set may hold, the largest node size a conversion accepts. A tree that
// claims more for a node is refused before anything is sized by the claim.
constexpr uint32_t kLargestNodePoints = 0x800000;

uint64_t alignedInputMemoryLimit(const RuntimeConfig& config)
{
    return config.targetMemory / 3;
}

template <typename W>
void failStage(InputLeafProcessHandler<W>& manager, const std::string& text, const std::string& detail = {})
{
    if (!detail.empty())
    {
        reportTo(manager.config().errorLogger, detail);
    }
    reportTo(manager.config().errorLogger, text);
    manager.markFailed(makeFailure(FailureCode::kBatchProcessing, text));
}

// What the stage shares between its threads, read-only while they run.
struct AlignedWork
{
    const std::vector<AlignedDataSet>& dataSets;
    std::vector<AlignedNodeGroup> groups;
    // The next group a read worker takes.
    std::atomic<std::size_t> next{0};
    // The most points of any node as the trees estimate them, bounded by kLargestNodePoints: what a decoder
    // is made for at first.
    uint32_t largestNode = 1;
};

// The points that a node's block holds, from its header: the tree a data set is opened by may be its reduced
// form, whose counts are estimates. Nothing, with the reason in `error`, for a block without a usable header.
std::optional<uint32_t> blockPointCount(const std::vector<uint8_t>& block, std::string& error)
{
    NodeHeader header;
    if (readNodeHeader(block, header) == 0)
    {
        error = "the block has no node header";
        return std::nullopt;
    }
    if (header.pointCount > kLargestNodePoints)
    {
        error = "the block's header gives " + std::to_string(header.pointCount) + " points, more than the " +
                std::to_string(kLargestNodePoints) + " a node may hold";
        return std::nullopt;
    }
    return uint32_t(header.pointCount);
}

template <typename W>
bool readGroup(InputLeafProcessHandler<W>& manager, const AlignedWork& work, const AlignedNodeGroup& group)
{
    const AlignedDataSet& dataSet = work.dataSets[group.dataSet];
    MemoryReservation reservation(manager, 0);
    ReadNodeGroup item{&group, std::vector<std::vector<uint8_t>>(group.nodes.size()), {}, 0, 0};
    for (std::size_t k = 0; k < group.nodes.size(); ++k)
    {
        std::string error;
        std::optional<uint32_t> count;
        if (!dataSet.readNodeBlock(group.nodes[k], item.blocks[k], error))
        {
            // A node without points has no block. The tree's count of a node is an estimate in the reduced
            // form, so a node it calls empty is read all the same, and taken as empty only when it has none.
            if (dataSet.tree->nodes[group.nodes[k]].pointCount == 0)
            {
                item.pointCounts.push_back(0);
                continue;
            }
        }
        else
        {
            count = blockPointCount(item.blocks[k], error);
        }
        if (!count)
        {
            failStage(manager, "Failed to read node = " + std::to_string(group.nodes[k]), error);
            return false;
        }
        item.pointCounts.push_back(*count);
        item.pointCount += *count;
        reservation.resize(reservation.bytes() + item.blocks[k].capacity());
    }
    item.reservedBytes = reservation.handOver();
    manager.groupQueue().push(std::move(item));
    return true;
}

template <typename W>
void runNodeReader(InputLeafProcessHandler<W>& manager, AlignedWork& work)
{
    while (manager.shouldContinue())
    {
        const std::size_t next = work.next++;
        if (next >= work.groups.size())
        {
            break;
        }
        // The running flag is asked too: after a failure the memory stays marked as exceeded.
        while (manager.shouldContinue() && manager.isMemoryExceeded())
        {
            std::this_thread::sleep_for(kMemoryPoll);
        }
        if (!manager.shouldContinue() || !readGroup(manager, work, work.groups[next]))
        {
            break;
        }
    }
    manager.reportInputFinished();
}

// One decode worker: the group's nodes decoded one after the other into one buffer of encoded records,
// sorted as a whole, and counted by the raw sort's leaf step.
template <typename W>
class GroupDecoder
{
public:
    GroupDecoder(InputLeafProcessHandler<W>& manager, const AlignedWork& work)
        : m_manager(manager),
          m_processor(manager, manager.input().blankStatistics()),
          m_decompressor(NodeDecompressor::create(work.largestNode)),
          m_actions(storedRecordActions(manager.config().encodingAttributes,
                                        manager.config().encodingAttributes.size(), m_stride))
    {
    }

    void decode(ReadNodeGroup& item, MemoryReservation& reservation)
    {
        if (!m_decompressor)
        {
            failStage(m_manager, "Failed to decompress node " + std::to_string(item.group->nodes.front()),
                      "no decoder could be made");
            return;
        }
        // Bounded: every count was checked against the largest node when the block was read.
        HSPCBuffer<uint8_t> records(std::size_t(item.pointCount) * m_stride);
        reservation.resize(reservation.bytes() + records.capacity());
        std::size_t filled = 0;
        for (std::size_t k = 0; k < item.blocks.size(); ++k)
        {
            const uint32_t count = item.pointCounts[k];
            if (count != 0 && !decodeNode(item.group->nodes[k], count, item.blocks[k], records.data() + filled * m_stride))
            {
                return;
            }
            filled += count;
            reservation.resize(reservation.bytes() - item.blocks[k].capacity());
            item.blocks[k] = std::vector<uint8_t>();
        }
        // Each node is sorted in itself; the group's nodes overlap in space, so their union is sorted anew.
        sortRecordsByMorton<W>(records.data(), filled, m_stride);
        if (!m_processor.process(records))
        {
            failStage(m_manager, "Failed to compute leaf for node.");
        }
    }

    PointTotals finish() { return finishWorker<W>(m_manager, m_processor); }

private:
    bool decodeNode(uint32_t node, uint32_t count, const std::vector<uint8_t>& block, uint8_t* out)
    {
        if (count > m_decompressor->pointLimit())
        {
            m_decompressor = NodeDecompressor::create(count);
        }
        NodeHeader header;
        std::string detail;
        const NodeOutput output{std::span<uint8_t>(out, std::size_t(count) * m_stride), m_stride, m_actions};
        if (!m_decompressor || !decompressNodeBlock(block, *m_decompressor, output, header,
                                                    [&detail](const std::string& text) { detail = text; }))
        {
            failStage(m_manager, "Failed to decompress node " + std::to_string(node),
                      !detail.empty() || !m_decompressor ? detail : m_decompressor->lastError());
            return false;
        }
        return true;
    }

    InputLeafProcessHandler<W>& m_manager;
    StaticPointProcessor<W> m_processor;
    std::unique_ptr<NodeDecompressor> m_decompressor;
    uint32_t m_stride = 0;
    const std::vector<OutputAction> m_actions;
};

template <typename W>
void runNodeDecoder(InputLeafProcessHandler<W>& manager, const AlignedWork& work)
{
    GroupDecoder<W> decoder(manager, work);
    while (manager.shouldKeepDecoding())
    {
        std::optional<ReadNodeGroup> item =
            manager.groupQueue().pop([&] { return manager.state() != ConversionState::kReading; });
        if (!item)
        {
            continue;
        }
        MemoryReservation reservation = MemoryReservation::adopt(manager, item->reservedBytes);
        if (manager.state() != ConversionState::kFailed)
        {
            decoder.decode(*item, reservation);
        }
    }
    decoder.finish();
}

void groupNodes(const RuntimeConfig& config, AlignedWork& work)
{
    const uint64_t groupPoints = std::max<uint64_t>(config.batchSize / std::max<uint32_t>(config.encodedRecordSize, 1), 1);
    for (uint32_t i = 0; i < work.dataSets.size(); ++i)
    {
        const Tree& tree = *work.dataSets[i].tree;
        std::vector<AlignedNodeGroup> groups = groupAlignedNodes(tree, i, groupPoints);
        std::move(groups.begin(), groups.end(), std::back_inserter(work.groups));
        for (const TreeNode& node : tree.nodes)
        {
            work.largestNode = std::max(work.largestNode, std::min(node.pointCount, kLargestNodePoints));
        }
    }
}

}  // namespace

template <typename W>
InputLeafProcessHandler<W>::InputLeafProcessHandler(const RuntimeConfig& config,
                                                    PointDistributionInputHandler<W>& input, uint32_t readerCount,
                                                    uint32_t workerCount)
    : StaticRawSortProcessHandler<W>(config, input, readerCount, workerCount, alignedInputMemoryLimit(config))
{
}

template <typename W>
void InputLeafProcessHandler<W>::cancel()
{
    this->markFailed(makeFailure(FailureCode::kCancelled, kCancelText));
}

template <typename W>
void InputLeafProcessHandler<W>::wakeAll()
{
    StaticRawSortProcessHandler<W>::wakeAll();
    m_groupQueue.wakeWaiters();
}

template <typename W>
bool InputLeafProcessHandler<W>::shouldKeepDecoding() const
{
    return this->keepsWorking(!m_groupQueue.empty());
}

template <typename W>
ConversionFailures addAlignedInput(const RuntimeConfig& config, const std::vector<AlignedDataSet>& dataSets,
                                   PointDistributionInputHandler<W>& input, ProcessHandle& handle)
{
    const StageClock::time_point start = StageClock::now();
    AlignedWork work{dataSets, {}};
    groupNodes(config, work);
    const uint32_t readerCount = uint32_t(std::max(config.reservedThreads, 1));
    const uint32_t workerCount = std::max<uint32_t>(config.workerCount, 1);
    InputLeafProcessHandler<W> manager(config, input, readerCount, workerCount);
    {
        const CurrentStage current(handle, manager);
        StageThreads threads;
        try
        {
            for (uint32_t reader = 0; reader < readerCount; ++reader)
            {
                threads.start(threads.readers, [&manager, &work] { runNodeReader(manager, work); });
            }
            for (uint32_t worker = 0; worker + 1 < workerCount; ++worker)
            {
                threads.start(threads.workers, [&manager, &work] { runNodeDecoder(manager, work); });
            }
            threads.start(threads.writers, [&manager] { runTempWriter<W>(manager); });
        }
        catch (const std::system_error&)
        {
            // The threads that did start stop at once and are joined before the error goes on to the caller.
            manager.markFailed(makeFailure(FailureCode::kStage, "addAlignedInput: could not start a thread."));
            threads.joinAll();
            input.discardAll();
            throw;
        }
        runNodeDecoder(manager, work);
        threads.joinAll();
    }
    ConversionFailures failures = manager.failures();
    reportTo(config.infoLogger, "HSPC tree input computation: elapsed: " + secondsSince(start) + " [s].");
    if (!failures.empty())
    {
        input.discardAll();
    }
    return failures;
}

template class InputLeafProcessHandler<uint32_t>;
template class InputLeafProcessHandler<uint64_t>;
template ConversionFailures addAlignedInput<uint32_t>(const RuntimeConfig&, const std::vector<AlignedDataSet>&,
                                                      PointDistributionInputHandler<uint32_t>&, ProcessHandle&);
template ConversionFailures addAlignedInput<uint64_t>(const RuntimeConfig&, const std::vector<AlignedDataSet>&,
                                                      PointDistributionInputHandler<uint64_t>&, ProcessHandle&);

}  // namespace HSPC
