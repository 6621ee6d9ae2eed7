// Encoded point records as the raw sort sees them: each record starts with its Morton code (three
// little-endian words, word 0 first), followed by the other attributes. Because the words are stored least
// significant first and each word is little-endian, the first 3 * sizeof(W) bytes of a record are the whole
// code as one little-endian integer: byte b of the record is bits 8b..8b+7 of the code.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "hspc/format/LittleEndian.h"
#include "hspc/format/MortonIndex3D.h"

namespace HSPC
{

template <typename W>
MortonIndex3D<W> loadMortonKey(const uint8_t* record)
{
    return MortonIndex3D<W>{{little_endian::load<W>(record), little_endian::load<W>(record + sizeof(W)),
                             little_endian::load<W>(record + 2 * sizeof(W))}};
}

template <typename W>
void storeMortonKey(uint8_t* record, const MortonIndex3D<W>& code)
{
    for (unsigned word = 0; word < 3; ++word)
    {
        little_endian::store<W>(record + word * sizeof(W), code.words[word]);
    }
}

// The first code of the cell at `lod` that holds `code`: its low 3 * lod bits cleared. At the lod of the
// whole space (or above) that is code 0.
template <typename W>
constexpr MortonIndex3D<W> cellStartAtLod(const MortonIndex3D<W>& code, unsigned lod)
{
    constexpr unsigned bits = MortonIndex3D<W>::kBitsPerAxis;
    MortonIndex3D<W> cell = code;
    unsigned cleared = lod >= bits ? 3 * bits : 3 * lod;
    for (unsigned word = 0; word<3; ++word, cleared = cleared> bits ? cleared - bits : 0)
    {
        if (cleared >= bits)
        {
            cell.words[word] = 0;
        }
        else if (cleared > 0)
        {
            cell.words[word] &= ~((W(1) << cleared) - 1);
        }
    }
    return cell;
}

// Sorted records seen as an array of codes.
template <typename W>
class SortedCodes
{
public:
    SortedCodes(const uint8_t* records, std::size_t count, uint32_t recordSize)
        : m_records(records), m_count(count), m_recordSize(recordSize)
    {
    }

    std::size_t size() const { return m_count; }
    MortonIndex3D<W> operator[](std::size_t i) const
    {
        return loadMortonKey<W>(m_records + i * m_recordSize);
    }

    // The first position from `from` on whose code is not below `bound`; the search gallops from `from` so
    // that a bound close by costs few probes.
    std::size_t lowerBound(std::size_t from, const MortonIndex3D<W>& bound) const
    {
        std::size_t below = from;  // everything before `below` is known to lie below the bound
        std::size_t step = 1;
        std::size_t probe = from;
        while (probe < m_count && (*this)[probe] < bound)
        {
            below = probe + 1;
            probe = from + step;
            step *= 2;
        }
        std::size_t end = std::min(probe, m_count);
        while (below < end)
        {
            const std::size_t middle = below + (end - below) / 2;
            if ((*this)[middle] < bound)
            {
                below = middle + 1;
            }
            else
            {
                end = middle;
            }
        }
        return below;
    }

private:
    const uint8_t* m_records;
    std::size_t m_count;
    uint32_t m_recordSize;
};

}  // namespace HSPC
