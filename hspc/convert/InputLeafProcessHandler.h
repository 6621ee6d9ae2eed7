// The aligned input: data sets already on the conversion's grid (AlignedInput.h) become sorted runs with
// their cell counts, exactly what the raw sort leaves for the distribution, without a raw sort. Their trees
// say where the points lie; the nodes are cut into groups of whole subtrees (AlignedNodeGroups.h), and each
// group's blocks are read, decoded into encoded records, sorted once and handed to the same leaf step and
// temp writer as a raw batch would be.
//
// Every node's data is read and decoded once, where the hierarchy alone could stand for most nodes and only
// the nodes that a leaf must split would need their points. Decoding each group once costs one pass over the
// data, keeps the distribution's reading of runs the same for every kind of input, makes the attribute
// statistics of the result exact, and needs no trust in the counts of a reduced tree, which are estimates.
//
// Threads, all joined before it returns: read workers (the input thread count, at least 1) that read the
// compressed blocks of one group after the other while the stage's memory allows; decode workers (the
// worker count, the calling thread runs the last) that decode, sort and count; one temp writer. A cancel
// through `handle` reaches the stage while it runs. On failure or cancel every temp file is deleted again.
#pragma once

#include <cstdint>
#include <vector>

#include "hspc/convert/AlignedInput.h"
#include "hspc/convert/AlignedNodeGroups.h"
#include "hspc/convert/ConversionFailure.h"
#include "hspc/convert/PointDistributionInputHandler.h"
#include "hspc/convert/ProcessHandle.h"
#include "hspc/convert/StaticRawSortProcessHandler.h"
#include "hspc/format/ConcurrentQueue.h"
#include "hspc/format/RuntimeConfig.h"

namespace HSPC
{

// The compressed blocks of one group, on their way from a read worker to a decode worker. The bytes reserved
// for them in the stage's memory in use travel with them.
struct ReadNodeGroup
{
    const AlignedNodeGroup* group = nullptr;
    // One block per node of the group, in the group's order, and the points each block's header gives.
    std::vector<std::vector<uint8_t>> blocks;
    std::vector<uint32_t> pointCounts;
    uint64_t pointCount = 0;
    uint64_t reservedBytes = 0;
};

// The manager of the aligned input. It makes runs the way the raw sort does (its leaf step and temp writer
// report to it as to the raw sort's manager) and differs in its memory share, a third of the target memory,
// in its cancel text, and in the queue between its readers and workers.
template <typename W>
class InputLeafProcessHandler : public StaticRawSortProcessHandler<W>
{
public:
    static constexpr const char* kCancelText = "Determing leaf sctructure: process got cancelled!";

    InputLeafProcessHandler(const RuntimeConfig& config, PointDistributionInputHandler<W>& input,
                            uint32_t readerCount, uint32_t workerCount);

    void cancel() override;
    void wakeAll() override;

    // For decode workers: false once failed, or once every group is read and none is queued.
    bool shouldKeepDecoding() const;
    ConcurrentQueue<ReadNodeGroup>& groupQueue() { return m_groupQueue; }

private:
    ConcurrentQueue<ReadNodeGroup> m_groupQueue;
};

// Adds the runs of `dataSets` to `input`; returns what failed, empty on success. The trees and readers of
// the data sets must outlive the call.
template <typename W>
ConversionFailures addAlignedInput(const RuntimeConfig& config, const std::vector<AlignedDataSet>& dataSets,
                                   PointDistributionInputHandler<W>& input, ProcessHandle& handle);

extern template class InputLeafProcessHandler<uint32_t>;
extern template class InputLeafProcessHandler<uint64_t>;
extern template ConversionFailures addAlignedInput<uint32_t>(const RuntimeConfig&, const std::vector<AlignedDataSet>&,
                                                             PointDistributionInputHandler<uint32_t>&, ProcessHandle&);
extern template ConversionFailures addAlignedInput<uint64_t>(const RuntimeConfig&, const std::vector<AlignedDataSet>&,
                                                             PointDistributionInputHandler<uint64_t>&, ProcessHandle&);

}  // namespace HSPC
