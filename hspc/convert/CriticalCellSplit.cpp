#include "hspc/convert/CriticalCellSplit.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>

#include "hspc/convert/MortonRecords.h"

namespace HSPC
{

namespace
{

constexpr const char* kLeafFailure = "Could not compute leaf node.";
constexpr const char* kRecomputeFailure = "Could not recompute node.";

// Every piece holds exactly its slice's points, sorted, inside the unit's cell; otherwise the runs changed
// since their cell lists were written, and the counts of the whole plan cannot be trusted.
template <typename W>
bool piecesFit(const NodeToProcess<W>& unit, std::span<const std::vector<MortonIndex3D<W>>> pieces,
               const LogFunction& errorLogger)
{
    const MortonIndex3D<W> cellStart = cellStartAtLod(unit.index, unit.lod);
    const MortonIndex3D<W> cellEnd = nextIndexAtLod(cellStart, unit.lod);
    for (std::size_t i = 0; i < unit.slices.size(); ++i)
    {
        const bool fits = i < pieces.size() && pieces[i].size() == unit.slices[i].pointCount &&
                          std::is_sorted(pieces[i].begin(), pieces[i].end()) &&
                          (pieces[i].empty() || (cellStart <= pieces[i].front() && pieces[i].back() < cellEnd));
        if (!fits)
        {
            reportTo(errorLogger, "Error: read index = " + std::to_string(unit.slices[i].run) +
                                      "; distributionLod = " + std::to_string(unit.distributionLod) +
                                      " node.distribution = " + std::to_string(unit.lod));
            return false;
        }
    }
    return pieces.size() == unit.slices.size();
}

template <typename W>
std::vector<MortonIndex3D<W>> mergePieces(std::span<const std::vector<MortonIndex3D<W>>> pieces)
{
    std::size_t total = 0;
    for (const std::vector<MortonIndex3D<W>>& piece : pieces)
    {
        total += piece.size();
    }
    std::vector<MortonIndex3D<W>> merged;
    merged.reserve(total);
    for (const std::vector<MortonIndex3D<W>>& piece : pieces)
    {
        const std::ptrdiff_t middle = std::ptrdiff_t(merged.size());
        merged.insert(merged.end(), piece.begin(), piece.end());
        std::inplace_merge(merged.begin(), merged.begin() + middle, merged.end());
    }
    return merged;
}

template <typename W>
class CellSplitter
{
public:
    CellSplitter(const NodeToProcess<W>& unit, std::span<const std::vector<MortonIndex3D<W>>> pieces,
                 const CellSplitLimits& limits, RecomputedLeaves<W>& out)
        : m_unit(unit), m_pieces(pieces), m_limits(limits), m_out(out), m_cursors(pieces.size(), 0)
    {
    }

    // False for a cell of lod 0 above the limit that the duplicate filter does not settle.
    bool split(const std::vector<MortonIndex3D<W>>& merged)
    {
        // Depth first, children pushed last to first: the leaves come out in Morton order.
        std::vector<Cell> pending{Cell{cellStartAtLod(m_unit.index, m_unit.lod), m_unit.lod, 0, merged.size()}};
        while (!pending.empty())
        {
            const Cell cell = pending.back();
            pending.pop_back();
            const std::size_t count = cell.end - cell.begin;
            if (count <= m_limits.mergeLimit || (cell.lod == 0 && m_limits.filterDuplicates))
            {
                addLeaf(cell);
                continue;
            }
            if (cell.lod == 0)
            {
                printUndividable(cell);
                return false;
            }
            std::array<Cell, 8> children;
            MortonIndex3D<W> start = cell.start;
            std::size_t begin = cell.begin;
            for (unsigned child = 0; child < 8; ++child)
            {
                const MortonIndex3D<W> next = nextIndexAtLod(start, cell.lod - 1);
                // Counting by bisection: the codes of one child are the ones before the next child's start.
                const std::size_t end =
                    child == 7 ? cell.end
                               : std::size_t(std::lower_bound(merged.begin() + std::ptrdiff_t(begin),
                                                              merged.begin() + std::ptrdiff_t(cell.end), next) -
                                             merged.begin());
                children[child] = Cell{start, cell.lod - 1, begin, end};
                start = next;
                begin = end;
            }
            for (unsigned child = 8; child-- > 0;)
            {
                if (children[child].end > children[child].begin)
                {
                    pending.push_back(children[child]);
                }
            }
        }
        return true;
    }

private:
    struct Cell
    {
        MortonIndex3D<W> start;
        unsigned lod = 0;
        std::size_t begin = 0;
        std::size_t end = 0;
    };

