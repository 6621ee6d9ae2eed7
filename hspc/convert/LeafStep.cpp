#include "hspc/convert/LeafStep.h"

#include <algorithm>

#include "hspc/convert/LeafStepKernels.h"
#include "hspc/convert/MortonRecords.h"

namespace HSPC
{

template <typename W>
LeafOverlap findLeafOverlap(const std::vector<LeafEntry<W>>& leaves, const uint8_t* records, std::size_t count,
                            uint32_t recordSize)
{
    LeafOverlap overlap;
    if (leaves.empty() || count == 0)
    {
        return overlap;
    }
    const SortedCodes<W> codes(records, count, recordSize);
    const MortonIndex3D<W> first = codes[0];
    const MortonIndex3D<W> last = codes[count - 1];
    auto byIndex = [](const LeafEntry<W>& entry, const MortonIndex3D<W>& key) { return entry.index < key; };
    // From the last entry not after `first` (its cell may reach into the batch) to the first entry not
    // before `last`.
    auto begin = std::upper_bound(leaves.begin(), leaves.end(), first,
                                  [](const MortonIndex3D<W>& key, const LeafEntry<W>& entry) {
                                      return key < entry.index;
                                  });
    if (begin != leaves.begin())
    {
        --begin;
    }
    auto end = std::lower_bound(begin, leaves.end(), last, byIndex);
    if (end != leaves.end())
    {
        ++end;
    }
    for (auto entry = begin; entry != end; ++entry)
    {
        const MortonIndex3D<W> next = nextIndexAtLod(entry->index, entry->lod);
        const std::size_t inside = (next.isInvalid() ? count : codes.lowerBound(0, next)) - codes.lowerBound(0, entry->index);
        if (inside == 0)
        {
            continue;
        }
        const uint64_t grown = uint64_t(entry->count) + inside;
        if (!overlap.found || grown > overlap.largestCount)
        {
            overlap.largestCount = grown;
            overlap.largestLod = entry->lod;
        }
        overlap.found = true;
    }
    return overlap;
}

namespace
{

// The lod one finer than the first at which the batch has no more than `cells` distinct cells.
template <typename W>
int lodBelowCellCount(const uint8_t* records, std::size_t count, uint32_t recordSize, uint64_t cells)
{
    const Occupancy occupancy = occupancyTable<W>(records, count, recordSize);
    return int(firstLodReaching(occupancy.cells, std::max<uint64_t>(cells, 1))) - 1;
}

}  // namespace

template <typename W>
unsigned chooseCutLod(const LeafOverlap& overlap, const uint8_t* records, std::size_t count, uint32_t recordSize,
                      const CutLodState& state)
{
    const uint64_t s = state.spillCount;
    int cut = 0;
    if (overlap.found && overlap.largestLod != kNoLod)
    {
        const uint64_t m = overlap.largestCount;
        const int l = overlap.largestLod;
        if (m >= kLeafStepMinimumPoints && m > s)
        {
            // The fullest cell would grow beyond what a counted cell may hold: go finer.
            const int lod = lodBelowCellCount<W>(records, count, recordSize, std::min<uint64_t>(s / 4, count));
            cut = std::min(l - 1, lod);
        }
        else if (m >= kLeafStepMinimumPoints)
        {
            cut = l;
        }
        else
        {
            cut = l + 1;
        }
    }
    else if (count >= kLeafStepMinimumPoints)
    {
        const int lod = lodBelowCellCount<W>(records, count, recordSize, std::min<uint64_t>(s, count));
        cut = std::max(lod, int(kLowestFreshCutLod));
        if (state.biggestCount > s / 2 && state.biggestLod != kNoLod)
        {
            cut = std::min(cut, int(state.biggestLod));
        }
    }
    else
    {
        cut = int(state.currentLod);
    }
    return unsigned(std::clamp(cut, 0, int(MortonIndex3D<W>::kBitsPerAxis)));
}

template LeafOverlap findLeafOverlap(const std::vector<LeafEntry<uint32_t>>&, const uint8_t*, std::size_t,
                                     uint32_t);
template LeafOverlap findLeafOverlap(const std::vector<LeafEntry<uint64_t>>&, const uint8_t*, std::size_t,
                                     uint32_t);
template unsigned chooseCutLod<uint32_t>(const LeafOverlap&, const uint8_t*, std::size_t, uint32_t,
                                         const CutLodState&);
template unsigned chooseCutLod<uint64_t>(const LeafOverlap&, const uint8_t*, std::size_t, uint32_t,
                                         const CutLodState&);

}  // namespace HSPC
