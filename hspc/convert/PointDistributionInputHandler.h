// What the raw sort hands to the distribution, made once per conversion: the sorted runs of points on disk
// (the read list, one run record per temp point file), how many points lie in which cell (the merged leaf
// array, with the spilled parts of it and of the runs' cell lists on disk), the attribute statistics, and the
// three queues through which the first-stage workers pass their results to the temp writers.
//
// The handler owns every temp file that it has been told of: the distribution deletes them as it reads them,
// and whatever is left when the handler goes (a failed or cancelled conversion) is deleted with it.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "hspc/convert/RawSortRecords.h"
#include "hspc/convert/TempFileStore.h"
#include "hspc/format/AttributeStatistics.h"
#include "hspc/format/ConcurrentQueue.h"
#include "hspc/format/RuntimeConfig.h"
#include "hspc/format/TrackedMemory.h"

namespace HSPC
{

// The content of one temp file on its way to a temp writer.
struct TempFileData
{
    uint32_t fileNumber = 0;
    HSPCBuffer<uint8_t> bytes;
};

// A queue of temp file contents that knows how many bytes it holds, for the stage's memory test. An item
// counts from its push until its writer calls done: the bytes stay counted while they are written.
class TempFileQueue
{
public:
    void push(TempFileData&& item);
    std::optional<TempFileData> tryPop() { return m_queue.tryPop(); }
    // Waits for an item while `stop()` is false; see ConcurrentQueue::pop.
    template <typename Stop>
    std::optional<TempFileData> pop(Stop&& stop)
    {
        return m_queue.pop(std::forward<Stop>(stop));
    }
    // The item popped is written, or dropped.
    void done(const TempFileData& item);
    void wakeWaiters() { m_queue.wakeWaiters(); }
    bool empty() const { return m_queue.empty(); }
    // Capacity of the buffers queued or being written: what they really hold in memory.
    uint64_t bytes() const { return m_bytes.load(); }

private:
    ConcurrentQueue<TempFileData> m_queue;
    std::atomic<uint64_t> m_bytes{0};
};

// What one first-stage worker found, handed over when it ends.
template <typename W>
struct FirstStageResults
{
    // Sorted by index; equal indices may occur across workers.
    std::vector<LeafEntry<W>> leaves;
    std::vector<ReadBuffer<W>> runs;
    std::vector<uint32_t> leafBufferFiles;
    std::vector<uint32_t> rasterLeafFiles;
};

template <typename W>
class PointDistributionInputHandler
{
public:
    explicit PointDistributionInputHandler(const RuntimeConfig& config);
    ~PointDistributionInputHandler();

    PointDistributionInputHandler(const PointDistributionInputHandler&) = delete;
    PointDistributionInputHandler& operator=(const PointDistributionInputHandler&) = delete;

    const RuntimeConfig& config() const { return m_config; }

    // Points a distribution cell may take before it needs splitting: (batch size / encoded point size) / 10.
    uint32_t mergeLimit() const { return m_mergeLimit; }
    // Points a unit of distribution work aims at: (batch size / encoded point size) / 60.
    uint32_t preferredCount() const { return m_preferredCount; }
    // Highest lod among the merged leaf entries with a count below the preferred count; kNoLod before any.
    uint8_t preferredLod() const;

    // Sorted point batches, spilled cell lists and spilled leaf arrays, in the order temp writers serve them.
    TempFileQueue& rawTempQueue() { return m_rawTempQueue; }
    TempFileQueue& leafBufferQueue() { return m_leafBufferQueue; }
    TempFileQueue& rasterLeafQueue() { return m_rasterLeafQueue; }
    uint64_t queuedBytes() const;
    bool queuesEmpty() const;

    // Set up from the encoding attributes and the client's statistics requests; workers merge theirs in as
    // they end.
    AttributeStatistics& statistics() { return m_statistics; }
    const AttributeStatistics& statistics() const { return m_statistics; }
    // What a worker starts its own statistics from: set up like statistics() but never merged into, so that a
    // worker starting late does not read what an early one is merging.
    const AttributeStatistics& blankStatistics() const { return m_blankStatistics; }

    // Takes over a worker's results under the handler's lock: its leaf entries merge into the merged leaf
    // array, its runs join the read list and its file numbers the file lists. False, with the reason on the
    // error logger, when its statistics do not fit.
    bool addWorkerResults(FirstStageResults<W> results, const AttributeStatistics& statistics);

    const std::vector<LeafEntry<W>>& mergedLeaves() const { return m_mergedLeaves; }
    const std::vector<ReadBuffer<W>>& readList() const { return m_readList; }
    const std::vector<uint32_t>& leafBufferFiles() const { return m_leafBufferFiles; }
    const std::vector<uint32_t>& rasterLeafFiles() const { return m_rasterLeafFiles; }

    // Numbers for new temp files, one a call, from 0: every stage that writes temp files into this handler
    // takes them from here, so that the files of the raw sort and of the aligned input never share a name.
    uint32_t nextTempFileNumber() { return m_nextTempFileNumber++; }

    std::string tempPointFile(uint32_t number) const;
    std::string leafBufferFile(uint32_t number) const;
    std::string rasterLeafFile(uint32_t number) const;

    // The seam through which temp files are written and deleted.
    TempFileStore& tempFiles() { return *m_tempFiles; }
    void setTempFileStore(std::shared_ptr<TempFileStore> store) { m_tempFiles = std::move(store); }

    // Deletes every temp file the handler knows of and forgets them all, runs, leaf entries and queued data
    // with them. A file that cannot be deleted is named on the warning logger.
    void discardAll();

private:
    void deleteFile(const std::string& path);

    const RuntimeConfig& m_config;
    uint32_t m_mergeLimit = 0;
    uint32_t m_preferredCount = 0;

    TempFileQueue m_rawTempQueue;
    TempFileQueue m_leafBufferQueue;
    TempFileQueue m_rasterLeafQueue;

    mutable std::mutex m_mutex;
    AttributeStatistics m_statistics;
    AttributeStatistics m_blankStatistics;
    std::vector<LeafEntry<W>> m_mergedLeaves;
    std::vector<ReadBuffer<W>> m_readList;
    std::vector<uint32_t> m_leafBufferFiles;
    std::vector<uint32_t> m_rasterLeafFiles;

    std::shared_ptr<TempFileStore> m_tempFiles;
    std::atomic<uint32_t> m_nextTempFileNumber{0};
};

extern template class PointDistributionInputHandler<uint32_t>;
extern template class PointDistributionInputHandler<uint64_t>;

}  // namespace HSPC
