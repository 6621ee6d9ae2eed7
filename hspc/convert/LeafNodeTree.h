// The cells of one leaf of the distribution, level after level, over the leaf's sorted point records. Every
// level covers all points of the leaf, each node a consecutive range of them; so a record stores only where
// its range ends, and its start is where the record before it on the same level ends.
//
// A record is 9 packed bytes:
//
//   offset  size  field
//   0       1     child mask: bit k set when octant k of the node holds points
//   1       4     index of the record of the first child (the children follow it in octant order)
//   5       4     end of the node's points in the leaf buffer (one past the last record)
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "hspc/convert/MortonRecords.h"
#include "hspc/format/TrackedMemory.h"

namespace HSPC
{

inline constexpr std::size_t kLeafTreeRecordSize = 9;

template <typename W>
class LeafNodeTree
{
public:
    // Level 0 is the leaf's own cell at `topLod`, holding all of `codes`.
    LeafNodeTree(const SortedCodes<W>& codes, unsigned topLod);

    // Adds the level one lod below the finest one; false when the finest level is already at lod 0.
    bool addLevel();

    unsigned topLod() const { return m_topLod; }
    unsigned levelCount() const { return unsigned(m_levelOffsets.size()); }
    unsigned lodOfLevel(unsigned level) const { return m_topLod - level; }
    uint32_t levelOffset(unsigned level) const { return m_levelOffsets[level]; }
    uint32_t nodeCount(unsigned level) const { return m_levelCounts[level]; }

    uint8_t childMask(uint32_t record) const { return m_records[record * kLeafTreeRecordSize]; }
    uint32_t firstChild(uint32_t record) const;
    uint32_t end(uint32_t record) const;
    // Start of the points of `record`, which lies on `level`.
    uint32_t begin(unsigned level, uint32_t record) const
    {
        return record == m_levelOffsets[level] ? 0 : end(record - 1);
    }
    // The node's first code at its lod.
    MortonIndex3D<W> index(unsigned level, uint32_t record) const
    {
        return cellStartAtLod(m_codes[begin(level, record)], lodOfLevel(level));
    }

private:
    void appendRecord(uint32_t end);

    const SortedCodes<W>& m_codes;
    unsigned m_topLod;
    HSPCBuffer<uint8_t> m_records;
    std::vector<uint32_t> m_levelOffsets;
    std::vector<uint32_t> m_levelCounts;
};

extern template class LeafNodeTree<uint32_t>;
extern template class LeafNodeTree<uint64_t>;

}  // namespace HSPC
