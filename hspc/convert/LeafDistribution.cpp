#include "hspc/convert/LeafDistribution.h"

#include <algorithm>
#include <bit>
#include <limits>

#include "hspc/convert/EqualDistributionTake.h"
#include "hspc/convert/LeafNodeTree.h"
#include "hspc/convert/MortonRecords.h"

namespace HSPC
{

namespace
{

// Which points of the leaf have gone to a node (or were dropped as duplicates), one bit per point.
class UsedPoints
{
public:
    explicit UsedPoints(std::size_t count) : m_words((count + 63) / 64, 0) {}

    bool isUsed(std::size_t i) const { return (m_words[i / 64] >> (i % 64)) & 1u; }
    void markUsed(std::size_t i) { m_words[i / 64] |= uint64_t(1) << (i % 64); }

    // Points of [begin, end) not used yet, counted a word at a time.
    uint64_t unusedIn(std::size_t begin, std::size_t end) const
    {
        uint64_t unused = 0;
        std::size_t at = begin;
        while (at < end)
        {
            const std::size_t word = at / 64;
            const unsigned first = unsigned(at % 64);
            const unsigned stop = unsigned(std::min<std::size_t>(end - word * 64, 64));
            unused += unsigned(std::popcount(~m_words[word] & bitsBetween(first, stop)));
            at = word * 64 + stop;
        }
        return unused;
    }

    // Calls `visit(i)` for each unused point i of [begin, end) in order, until it returns false.
    template <typename Visit>
    void forEachUnused(std::size_t begin, std::size_t end, Visit&& visit) const
    {
        std::size_t at = begin;
        while (at < end)
        {
            const std::size_t word = at / 64;
            const unsigned stop = unsigned(std::min<std::size_t>(end - word * 64, 64));
            uint64_t free = ~m_words[word] & bitsBetween(unsigned(at % 64), stop);
            while (free != 0)
            {
                if (!visit(word * 64 + unsigned(std::countr_zero(free))))
                {
                    return;
                }
                free &= free - 1;
            }
            at = word * 64 + stop;
        }
    }

private:
    // Bits first..stop-1 of a word, stop at most 64.
    static uint64_t bitsBetween(unsigned first, unsigned stop)
    {
        const uint64_t below = stop == 64 ? ~uint64_t(0) : (uint64_t(1) << stop) - 1;
        return below & ~((uint64_t(1) << first) - 1);
    }

    HSPCBuffer<uint64_t> m_words;
};

template <typename W>
class LeafDistributor
{
public:
    LeafDistributor(const LeafDistributionRequest<W>& request, LeafDistribution<W>& result)
        : m_request(request),
          m_result(result),
          m_count(request.records.size() / request.recordSize),
          m_codes(request.records.data(), m_count, request.recordSize),
          m_used(m_count),
          m_tree(m_codes, request.leafEntryLod)
    {
    }

    bool run()
    {
        dropDuplicates();
        const unsigned leafLevel = findLeafLevel();
        m_result.leafLod = m_tree.lodOfLevel(leafLevel);
        if (!takeForUpperTree())
        {
            return false;
        }
        for (unsigned level = 0; level <= leafLevel; ++level)
        {
            const unsigned lod = m_tree.lodOfLevel(level);
            const uint32_t first = m_tree.levelOffset(level);
            for (uint32_t record = first; record < first + m_tree.nodeCount(level); ++record)
            {
                const uint64_t unused = unusedIn(level, record);
                if (unused == 0)
                {
                    continue;
                }
                // A node whose unused points fit one node takes them all and ends its branch, whatever its
                // take: cutting it into a node of `take` points and a few near-empty children would only make
                // more, smaller blocks. A fuller node keeps to its take and leaves the rest to the cells
                // below; at the finest level there is nothing below to leave it to.
                uint64_t take = unused;
                if (unused > m_request.maxNodeSize)
                {
                    if (level == leafLevel)
                    {
                        return false;
                    }
                    take = std::min<uint64_t>(m_request.takes[lod], unused);
                }
                if (take > 0 && !takeFrom(level, record, take, lod, m_result.nodes))
                {
                    return false;
                }
            }
        }
        return true;
    }

private:
    uint64_t unusedIn(unsigned level, uint32_t record) const
    {
        return m_used.unusedIn(m_tree.begin(level, record), m_tree.end(record));
    }

