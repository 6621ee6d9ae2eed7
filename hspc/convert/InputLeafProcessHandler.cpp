#include "hspc/convert/InputLeafProcessHandler.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
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
    // The most points of any node, bounded by kLargestNodePoints: what a decoder is made for.
    uint32_t largestNode = 1;
};

template <typename W>
bool readGroup(InputLeafProcessHandler<W>& manager, const AlignedWork& work, const AlignedNodeGroup& group)
{
    const AlignedDataSet& dataSet = work.dataSets[group.dataSet];
    MemoryReservation reservation(manager, 0);
    ReadNodeGroup item{&group, std::vector<std::vector<uint8_t>>(group.nodes.size()), 0};
    for (std::size_t k = 0; k < group.nodes.size(); ++k)
    {
        std::string error;
        if (!dataSet.readNodeBlock(group.nodes[k], item.blocks[k], error))
        {
            failStage(manager, "Failed to read node = " + std::to_string(group.nodes[k]), error);
            return false;
        }
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
          m_work(work),
          m_processor(manager, manager.input().blankStatistics()),
          m_decompressor(NodeDecompressor::create(work.largestNode)),
          m_actions(storedRecordActions(manager.config().encodingAttributes,
                                        manager.config().encodingAttributes.size(), m_stride))
    {
    }

    void decode(ReadNodeGroup& item, MemoryReservation& reservation)
    {
        const AlignedNodeGroup& group = *item.group;
        const Tree& tree = *m_work.dataSets[group.dataSet].tree;
        for (const uint32_t node : group.nodes)
        {
            if (!m_decompressor || tree.nodes[node].pointCount > m_decompressor->pointLimit())
            {
                failStage(m_manager, "Failed to decompress node " + std::to_string(node),
                          "the tree gives the node " + std::to_string(tree.nodes[node].pointCount) +
                              " points, more than a node may hold");
                return;
            }
        }
        HSPCBuffer<uint8_t> records(std::size_t(group.pointCount) * m_stride);
        reservation.resize(reservation.bytes() + records.capacity());
        std::size_t filled = 0;
        for (std::size_t k = 0; k < group.nodes.size(); ++k)
        {
            const uint32_t count = tree.nodes[group.nodes[k]].pointCount;
            if (!decodeNode(group.nodes[k], count, item.blocks[k], records.data() + filled * m_stride))
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
        // The block must hold what the tree says it holds: the output is sized by the tree.
        NodeHeader header;
        std::string detail;
        if (readNodeHeader(block, header) == 0 || header.pointCount != count)
        {
            failStage(m_manager, "Failed to decompress node " + std::to_string(node),
                      "the node's block does not hold the " + std::to_string(count) + " points its tree gives it");
            return false;
        }
        const NodeOutput output{std::span<uint8_t>(out, std::size_t(count) * m_stride), m_stride, m_actions};
        if (!decompressNodeBlock(block, *m_decompressor, output, header,
                                 [&detail](const std::string& text) { detail = text; }))
        {
            failStage(m_manager, "Failed to decompress node " + std::to_string(node),
                      detail.empty() ? m_decompressor->lastError() : detail);
            return false;
        }
        return true;
    }

    InputLeafProcessHandler<W>& m_manager;
    const AlignedWork& m_work;
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
    switch (this->state())
    {
    case ConversionState::kFailed:
        return false;
    case ConversionState::kReading:
        return true;
    case ConversionState::kInputFinished:
        break;
    }
    return !m_groupQueue.empty();
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
