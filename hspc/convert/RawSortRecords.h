// What the raw sort leaves behind for the distribution, besides the sorted point runs on disk: leaf entries
// (how many points lie in which cell, the merged leaf array and its spills), cell lists (the same per run) and
// one run record per temp point file.
//
// Leaf entry, packed, as a spilled leaf array ("erge" temp file) holds it, one after the other in Morton
// order:
//
//   offset        size       field
//   0             3*sizeof(W) Morton index of the cell (MortonIndex3D.h), 12 bytes for 32-bit words
//   3*sizeof(W)   4          point count, unsigned
//   3*sizeof(W)+4 1          lod of the cell; kNoLod when none yet
//
// Cell entry, packed, as a run's cell list holds it in memory and as a spilled cell list ("orse" temp file)
// holds it on disk:
//
//   offset        size       field
//   0             3*sizeof(W) Morton index of the cell at the run's cut lod
//   3*sizeof(W)   4          point count, unsigned
//
// All integers little-endian. The files have no header: they are private to one conversion.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <optional>
#include <vector>

#include "hspc/convert/LeafStepKernels.h"
#include "hspc/convert/MortonRecords.h"
#include "hspc/format/LittleEndian.h"
#include "hspc/format/MortonIndex3D.h"
#include "hspc/format/TrackedMemory.h"

namespace HSPC
{

inline constexpr uint8_t kNoLod = 255;

template <typename W>
struct LeafEntry
{
    MortonIndex3D<W> index;
    uint32_t count = 0;
    uint8_t lod = kNoLod;

    static constexpr uint32_t kPackedSize = MortonIndex3D<W>::kBytes + 5;
};

// Bytes of one packed cell entry.
template <typename W>
inline constexpr uint32_t kCellEntrySize = MortonIndex3D<W>::kBytes + 4;

// One sorted run of points: a batch that survived filtering, written to the temp point file of its number.
template <typename W>
struct ReadBuffer
{
    uint32_t fileNumber = 0;
    MortonIndex3D<W> first;
    MortonIndex3D<W> last;
    // Per root octant the run's share; nothing for an octant without points.
    std::array<std::optional<OctantRange<W>>, 8> octants{};
    uint32_t pointCount = 0;
    uint8_t cutLod = 0;
    // The run's cell list at cutLod as packed cell entries; empty once spilled to cellFile.
    HSPCBuffer<uint8_t> cells;
    std::optional<uint32_t> cellFile;
    // Whether the temp point file holds one compressed node block rather than the raw records.
    bool compressed = false;
    // Bytes of the temp point file.
    uint64_t fileBytes = 0;
};

template <typename W>
inline void storeLeafEntry(uint8_t* out, const LeafEntry<W>& entry)
{
    storeMortonKey(out, entry.index);
    little_endian::store<uint32_t>(out + MortonIndex3D<W>::kBytes, entry.count);
    out[MortonIndex3D<W>::kBytes + 4] = entry.lod;
}

template <typename W>
inline LeafEntry<W> loadLeafEntry(const uint8_t* in)
{
    LeafEntry<W> entry;
    entry.index = loadMortonKey<W>(in);
    entry.count = little_endian::load<uint32_t>(in + MortonIndex3D<W>::kBytes);
    entry.lod = in[MortonIndex3D<W>::kBytes + 4];
    return entry;
}

struct CellCount
{
    uint64_t cells = 0;
    uint64_t points = 0;
};

// Cell entries in `bytes`, packed; a trailing partial entry is not counted.
template <typename W>
inline CellCount countCells(const uint8_t* bytes, uint64_t size)
{
    CellCount total;
    total.cells = size / kCellEntrySize<W>;
    for (uint64_t i = 0; i < total.cells; ++i)
    {
        total.points += little_endian::load<uint32_t>(bytes + i * kCellEntrySize<W> + MortonIndex3D<W>::kBytes);
    }
    return total;
}

}  // namespace HSPC
