// Encoded point records as the raw sort sees them: each record starts with its Morton code (three
// little-endian words, word 0 first), followed by the other attributes. Because the words are stored least
// significant first and each word is little-endian, the first 3 * sizeof(W) bytes of a record are the whole
// code as one little-endian integer: byte b of the record is bits 8b..8b+7 of the code.
#pragma once

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

// The first code of the cell at `lod` that holds `code`: its low 3 * lod bits cleared. At the lod of the whole
// space (or above) that is code 0.
template <typename W>
constexpr MortonIndex3D<W> cellStartAtLod(const MortonIndex3D<W>& code, unsigned lod)
{
    constexpr unsigned bits = MortonIndex3D<W>::kBitsPerAxis;
    MortonIndex3D<W> cell = code;
    unsigned cleared = lod >= bits ? 3 * bits : 3 * lod;
    for (unsigned word = 0; word < 3; ++word, cleared = cleared > bits ? cleared - bits : 0)
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

}  // namespace HSPC
