// Searches in a batch of encoded point records sorted by their Morton index, which is the first
// 3 * sizeof(W) bytes of each record.
#pragma once

#include <cstddef>
#include <cstdint>

#include "hspc/convert/RawSortRecords.h"
#include "hspc/format/MortonIndex3D.h"

namespace HSPC
{

template <typename W>
inline MortonIndex3D<W> recordIndex(const uint8_t* records, std::size_t i, uint32_t recordSize)
{
    return loadMorton<W>(records + i * recordSize);
}

// The first record whose index is not below `key`; `count` when there is none.
template <typename W>
std::size_t lowerBoundRecord(const uint8_t* records, std::size_t count, uint32_t recordSize,
                             const MortonIndex3D<W>& key)
{
    std::size_t first = 0;
    std::size_t length = count;
    while (length > 0)
    {
        const std::size_t half = length / 2;
        if (recordIndex<W>(records, first + half, recordSize) < key)
        {
            first += half + 1;
            length -= half + 1;
        }
        else
        {
            length = half;
        }
    }
    return first;
}

// Records in [from, next cell at `lod` after `cell`), the cell of `cell` at `lod`.
template <typename W>
std::size_t recordsInCell(const uint8_t* records, std::size_t count, uint32_t recordSize,
                          const MortonIndex3D<W>& cell, unsigned lod)
{
    const std::size_t begin = lowerBoundRecord<W>(records, count, recordSize, cell);
    const MortonIndex3D<W> next = nextIndexAtLod(cell, lod);
    const std::size_t end = next.isInvalid() ? count : lowerBoundRecord<W>(records, count, recordSize, next);
    return end - begin;
}

}  // namespace HSPC
