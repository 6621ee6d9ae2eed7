#include "hspc/convert/LeafNodeTree.h"

#include <algorithm>

#include "hspc/format/LittleEndian.h"

namespace HSPC
{

namespace
{

// The octant (0..7) of `code` inside its cell one lod above `lod`.
template <typename W>
uint8_t octantAtLod(const MortonIndex3D<W>& code, unsigned lod)
{
    constexpr unsigned bits = MortonIndex3D<W>::kBitsPerAxis;
    const unsigned bit = 3 * lod;
    // Three bits of a 3B-bit number may straddle two words.
    unsigned octant = 0;
    for (unsigned k = 0; k < 3; ++k)
    {
        const unsigned at = bit + k;
        octant |= unsigned((code.words[at / bits] >> (at % bits)) & 1u) << k;
    }
    return uint8_t(octant);
}

}  // namespace

template <typename W>
LeafNodeTree<W>::LeafNodeTree(const SortedCodes<W>& codes, unsigned topLod) : m_codes(codes), m_topLod(topLod)
{
    m_levelOffsets.push_back(0);
    m_levelCounts.push_back(1);
    appendRecord(uint32_t(codes.size()));
}

template <typename W>
uint32_t LeafNodeTree<W>::firstChild(uint32_t record) const
{
    return little_endian::load<uint32_t>(m_records.data() + record * kLeafTreeRecordSize + 1);
}

template <typename W>
uint32_t LeafNodeTree<W>::end(uint32_t record) const
{
    return little_endian::load<uint32_t>(m_records.data() + record * kLeafTreeRecordSize + 5);
}

template <typename W>
void LeafNodeTree<W>::appendRecord(uint32_t end)
{
    const std::size_t at = m_records.size();
    m_records.resize(at + kLeafTreeRecordSize);
    m_records[at] = 0;
    little_endian::store<uint32_t>(m_records.data() + at + 1, 0);
    little_endian::store<uint32_t>(m_records.data() + at + 5, end);
}

template <typename W>
bool LeafNodeTree<W>::addLevel()
{
    const unsigned parentLevel = levelCount() - 1;
    const unsigned parentLod = lodOfLevel(parentLevel);
    if (parentLod == 0)
    {
        return false;
    }
    const unsigned lod = parentLod - 1;
    const uint32_t parentOffset = m_levelOffsets[parentLevel];
    const uint32_t parentCount = m_levelCounts[parentLevel];
    const uint32_t childOffset = parentOffset + parentCount;
    uint32_t childCount = 0;
    for (uint32_t parent = parentOffset; parent < childOffset; ++parent)
    {
        const uint32_t parentEnd = end(parent);
        uint32_t start = begin(parentLevel, parent);
        uint8_t mask = 0;
        const uint32_t first = childOffset + childCount;
        while (start < parentEnd)
        {
            const MortonIndex3D<W> code = m_codes[start];
            const MortonIndex3D<W> next = nextIndexAtLod(cellStartAtLod(code, lod), lod);
            const uint32_t stop =
                next.isInvalid()
                    ? parentEnd
                    : uint32_t(std::min<std::size_t>(m_codes.lowerBound(start, next), parentEnd));
            mask |= uint8_t(1u << octantAtLod(code, lod));
            appendRecord(stop);
            ++childCount;
            start = stop;
        }
        // The record may have moved with the buffer's growth: address it afresh.
        m_records[parent * kLeafTreeRecordSize] = mask;
        little_endian::store<uint32_t>(m_records.data() + parent * kLeafTreeRecordSize + 1, first);
    }
    m_levelOffsets.push_back(childOffset);
    m_levelCounts.push_back(childCount);
    return true;
}

template class LeafNodeTree<uint32_t>;
template class LeafNodeTree<uint64_t>;

}  // namespace HSPC