    void dropDuplicates()
    {
        if (!m_request.filterDuplicates)
        {
            return;
        }
        for (std::size_t i = 1; i < m_count; ++i)
        {
            if (m_codes[i] == m_codes[i - 1])
            {
                m_used.markUsed(i);
                ++m_result.droppedDuplicates;
            }
        }
    }

    // The finest level the leaf needs: the first at which no node holds more points than a node may, or
    // lod 0 when points stay together that far (a node there that is still too full fails the leaf). Levels
    // on which the points still share one cell are passed on the way, as is any level with a node too full
    // to be a leaf. Deciding it from the points before anything is taken means the walk from the top always
    // ends in nodes that can hold what is left.
    unsigned findLeafLevel()
    {
        while (true)
        {
            const unsigned level = m_tree.levelCount() - 1;
            const uint32_t first = m_tree.levelOffset(level);
            bool fits = true;
            for (uint32_t record = first; record < first + m_tree.nodeCount(level) && fits; ++record)
            {
                fits = unusedIn(level, record) <= m_request.maxNodeSize;
            }
            if (fits || !m_tree.addLevel())
            {
                return level;
            }
        }
    }

    bool takeForUpperTree()
    {
        if (!m_request.upperTake)
        {
            return true;
        }
        for (unsigned lod = MortonIndex3D<W>::kBitsPerAxis; lod > m_request.leafEntryLod; --lod)
        {
            const uint64_t left = unusedIn(0, 0);
            const uint64_t take = std::min(m_request.upperTake(lod), left);
            if (take > 0 && !takeFrom(0, 0, take, lod, m_result.upperPieces))
            {
                return false;
            }
        }
        return true;
    }

    // Gives `take` of the unused points below `record` (on `level`) to a new node at `lod`: the cells a few
    // levels down, as many as the take can serve, each give their fair share, picked evenly over the cell.
    bool takeFrom(unsigned level, uint32_t record, uint64_t take, unsigned lod,
                  std::vector<DistributionNode<W>>& into)
    {
        uint32_t first = record;
        uint32_t last = record + 1;
        unsigned cellLevel = level;
        while (cellLevel + 1 < m_tree.levelCount())
        {
            const uint32_t childFirst = m_tree.firstChild(first);
            const uint32_t childLast =
                m_tree.firstChild(last - 1) + unsigned(std::popcount(m_tree.childMask(last - 1)));
            if (occupiedCells(cellLevel + 1, childFirst, childLast) > take)
            {
                break;
            }
            first = childFirst;
            last = childLast;
            ++cellLevel;
        }
        m_cellCounts.clear();
        m_cellRecords.clear();
        for (uint32_t cell = first; cell < last; ++cell)
        {
            const uint64_t unused = unusedIn(cellLevel, cell);
            if (unused > 0)
            {
                m_cellCounts.push_back(uint32_t(unused));
                m_cellRecords.push_back(cell);
            }
        }
        m_cellTakes.resize(m_cellCounts.size());
        if (!computeEqualDistributionTake(m_cellCounts, take, m_cellTakes))
        {
            return false;
        }
        DistributionNode<W>& node = into.emplace_back();
        node.lod = uint8_t(lod);
        node.index = cellStartAtLod(m_codes[m_tree.begin(cellLevel, first)], lod);
        node.pointCount = uint32_t(take);
        node.data.reserve(take * m_request.recordSize);
        m_corner = decodeMorton(node.index);
        node.localMin.fill(std::numeric_limits<W>::max());
        for (std::size_t i = 0; i < m_cellRecords.size(); ++i)
        {
            const uint32_t cell = m_cellRecords[i];
            pickEvenly(m_tree.begin(cellLevel, cell), m_tree.end(cell), m_cellCounts[i], m_cellTakes[i],
                       node);
        }
        return true;
    }