    // The leaf's share of each run: the codes of each piece below the leaf's end, from where the leaf
    // before it ended.
    void addLeaf(const Cell& cell)
    {
        m_out.leaves.push_back(LeafEntry<W>{cell.start, uint32_t(cell.end - cell.begin), uint8_t(cell.lod)});
        const MortonIndex3D<W> end = nextIndexAtLod(cell.start, cell.lod);
        m_slices.clear();
        for (std::size_t i = 0; i < m_pieces.size(); ++i)
        {
            const std::vector<MortonIndex3D<W>>& piece = m_pieces[i];
            const std::size_t pieceEnd = std::size_t(
                std::lower_bound(piece.begin() + std::ptrdiff_t(m_cursors[i]), piece.end(), end) - piece.begin());
            if (pieceEnd > m_cursors[i])
            {
                const RunSlice& slice = m_unit.slices[i];
                m_slices.push_back(
                    RunSlice{slice.run, slice.firstPoint + m_cursors[i], uint32_t(pieceEnd - m_cursors[i])});
            }
            m_cursors[i] = pieceEnd;
        }
        m_out.slices.append(m_slices);
    }

    // What the runs hold of a cell that no split can divide: its size, the unit, and each run's share.
    void printUndividable(const Cell& cell) const
    {
        std::fprintf(stderr, "## 1 pathological array size = %llu\n", (unsigned long long)(cell.end - cell.begin));
        std::fprintf(stderr, "node lod = %d;", int(m_unit.lod));
        std::fprintf(stderr, "%llx,%llx,%llx\n", (unsigned long long)m_unit.index.words[0],
                     (unsigned long long)m_unit.index.words[1], (unsigned long long)m_unit.index.words[2]);
        const MortonIndex3D<W> end = nextIndexAtLod(cell.start, 0);
        for (std::size_t i = 0; i < m_pieces.size(); ++i)
        {
            const std::vector<MortonIndex3D<W>>& piece = m_pieces[i];
            const auto first = std::lower_bound(piece.begin(), piece.end(), cell.start);
            const auto last = std::lower_bound(first, piece.end(), end);
            if (last == first)
            {
                continue;
            }
            std::fprintf(stderr, "recompute node read index = %d\n", int(m_unit.slices[i].run));
            std::fprintf(stderr, "{ %10d,%10d,%10d,%10d,%3d},\n", int(cell.start.words[0]), int(cell.start.words[1]),
                         int(cell.start.words[2]), int(last - first), 0);
        }
        std::fflush(stderr);
    }

    const NodeToProcess<W>& m_unit;
    std::span<const std::vector<MortonIndex3D<W>>> m_pieces;
    const CellSplitLimits& m_limits;
    RecomputedLeaves<W>& m_out;
    std::vector<std::size_t> m_cursors;
    std::vector<RunSlice> m_slices;
};

}  // namespace

uint8_t distributionLodOf(unsigned lod, uint64_t count, uint32_t preferredCount, unsigned minimumLod)
{
    const double ratio = double(count) / double(std::max<uint32_t>(preferredCount, 1));
    const double wanted = std::max(double(lod) - std::log2(std::max(ratio, 1e-300)), double(minimumLod));
    return uint8_t(std::min<double>(std::trunc(wanted), double(lod)));
}

template <typename W>
bool splitCriticalCell(const NodeToProcess<W>& unit, std::span<const std::vector<MortonIndex3D<W>>> pieces,
                       const CellSplitLimits& limits, const LogFunction& errorLogger, RecomputedLeaves<W>& out,
                       std::string& failure)
{
    out = RecomputedLeaves<W>{};
    if (!piecesFit(unit, pieces, errorLogger))
    {
        failure = kLeafFailure;
        return false;
    }
    const std::vector<MortonIndex3D<W>> merged = mergePieces(pieces);
    // Leaf counts are 32-bit; a cell this large is billions of points of one position.
    if (merged.size() > 0xffffffffu)
    {
        failure = kLeafFailure;
        return false;
    }
    if (!CellSplitter<W>(unit, pieces, limits, out).split(merged))
    {
        reportTo(errorLogger, "Error: inner iteration failed.");
        failure = kRecomputeFailure;
        return false;
    }
    return true;
}

template bool splitCriticalCell<uint32_t>(const NodeToProcess<uint32_t>&,
                                          std::span<const std::vector<MortonIndex3D<uint32_t>>>,
                                          const CellSplitLimits&, const LogFunction&, RecomputedLeaves<uint32_t>&,
                                          std::string&);
template bool splitCriticalCell<uint64_t>(const NodeToProcess<uint64_t>&,
                                          std::span<const std::vector<MortonIndex3D<uint64_t>>>,
                                          const CellSplitLimits&, const LogFunction&, RecomputedLeaves<uint64_t>&,
                                          std::string&);

}  // namespace HSPC
