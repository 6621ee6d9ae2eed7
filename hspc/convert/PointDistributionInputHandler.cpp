#include "hspc/convert/PointDistributionInputHandler.h"

#include <algorithm>
#include <utility>

#include "hspc/convert/LeafArray.h"
#include "hspc/format/Loggers.h"

namespace HSPC
{

void TempFileQueue::push(TempFileData&& item)
{
    m_bytes.fetch_add(item.bytes.capacity());
    m_queue.push(std::move(item));
}

void TempFileQueue::done(const TempFileData& item)
{
    m_bytes.fetch_sub(item.bytes.capacity());
}

namespace
{

uint64_t pointsPerBatch(const RuntimeConfig& config)
{
    return config.encodedRecordSize == 0 ? 0 : config.batchSize / config.encodedRecordSize;
}

uint32_t clampToCount(uint64_t value)
{
    return uint32_t(std::min<uint64_t>(value, 0xffffffff));
}

}  // namespace

template <typename W>
PointDistributionInputHandler<W>::PointDistributionInputHandler(const RuntimeConfig& config)
    : m_config(config),
      m_mergeLimit(clampToCount(pointsPerBatch(config) / 10)),
      m_preferredCount(clampToCount(pointsPerBatch(config) / 60)),
      m_tempFiles(std::make_shared<TempFileStore>())
{
    // The encoding attributes passed the converter's checks, so only a caller's own list can fail here; the
    // statistics then stay empty and the raw sort reports it.
    m_statistics.initialize(config.encodingAttributes, config.statisticsRequests, config.errorLogger);
    m_blankStatistics = m_statistics;
}

template <typename W>
PointDistributionInputHandler<W>::~PointDistributionInputHandler()
{
    discardAll();
}

template <typename W>
uint8_t PointDistributionInputHandler<W>::preferredLod() const
{
    std::lock_guard lock(m_mutex);
    uint8_t lod = kNoLod;
    for (const LeafEntry<W>& entry : m_mergedLeaves)
    {
        if (entry.count < m_preferredCount && entry.lod != kNoLod && (lod == kNoLod || entry.lod > lod))
        {
            lod = entry.lod;
        }
    }
    return lod;
}

template <typename W>
uint64_t PointDistributionInputHandler<W>::queuedBytes() const
{
    return m_rawTempQueue.bytes() + m_leafBufferQueue.bytes() + m_rasterLeafQueue.bytes();
}

template <typename W>
bool PointDistributionInputHandler<W>::queuesEmpty() const
{
    return m_rawTempQueue.empty() && m_leafBufferQueue.empty() && m_rasterLeafQueue.empty();
}

template <typename W>
bool PointDistributionInputHandler<W>::addWorkerResults(FirstStageResults<W> results,
                                                        const AttributeStatistics& statistics)
{
    std::lock_guard lock(m_mutex);
    std::vector<LeafEntry<W>> scratch;
    mergeLeafEntries<W>(m_mergedLeaves, results.leaves, scratch);
    for (ReadBuffer<W>& run : results.runs)
    {
        m_readList.push_back(std::move(run));
    }
    m_leafBufferFiles.insert(m_leafBufferFiles.end(), results.leafBufferFiles.begin(),
                             results.leafBufferFiles.end());
    m_rasterLeafFiles.insert(m_rasterLeafFiles.end(), results.rasterLeafFiles.begin(),
                             results.rasterLeafFiles.end());
    return m_statistics.mergeRange(statistics, m_config.errorLogger);
}

template <typename W>
std::string PointDistributionInputHandler<W>::tempPointFile(uint32_t number) const
{
    return m_config.tempPointPrefix + std::to_string(number) + ".dat";
}

template <typename W>
std::string PointDistributionInputHandler<W>::leafBufferFile(uint32_t number) const
{
    return m_config.tempLeafBufferPrefix + std::to_string(number) + ".dat";
}

template <typename W>
std::string PointDistributionInputHandler<W>::rasterLeafFile(uint32_t number) const
{
    return m_config.tempRasterLeafPrefix + std::to_string(number) + ".dat";
}

template <typename W>
void PointDistributionInputHandler<W>::deleteFile(const std::string& path)
{
    if (!m_tempFiles->remove(path))
    {
        reportTo(m_config.warningLogger, "Could not delete temporary file=" + path);
    }
}

template <typename W>
void PointDistributionInputHandler<W>::discardAll()
{
    std::lock_guard lock(m_mutex);
    for (TempFileQueue* queue : {&m_rawTempQueue, &m_leafBufferQueue, &m_rasterLeafQueue})
    {
        while (std::optional<TempFileData> item = queue->tryPop())
        {
            queue->done(*item);
        }
    }
    for (const ReadBuffer<W>& run : m_readList)
    {
        deleteFile(tempPointFile(run.fileNumber));
    }
    for (uint32_t number : m_leafBufferFiles)
    {
        deleteFile(leafBufferFile(number));
    }
    for (uint32_t number : m_rasterLeafFiles)
    {
        deleteFile(rasterLeafFile(number));
    }
    m_readList.clear();
    m_leafBufferFiles.clear();
    m_rasterLeafFiles.clear();
    m_mergedLeaves.clear();
}

template class PointDistributionInputHandler<uint32_t>;
template class PointDistributionInputHandler<uint64_t>;

}  // namespace HSPC
