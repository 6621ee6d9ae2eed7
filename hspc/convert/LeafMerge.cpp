#include "hspc/convert/LeafMerge.h"

#include <algorithm>
#include <deque>
#include <memory>
#include <queue>

#include "hspc/convert/BufferInputStructure.h"
#include "hspc/convert/LeafArray.h"
#include "hspc/convert/MortonRecords.h"

namespace HSPC
{

namespace
{

// A count on the merge list stays below the saturated value, so that a sum of one entry never reads as
// "saturated".
constexpr uint32_t kLargestMergeCount = 4294967294u;

template <typename W>
MortonIndex3D<W> extentEnd(const LeafEntry<W>& entry)
{
    return nextIndexAtLod(entry.index, entry.lod);
}

// Cuts the merge list into cells and files them on the lists of the plan.
template <typename W>
class LeafMerger
{
public:
    LeafMerger(unsigned maxLod, uint32_t mergeLimit, const LogFunction& errorLogger)
        : m_maxLod(maxLod), m_limit(mergeLimit), m_errorLogger(errorLogger)
    {
    }

    bool add(LeafEntry<W> entry)
    {
        entry.count = std::min(entry.count, kLargestMergeCount);
        m_sum += entry.count;
        m_list.push_back(entry);
        return m_sum <= m_limit || flush(false);
    }

    bool finish() { return flush(true); }

    DistributionPlan<W> takePlan() { return std::move(m_plan); }

private:
    // Cuts whole cells off the front until the list is within the limit, or empty at the end of the merge.
    // The pivot lod is where the head and the newest entry part; the cut ends where the newest entry's cell
    // of that lod begins, not a node past the head, so that no cell is ever split between two flushes (it
    // would show up twice on the read list with half of its points each time). For the same reason the lod is
    // lowered until the head's cell does not reach back over cells already filed. A cell above the limit that
    // holds several entries is cut again where its entries part: only a single entry above the limit has to
    // have its points looked at.
    bool flush(bool final)
    {
        while (!m_list.empty() && (final || m_sum > m_limit))
        {
            if (m_list.size() == 1)
            {
                // Above the limit no count can split it; at the end it is a cell of its own, with room for
                // its entry to be distributed two lods below.
                const LeafEntry<W>& entry = m_list.front();
                if (!emitCells(0, 1, lodNotBefore(entry.index, std::min<unsigned>(entry.lod + 2u, m_maxLod))))
                {
                    return false;
                }
                dropFront(1);
                continue;
            }
            const std::optional<MortonPivot<W>> pivot =
                computeSmallerPivot(m_list.front().index, m_list.back().index);
            if (!pivot)
            {
                reportTo(m_errorLogger, "Merge: two leaf entries share one index.");
                return false;
            }
            const unsigned pivotLod = std::min(pivot->lod, m_maxLod);
            const unsigned lod = lodNotBefore(m_list.front().index, pivotLod);
            const auto entriesBefore = [this](const MortonIndex3D<W>& end)
            {
                return std::size_t(std::partition_point(m_list.begin(), m_list.end(),
                                                        [&](const LeafEntry<W>& e) { return e.index < end; }) -
                                   m_list.begin());
            };
            // The last entry's cell may still grow; every cell before it is complete. At the end all are.
            std::size_t cut = final ? m_list.size() : entriesBefore(cellStartAtLod(m_list.back().index, lod));
            // A lod lowered for the head holds for the head's cell alone: an entry further on may be coarser
            // than that lod, and a cell finer than its entry would not hold the entry's points. The rest is
            // cut again with a pivot of its own.
            if (lod < pivotLod)
            {
                cut = std::min(cut, entriesBefore(nextIndexAtLod(cellStartAtLod(m_list.front().index, lod), lod)));
            }
            if (!emitCells(0, cut, lod))
            {
                return false;
            }
            dropFront(cut);
        }
        return true;
    }

    // The coarsest lod up to `lod` whose cell of `head` does not reach back over cells already filed.
    unsigned lodNotBefore(const MortonIndex3D<W>& head, unsigned lod) const
    {
        while (lod > 0 && cellStartAtLod(head, lod) < m_filedEnd)
        {
            --lod;
        }
        return lod;
    }

    void dropFront(std::size_t count)
    {
        for (std::size_t i = 0; i < count; ++i)
        {
            m_sum -= m_list[i].count;
        }
        m_list.erase(m_list.begin(), m_list.begin() + std::ptrdiff_t(count));
    }

