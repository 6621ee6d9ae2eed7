// What the merge of the leaf arrays decides from the cell counts alone, before any point is read again: the
// cells that are read as units of distribution work, the leaf entries those cells feed, and the cells whose
// points must be looked at because their counts cannot settle them.
#pragma once

#include <cstdint>
#include <vector>

#include "hspc/convert/RawSortRecords.h"

namespace HSPC
{

// One cell of the read list: its first code, its points (at most the merge limit) and its lod, with the range
// of the distribution list that its entries went to.
template <typename W>
struct ReadCell
{
    MortonIndex3D<W> index;
    uint32_t count = 0;
    uint8_t lod = 0;
    uint32_t distributionBegin = 0;
    uint32_t distributionEnd = 0;
};

template <typename W>
struct DistributionPlan
{
    // The finest lod that still tells the runs apart; no read cell is coarser.
    unsigned maxLod = 0;
    std::vector<ReadCell<W>> readList;
    // The read cells' leaf entries, coarsened to two lods below their cell and folded there.
    std::vector<LeafEntry<W>> distributionList;
    // Read cells whose entries are too coarse to be coarsened so, and the lod each is to be distributed at.
    std::vector<LeafEntry<W>> distributionCritical;
    std::vector<uint8_t> distributionCriticalLods;
    // Cells of more points than the merge limit, which no cut of the counts can split.
    std::vector<LeafEntry<W>> pointCritical;

    uint64_t readPoints() const
    {
        uint64_t points = 0;
        for (const ReadCell<W>& cell : readList)
        {
            points += cell.count;
        }
        return points;
    }
};

}  // namespace HSPC