    uint64_t occupiedCells(unsigned level, uint32_t first, uint32_t last) const
    {
        uint64_t occupied = 0;
        for (uint32_t cell = first; cell < last; ++cell)
        {
            occupied += unusedIn(level, cell) > 0 ? 1 : 0;
        }
        return occupied;
    }

    // Takes `picks` of the `unused` unused points of [begin, end): those of rank (2k + 1) * unused / (2 *
    // picks), the middles of equal stretches, so that the picks spread over the cell in Morton order.
    void pickEvenly(std::size_t begin, std::size_t end, uint64_t unused, uint64_t picks,
                    DistributionNode<W>& node)
    {
        if (picks == 0)
        {
            return;
        }
        m_picks.clear();
        uint64_t rank = 0;
        uint64_t wanted = unused / (2 * picks);
        m_used.forEachUnused(begin, end,
                             [&](std::size_t i)
                             {
                                 if (rank++ == wanted)
                                 {
                                     m_picks.push_back(i);
                                     wanted = ((2 * m_picks.size() + 1) * unused) / (2 * picks);
                                 }
                                 return m_picks.size() < picks;
                             });
        // Marked after the walk, which reads the words it would change.
        for (std::size_t i : m_picks)
        {
            addPoint(i, node);
            m_used.markUsed(i);
        }
    }

    void addPoint(std::size_t i, DistributionNode<W>& node)
    {
        const uint8_t* record = m_request.records.data() + i * m_request.recordSize;
        node.data.insert(node.data.end(), record, record + m_request.recordSize);
        const std::array<W, 3> cell = decodeMorton(loadMortonKey<W>(record));
        for (unsigned axis = 0; axis < 3; ++axis)
        {
            const W offset = W(cell[axis] - m_corner[axis]);
            node.localMin[axis] = std::min(node.localMin[axis], offset);
            node.localMax[axis] = std::max(node.localMax[axis], offset);
        }
    }

    const LeafDistributionRequest<W>& m_request;
    LeafDistribution<W>& m_result;
    std::size_t m_count;
    SortedCodes<W> m_codes;
    UsedPoints m_used;
    LeafNodeTree<W> m_tree;
    std::array<W, 3> m_corner{};
    // Scratch of takeFrom and pickEvenly, kept between nodes.
    std::vector<uint32_t> m_cellCounts;
    std::vector<uint32_t> m_cellTakes;
    std::vector<uint32_t> m_cellRecords;
    std::vector<std::size_t> m_picks;
};

}  // namespace

template <typename W>
bool distributeLeaf(const LeafDistributionRequest<W>& request, LeafDistribution<W>& result,
                    const LogFunction& errorLogger)
{
    const bool wholeRecords =
        request.recordSize >= MortonIndex3D<W>::kBytes && request.records.size() % request.recordSize == 0 &&
        request.records.size() / request.recordSize <= std::numeric_limits<uint32_t>::max() &&
        request.leafEntryLod <= MortonIndex3D<W>::kBitsPerAxis;
    result = LeafDistribution<W>{};
    if (!wholeRecords || !LeafDistributor<W>(request, result).run())
    {
        reportTo(errorLogger, "Failed to distribute points");
        reportTo(errorLogger, "Could not distribute points onto nodes.");
        return false;
    }
    return true;
}

template bool distributeLeaf(const LeafDistributionRequest<uint32_t>&, LeafDistribution<uint32_t>&,
                             const LogFunction&);
template bool distributeLeaf(const LeafDistributionRequest<uint64_t>&, LeafDistribution<uint64_t>&,
                             const LogFunction&);

}  // namespace HSPC