    // Files the entries [begin, end) of the list cell by cell at `lod`.
    bool emitCells(std::size_t begin, std::size_t end, unsigned lod)
    {
        for (std::size_t first = begin; first < end;)
        {
            const MortonIndex3D<W> cell = cellStartAtLod(m_list[first].index, lod);
            uint64_t points = 0;
            uint8_t highest = 0;
            std::size_t last = first;
            for (; last < end && cellStartAtLod(m_list[last].index, lod) == cell; ++last)
            {
                points += m_list[last].count;
                highest = std::max(highest, m_list[last].lod);
            }
            if (!emitCell(first, last, cell, lod, points, highest))
            {
                return false;
            }
            first = last;
        }
        return true;
    }

    bool emitCell(std::size_t first, std::size_t last, const MortonIndex3D<W>& cell, unsigned lod,
                  uint64_t points, uint8_t highest)
    {
        if (points > m_limit)
        {
            if (last - first == 1)
            {
                addPointCritical(m_list[first]);
                return true;
            }
            // Several entries: the cell splits where its first and last entries part.
            const std::optional<MortonPivot<W>> pivot =
                computeSmallerPivot(m_list[first].index, m_list[last - 1].index);
            return pivot && emitCells(first, last, pivot->lod);
        }
        const uint8_t distributionLod = uint8_t(lod >= 2 ? lod - 2 : 0);
        ReadCell<W> read{cell, uint32_t(points), uint8_t(lod), uint32_t(m_plan.distributionList.size()), 0};
        if (highest <= distributionLod)
        {
            for (std::size_t i = first; i < last; ++i)
            {
                addDistributionEntry(m_list[i], distributionLod);
            }
        }
        else
        {
            m_plan.distributionCritical.push_back(LeafEntry<W>{cell, uint32_t(points), uint8_t(lod)});
            m_plan.distributionCriticalLods.push_back(distributionLod);
        }
        read.distributionEnd = uint32_t(m_plan.distributionList.size());
        m_plan.readList.push_back(read);
        markFiled(nextIndexAtLod(cell, lod));
        for (std::size_t i = first; i < last; ++i)
        {
            markFiled(extentEnd(m_list[i]));
        }
        return true;
    }

    void addDistributionEntry(const LeafEntry<W>& entry, uint8_t lod)
    {
        const MortonIndex3D<W> coarse = cellStartAtLod(entry.index, lod);
        std::vector<LeafEntry<W>>& list = m_plan.distributionList;
        // Entries of one read cell that share a coarse cell become one; distinct read cells never share one.
        if (!list.empty() && list.back().index == coarse && list.back().lod == lod)
        {
            list.back().count = addLeafCounts(list.back().count, entry.count);
            return;
        }
        list.push_back(LeafEntry<W>{coarse, entry.count, lod});
    }

    // Entries of one index were folded into one before they reached the list, so an entry comes here once:
    // no cell can be filed twice as critical.
    void addPointCritical(const LeafEntry<W>& entry)
    {
        m_plan.pointCritical.push_back(entry);
        markFiled(extentEnd(entry));
    }

    void markFiled(const MortonIndex3D<W>& end) { m_filedEnd = std::max(m_filedEnd, end); }

