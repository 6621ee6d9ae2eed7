#include "hspc/convert/StaticPointProcessor.h"

#include <algorithm>
#include <span>
#include <utility>

#include "hspc/convert/BatchFilters.h"
#include "hspc/convert/LeafArray.h"
#include "hspc/format/Loggers.h"

namespace HSPC
{

namespace
{

constexpr uint64_t kLargestBatchBytes = 0xffffffff;
constexpr uint64_t kLargestSpillBytes = 0x40000000;
// Cell lists this short cost less in memory than a file of their own.
constexpr std::size_t kSmallestSpilledCellList = 4;

template <typename W>
BatchFilter batchFilter(const RuntimeConfig& config)
{
    return BatchFilter{config.filterDuplicates, config.filterBox, config.filterMin, config.filterMax,
                       config.origin, config.scale};
}

template <typename W>
HSPCBuffer<uint8_t> packCells(const std::vector<CellEntry<W>>& cells)
{
    HSPCBuffer<uint8_t> packed(cells.size() * kCellEntrySize<W>);
    uint8_t* out = packed.data();
    for (const CellEntry<W>& cell : cells)
    {
        storeMortonKey(out, cell.index);
        little_endian::store<uint32_t>(out + MortonIndex3D<W>::kBytes, cell.count);
        out += kCellEntrySize<W>;
    }
    return packed;
}

template <typename W>
HSPCBuffer<uint8_t> packLeaves(std::span<const LeafEntry<W>> first, std::span<const LeafEntry<W>> second)
{
    HSPCBuffer<uint8_t> packed((first.size() + second.size()) * LeafEntry<W>::kPackedSize);
    uint8_t* out = packed.data();
    for (std::span<const LeafEntry<W>> part : {first, second})
    {
        for (const LeafEntry<W>& entry : part)
        {
            storeLeafEntry(out, entry);
            out += LeafEntry<W>::kPackedSize;
        }
    }
    return packed;
}

}  // namespace

uint64_t spillLimitBytes(const RuntimeConfig& config, uint32_t workerCount)
{
    return std::min(kLargestSpillBytes, config.targetMemory / 8) / std::max<uint32_t>(workerCount, 1);
}

template <typename W>
StaticPointProcessor<W>::StaticPointProcessor(StaticRawSortProcessHandler<W>& manager,
                                              AttributeStatistics statistics)
    : m_manager(manager),
      m_config(manager.config()),
      m_recordSize(manager.config().encodedRecordSize),
      m_spillBytes(spillLimitBytes(manager.config(), manager.workerCount())),
      m_statistics(std::move(statistics)),
      m_reservation(manager, 0)
{
    const uint64_t batchPoints = m_recordSize == 0 ? 0 : m_config.batchSize / m_recordSize;
    m_lodState.spillCount = batchPoints / 40 / std::max<uint32_t>(manager.workerCount(), 1);
}

template <typename W>
StaticPointProcessor<W>::~StaticPointProcessor() = default;

template <typename W>
bool StaticPointProcessor<W>::process(HSPCBuffer<uint8_t>& records)
{
    if (records.empty())
    {
        reportTo(m_config.errorLogger, "Input data is empty.");
        return false;
    }
    if (records.size() > kLargestBatchBytes)
    {
        reportTo(m_config.errorLogger, "filter and voxelize: Buffer exceeds 4GB threshold.");
        return false;
    }
    const FilterCounts counts = filterSortedBatch<W>(records, m_recordSize, batchFilter<W>(m_config));
    m_pointsSeen += counts.seen;
    m_pointsFiltered += counts.filtered;
    const std::size_t count = records.size() / m_recordSize;
    if (count == 0)
    {
        return true;
    }
    m_statistics.addRange(records.data(), count);

    ReadBuffer<W> run;
    run.first = loadMortonKey<W>(records.data());
    run.last = loadMortonKey<W>(records.data() + (count - 1) * m_recordSize);
    run.octants = octantRanges<W>(records.data(), count, m_recordSize);
    run.pointCount = uint32_t(count);
    const unsigned lod = cutLod(records.data(), count);
    run.cutLod = uint8_t(lod);
    run.cells = packCells<W>(cellList<W>(records.data(), count, m_recordSize, lod));
    if (m_config.compressBatches && !compress(records, run.compressed))
    {
        return false;
    }
    run.fileBytes = records.size();
    run.fileNumber = m_manager.input().nextTempFileNumber();

    mergeCells(run.cells, lod);
    m_cellBytes += run.cells.size();
    const uint32_t fileNumber = run.fileNumber;
    m_runs.push_back(std::move(run));
    m_manager.input().rawTempQueue().push(TempFileData{fileNumber, std::move(records)});
    records = HSPCBuffer<uint8_t>();

    spillCellLists();
    spillLeaves(m_runs.back().first, m_runs.back().last);
    updateReservation();
    return true;
}

template <typename W>
unsigned StaticPointProcessor<W>::cutLod(const uint8_t* records, std::size_t count)
{
    const LeafOverlap overlap = findLeafOverlap<W>(m_leaves, records, count, m_recordSize);
    unsigned lod = chooseCutLod<W>(overlap, records, count, m_recordSize, m_lodState);
    // Above this lod the batch's points in every root octant lie in one cell: a coarser cut counts nothing
    // new.
    lod = std::min(lod, octantCommonLodCap<W>(records, count, m_recordSize));
    lod = m_mean.cut(lod);
    m_lodState.currentLod = lod;
    return lod;
}

template <typename W>
bool StaticPointProcessor<W>::compress(HSPCBuffer<uint8_t>& records, bool& compressed)
{
    const std::size_t count = records.size() / m_recordSize;
    if (!m_compressor || m_compressor->pointLimit() < count)
    {
        m_compressor = NodeCompressor::create(m_config.encodingAttributes, count, kBatchCompressionLevel);
    }
    NodeHeader header;
    header.scale = m_config.scale;
    header.origin = m_config.origin;
    header.lod = MortonIndex3D<W>::kBitsPerAxis;
    if (!m_compressor || !compressNode(false, header, *m_compressor, records, m_compressed, m_scratch))
    {
        reportTo(m_config.errorLogger, "Could not compress point buffer.");
        return false;
    }
    compressed = m_compressed.size() <= records.size();
    if (compressed)
    {
        records = HSPCBuffer<uint8_t>(m_compressed.begin(), m_compressed.end());
    }
    return true;
}

template <typename W>
void StaticPointProcessor<W>::mergeCells(const HSPCBuffer<uint8_t>& cells, unsigned lod)
{
    const std::size_t cellCount = cells.size() / kCellEntrySize<W>;
    m_incoming.resize(cellCount);
    for (std::size_t i = 0; i < cellCount; ++i)
    {
        const uint8_t* in = cells.data() + i * kCellEntrySize<W>;
        m_incoming[i] = LeafEntry<W>{loadMortonKey<W>(in), little_endian::load<uint32_t>(in + MortonIndex3D<W>::kBytes),
                                     uint8_t(lod)};
    }
    mergeLeafEntries<W>(m_leaves, m_incoming, m_mergeScratch);
    // The entries that grew are those of the batch's cells; the fullest of them may be the worker's fullest.
    for (const LeafEntry<W>& cell : m_incoming)
    {
        const auto merged = std::lower_bound(m_leaves.begin(), m_leaves.end(), cell.index,
                                             [](const LeafEntry<W>& e, const MortonIndex3D<W>& key) {
                                                 return e.index < key;
                                             });
        if (merged != m_leaves.end() && merged->count > m_lodState.biggestCount)
        {
            m_lodState.biggestCount = merged->count;
            m_lodState.biggestLod = merged->lod;
        }
    }
}

template <typename W>
void StaticPointProcessor<W>::spillCellLists()
{
    if (m_cellBytes <= m_spillBytes)
    {
        return;
    }
    for (std::size_t i = m_firstUnspilledRun; i < m_runs.size() && m_cellBytes > m_spillBytes / 2; ++i)
    {
        ReadBuffer<W>& run = m_runs[i];
        if (run.cells.size() / kCellEntrySize<W> <= kSmallestSpilledCellList)
        {
            continue;
        }
        const uint32_t number = m_manager.input().nextTempFileNumber();
        m_cellBytes -= run.cells.size();
        run.cellFile = number;
        m_leafBufferFiles.push_back(number);
        m_manager.input().leafBufferQueue().push(TempFileData{number, std::move(run.cells)});
        run.cells = HSPCBuffer<uint8_t>();
        if (i == m_firstUnspilledRun)
        {
            m_firstUnspilledRun = i + 1;
        }
    }
    m_manager.wakeAll();
}

template <typename W>
void StaticPointProcessor<W>::spillLeaves(const MortonIndex3D<W>& first, const MortonIndex3D<W>& last)
{
    if (uint64_t(m_leaves.size()) * LeafEntry<W>::kPackedSize <= m_spillBytes)
    {
        return;
    }
    auto byIndex = [](const LeafEntry<W>& entry, const MortonIndex3D<W>& key) { return entry.index < key; };
    // The batch's overlap: from the entry whose cell may hold `first` to the first entry not before `last`.
    std::size_t begin =
        std::size_t(std::lower_bound(m_leaves.begin(), m_leaves.end(), first, byIndex) - m_leaves.begin());
    begin -= begin > 0 ? 1 : 0;
    const std::size_t end =
        std::size_t(std::lower_bound(m_leaves.begin(), m_leaves.end(), last, byIndex) - m_leaves.begin());
    const std::size_t middle = std::min((begin + end) / 2, m_leaves.size() - 1);
    const std::size_t side = std::max<std::size_t>(m_spillBytes / (4 * LeafEntry<W>::kPackedSize), 1);
    const std::size_t keepBegin = middle > side ? middle - side : 0;
    const std::size_t keepEnd = std::min(m_leaves.size(), middle + side);

    const std::span<const LeafEntry<W>> all(m_leaves);
    HSPCBuffer<uint8_t> spilled = packLeaves<W>(all.subspan(0, keepBegin), all.subspan(keepEnd));
    if (!spilled.empty())
    {
        const uint32_t number = m_manager.input().nextTempFileNumber();
        m_rasterLeafFiles.push_back(number);
        m_manager.input().rasterLeafQueue().push(TempFileData{number, std::move(spilled)});
        m_manager.wakeAll();
    }
    m_leaves.erase(m_leaves.begin() + std::ptrdiff_t(keepEnd), m_leaves.end());
    m_leaves.erase(m_leaves.begin(), m_leaves.begin() + std::ptrdiff_t(keepBegin));
    m_leaves.shrink_to_fit();
}

template <typename W>
void StaticPointProcessor<W>::updateReservation()
{
    m_reservation.resize(m_cellBytes + uint64_t(m_leaves.capacity()) * sizeof(LeafEntry<W>));
}

template <typename W>
FirstStageResults<W> StaticPointProcessor<W>::takeResults()
{
    FirstStageResults<W> results;
    results.leaves = std::move(m_leaves);
    results.runs = std::move(m_runs);
    results.leafBufferFiles = std::move(m_leafBufferFiles);
    results.rasterLeafFiles = std::move(m_rasterLeafFiles);
    m_cellBytes = 0;
    m_reservation.resize(0);
    return results;
}

template class StaticPointProcessor<uint32_t>;
template class StaticPointProcessor<uint64_t>;

}  // namespace HSPC
