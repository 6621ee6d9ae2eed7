// The filter and leaf step of one first-stage worker. Each sorted batch is filtered (duplicates, the box),
// counted into the worker's statistics, cut into cells at a lod the leaf step chooses, and queued for a temp
// writer as one run; its cell list joins the worker's leaf array. Everything here is the worker's own, so
// the per-batch work takes no lock; what it has found goes to the input handler when the worker ends.
//
// Memory: the worker's cell lists and leaf array are held in the stage's memory in use, and spilled to disk
// when either grows beyond the worker's share of the spill limit.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "hspc/convert/LeafStep.h"
#include "hspc/convert/LeafStepKernels.h"
#include "hspc/convert/MemoryReservation.h"
#include "hspc/convert/StaticRawSortProcessHandler.h"
#include "hspc/format/AttributeStatistics.h"
#include "hspc/format/NodeCompressor.h"
#include "hspc/format/TrackedMemory.h"

namespace HSPC
{

// Bytes that a worker's cell lists, and its leaf array, may each take before they are spilled: at most
// 1 GiB over all workers, and never more than an eighth of the target memory, so that a small memory
// budget bounds them too.
uint64_t spillLimitBytes(const RuntimeConfig& config, uint32_t workerCount);

template <typename W>
class StaticPointProcessor
{
public:
    StaticPointProcessor(StaticRawSortProcessHandler<W>& manager, AttributeStatistics statistics);
    ~StaticPointProcessor();
    StaticPointProcessor(const StaticPointProcessor&) = delete;
    StaticPointProcessor& operator=(const StaticPointProcessor&) = delete;

    // Takes the sorted batch over; false, with the reason on the error logger, when it cannot be processed.
    bool process(HSPCBuffer<uint8_t>& records);

    // The worker's leaf array, runs and spilled files, handed over once at the end.
    FirstStageResults<W> takeResults();
    const AttributeStatistics& statistics() const { return m_statistics; }
    uint64_t pointsSeen() const { return m_pointsSeen; }
    uint64_t pointsFiltered() const { return m_pointsFiltered; }

private:
    unsigned cutLod(const uint8_t* records, std::size_t count);
    bool compress(HSPCBuffer<uint8_t>& records, bool& compressed);
    void mergeCells(const HSPCBuffer<uint8_t>& cells, unsigned lod);
    void spillCellLists();
    void spillLeaves(const MortonIndex3D<W>& first, const MortonIndex3D<W>& last);
    void updateReservation();

    StaticRawSortProcessHandler<W>& m_manager;
    const RuntimeConfig& m_config;
    const uint32_t m_recordSize;
    const uint64_t m_spillBytes;
    AttributeStatistics m_statistics;
    uint64_t m_pointsSeen = 0;
    uint64_t m_pointsFiltered = 0;

    CutLodState m_lodState;
    RunningLodMean m_mean;

    std::vector<LeafEntry<W>> m_leaves;
    std::vector<LeafEntry<W>> m_incoming;
    std::vector<LeafEntry<W>> m_mergeScratch;
    std::vector<ReadBuffer<W>> m_runs;
    // Runs, oldest first, whose cell lists may still be spilled; and the bytes of all cell lists in memory.
    std::size_t m_firstUnspilledRun = 0;
    uint64_t m_cellBytes = 0;
    std::vector<uint32_t> m_leafBufferFiles;
    std::vector<uint32_t> m_rasterLeafFiles;
    MemoryReservation m_reservation;

    std::unique_ptr<NodeCompressor> m_compressor;
    std::vector<uint8_t> m_compressed;
    std::vector<uint8_t> m_scratch;
};

extern template class StaticPointProcessor<uint32_t>;
extern template class StaticPointProcessor<uint64_t>;

}  // namespace HSPC