    unsigned m_maxLod;
    uint32_t m_limit;
    const LogFunction& m_errorLogger;
    std::deque<LeafEntry<W>> m_list;
    uint64_t m_sum = 0;
    // Everything before this code is on the lists; no later cell may reach back over it.
    MortonIndex3D<W> m_filedEnd{};
    DistributionPlan<W> m_plan;
};

// Sources ordered for a min-heap on their current entry's index.
template <typename W>
struct LaterSource
{
    bool operator()(const BufferInputStructureBase<W>* a, const BufferInputStructureBase<W>* b) const
    {
        return b->current().index < a->current().index;
    }
};

}  // namespace

template <typename W>
unsigned maxLodOfRuns(std::span<const ReadBuffer<W>> runs)
{
    unsigned lod = 0;
    for (const ReadBuffer<W>& run : runs)
    {
        for (const std::optional<OctantRange<W>>& octant : run.octants)
        {
            if (octant)
            {
                lod = std::max(lod, commonLodCount(octant->lowest, octant->highest));
            }
        }
    }
    return lod;
}

uint64_t mergeWindowBytes(uint64_t memory, std::size_t files)
{
    return std::min<uint64_t>(0x40000000, std::max<uint64_t>(memory / (uint64_t(files) + 1), 170));
}

template <typename W>
std::optional<DistributionPlan<W>> mergeLeafNodes(const LeafMergeInput<W>& input)
{
    const uint64_t windowBytes = mergeWindowBytes(input.memory, input.rasterLeafFiles.size());
    std::vector<std::unique_ptr<BufferInputStructureBase<W>>> sources;
    sources.push_back(std::make_unique<BufferMemInputStructure<W>>(input.leaves));
    for (const std::string& path : input.rasterLeafFiles)
    {
        sources.push_back(
            std::make_unique<BufferDiskInputStructure<W>>(path, windowBytes, input.errorLogger));
    }
    std::priority_queue<BufferInputStructureBase<W>*, std::vector<BufferInputStructureBase<W>*>,
                        LaterSource<W>>
        heap;
    for (const auto& source : sources)
    {
        if (!source->valid())
        {
            return std::nullopt;
        }
        if (source->hasEntry())
        {
            heap.push(source.get());
        }
    }

    LeafMerger<W> merger(input.maxLod, input.mergeLimit, input.errorLogger);
    std::optional<LeafEntry<W>> current;
    while (!heap.empty())
    {
        BufferInputStructureBase<W>* source = heap.top();
        heap.pop();
        const LeafEntry<W> entry = source->current();
        source->advance();
        if (!source->valid())
        {
            return std::nullopt;
        }
        if (source->hasEntry())
        {
            heap.push(source);
        }
        if (current && entry.index < extentEnd(*current))
        {
            // Entries of one index from two sources come in either order; the coarser one's cell holds both.
            // An entry nested further in is finer than the current one already.
            current->count = addLeafCounts(current->count, entry.count);
            current->lod = std::max(current->lod, entry.lod);
            continue;
        }
        if (current && !merger.add(*current))
        {
            return std::nullopt;
        }
        current = entry;
    }
    if ((current && !merger.add(*current)) || !merger.finish())
    {
        return std::nullopt;
    }
    DistributionPlan<W> plan = merger.takePlan();
    plan.maxLod = input.maxLod;
    reportTo(input.infoLogger,
             "Recomputation: Point critical: " + std::to_string(plan.pointCritical.size()) +
                 "; Distribution critical: " + std::to_string(plan.distributionCritical.size()));
    return plan;
}

template <typename W>
std::optional<DistributionPlan<W>> mergeLeafNodes(const PointDistributionInputHandler<W>& input,
                                                  uint64_t memory)
{
    std::vector<uint32_t> numbers = input.rasterLeafFiles();
    std::sort(numbers.begin(), numbers.end());
    LeafMergeInput<W> merge;
    merge.leaves = input.mergedLeaves();
    for (uint32_t number : numbers)
    {
        merge.rasterLeafFiles.push_back(input.rasterLeafFile(number));
    }
    merge.maxLod = maxLodOfRuns<W>(input.readList());
    merge.mergeLimit = input.mergeLimit();
    merge.memory = memory;
    merge.infoLogger = input.config().infoLogger;
    merge.errorLogger = input.config().errorLogger;
    std::optional<DistributionPlan<W>> plan = mergeLeafNodes<W>(merge);
    if (!plan)
    {
        reportTo(merge.errorLogger, "point distribution input handler: Could not compute merge leaf nodes.");
    }
    return plan;
}

template <typename W>
void logMergeSummary(const DistributionPlan<W>& plan, uint32_t mergeLimit, const LogFunction& infoLogger)
{
    uint32_t fullest = 0;
    for (const ReadCell<W>& cell : plan.readList)
    {
        fullest = std::max(fullest, cell.count);
    }
    reportTo(infoLogger, "Max lod = " + std::to_string(plan.maxLod));
    reportTo(infoLogger, "Merge max point count = " + std::to_string(fullest) +
                             (fullest > mergeLimit ? " > " : " < ") + std::to_string(mergeLimit) +
                             " = max points limit");
    reportTo(infoLogger, "Read count         : " + std::to_string(plan.readList.size()));
    reportTo(infoLogger, "Distribution count : " + std::to_string(plan.distributionList.size()));
}

template unsigned maxLodOfRuns<uint32_t>(std::span<const ReadBuffer<uint32_t>>);
template std::optional<DistributionPlan<uint32_t>> mergeLeafNodes<uint32_t>(const LeafMergeInput<uint32_t>&);
template std::optional<DistributionPlan<uint32_t>> mergeLeafNodes<uint32_t>(
    const PointDistributionInputHandler<uint32_t>&, uint64_t);
template void logMergeSummary<uint32_t>(const DistributionPlan<uint32_t>&, uint32_t, const LogFunction&);
template unsigned maxLodOfRuns<uint64_t>(std::span<const ReadBuffer<uint64_t>>);
template std::optional<DistributionPlan<uint64_t>> mergeLeafNodes<uint64_t>(const LeafMergeInput<uint64_t>&);
template std::optional<DistributionPlan<uint64_t>> mergeLeafNodes<uint64_t>(
    const PointDistributionInputHandler<uint64_t>&, uint64_t);
template void logMergeSummary<uint64_t>(const DistributionPlan<uint64_t>&, uint32_t, const LogFunction&);

}  // namespace HSPC
