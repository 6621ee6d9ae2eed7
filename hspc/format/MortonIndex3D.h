#pragma once

#include <array>
#include <bit>
#include <compare>
#include <cstdint>
#include <optional>
#include <type_traits>

namespace HSPC
{

// A 3-D Morton code of an integer cell: three words of W, word 0 the least significant. The code is one
// 3B-bit integer (B = bits of W per axis) in which bit 3k is bit k of x, bit 3k+1 bit k of y and bit 3k+2
// bit k of z. Sorting by the code sorts points by octree node at every level at once, and a node at lod L
// is the 8^L consecutive codes that start at a code whose low 3L bits are zero.
//
// In files and buffers a code is its three words in order, each little-endian:
//
//   offset        size       field
//   0             sizeof(W)  word 0 (least significant)
//   sizeof(W)     sizeof(W)  word 1
//   2*sizeof(W)   sizeof(W)  word 2 (most significant)
template <typename W>
struct MortonIndex3D
{
    static_assert(std::is_same_v<W, uint32_t> || std::is_same_v<W, uint64_t>,
                  "Morton codes exist for 32-bit and 64-bit words only");

    using Word = W;
    using SignedWord = std::make_signed_t<W>;

    static constexpr unsigned kBitsPerAxis = sizeof(W) * 8;  // also the lod of the whole space
    static constexpr unsigned kBytes = 3 * sizeof(W);
    static constexpr W kSignBit = W(1) << (kBitsPerAxis - 1);
    static constexpr W kAllOnes = ~W(0);
    // The attribute type code under which a data set stores positions of this width.
    static constexpr uint8_t kAttributeTypeCode = sizeof(W) == 4 ? 10 : 11;

    std::array<W, 3> words{};

    // All bits set: past the end of the whole space. No point is ever encoded to it.
    static constexpr MortonIndex3D invalidIndex() { return MortonIndex3D{{kAllOnes, kAllOnes, kAllOnes}}; }
    constexpr bool isInvalid() const { return *this == invalidIndex(); }

    friend constexpr bool operator==(const MortonIndex3D&, const MortonIndex3D&) = default;

    // Unsigned order of the whole code. The top word decides almost every comparison of nearby points.
    friend constexpr std::strong_ordering operator<=>(const MortonIndex3D& a, const MortonIndex3D& b)
    {
        if (a.words[2] != b.words[2])
        {
            return a.words[2] <=> b.words[2];
        }
        if (a.words[1] != b.words[1])
        {
            return a.words[1] <=> b.words[1];
        }
        return a.words[0] <=> b.words[0];
    }
};

namespace morton_detail
{

// Where an axis's bits fall in one word: the word's bit `phase` holds bit `first` of the axis, then every
// third bit follows. Both follow from "bit 3k + axis of the whole code is bit k of the axis".
struct AxisSlice
{
    unsigned phase;
    unsigned first;
};

template <typename W>
constexpr AxisSlice axisSlice(unsigned word, unsigned axis)
{
    constexpr unsigned bits = sizeof(W) * 8;
    const unsigned wordStart = word * bits;
    const unsigned phase = (axis + 3 * bits - wordStart % 3) % 3;
    return AxisSlice{phase, (wordStart + phase - axis) / 3};
}

// Moves bit k of the low bits of v to bit 3k, for every k with 3k inside the word. Each step moves the bits
// whose k has one bit set by twice that bit's value; the mask keeps exactly the bits in their new places.
constexpr uint32_t spreadBits(uint32_t v)
{
    v &= 0x7ffu;  // 11 bits reach bit 30
    v = (v | (v << 16)) & 0x070000ffu;
    v = (v | (v << 8)) & 0x0700f00fu;
    v = (v | (v << 4)) & 0x430c30c3u;
    v = (v | (v << 2)) & 0x49249249u;
    return v;
}

constexpr uint64_t spreadBits(uint64_t v)
{
    v &= 0x3fffffull;  // 22 bits reach bit 63
    v = (v | (v << 32)) & 0x003f00000000ffffull;
    v = (v | (v << 16)) & 0x003f0000ff0000ffull;
    v = (v | (v << 8)) & 0x300f00f00f00f00full;
    v = (v | (v << 4)) & 0x30c30c30c30c30c3ull;
    v = (v | (v << 2)) & 0x9249249249249249ull;
    return v;
}

// The inverse of spreadBits: bit 3k goes back to bit k, the other bits are dropped.
constexpr uint32_t compactBits(uint32_t v)
{
    v &= 0x49249249u;
    v = (v | (v >> 2)) & 0x430c30c3u;
    v = (v | (v >> 4)) & 0x0700f00fu;
    v = (v | (v >> 8)) & 0x070000ffu;
    v = (v | (v >> 16)) & 0x7ffu;
    return v;
}

constexpr uint64_t compactBits(uint64_t v)
{
    v &= 0x9249249249249249ull;
    v = (v | (v >> 2)) & 0x30c30c30c30c30c3ull;
    v = (v | (v >> 4)) & 0x300f00f00f00f00full;
    v = (v | (v >> 8)) & 0x003f0000ff0000ffull;
    v = (v | (v >> 16)) & 0x003f00000000ffffull;
    v = (v | (v >> 32)) & 0x3fffffull;
    return v;
}

// The bits of one axis that one word holds, spread into their places; the slice is fixed at compile time.
template <typename W, unsigned word, unsigned axis>
constexpr W spreadInto(W value)
{
    constexpr AxisSlice slice = axisSlice<W>(word, axis);
    return W(spreadBits(W(value >> slice.first)) << slice.phase);
}

// The bits of one axis that one word holds, back in their places within the axis.
template <typename W, unsigned word, unsigned axis>
constexpr W compactFrom(W wordValue)
{
    constexpr AxisSlice slice = axisSlice<W>(word, axis);
    return W(compactBits(W(wordValue >> slice.phase)) << slice.first);
}

template <typename W, unsigned word>
constexpr W encodeWord(W x, W y, W z)
{
    return spreadInto<W, word, 0>(x) | spreadInto<W, word, 1>(y) | spreadInto<W, word, 2>(z);
}

template <typename W, unsigned axis>
constexpr W decodeAxis(const std::array<W, 3>& words)
{
    return compactFrom<W, 0, axis>(words[0]) | compactFrom<W, 1, axis>(words[1]) |
           compactFrom<W, 2, axis>(words[2]);
}

// Adds 1 << bit to the code as one multi-word number; a carry out of the top word is reported.
template <typename W>
constexpr bool addPowerOfTwo(MortonIndex3D<W>& code, unsigned bit)
{
    constexpr unsigned bits = sizeof(W) * 8;
    W carry = 0;
    for (unsigned word = 0; word < 3; ++word)
    {
        const W addend = (word == bit / bits ? W(1) << (bit % bits) : W(0)) + carry;
        const W sum = code.words[word] + addend;
        carry = (sum < addend) ? 1 : 0;
        code.words[word] = sum;
    }
    return carry != 0;
}

// Position of the highest set bit over the whole code; the code must not be zero.
template <typename W>
constexpr unsigned highestSetBit(const MortonIndex3D<W>& code)
{
    constexpr unsigned bits = sizeof(W) * 8;
    for (unsigned word = 3; word-- > 0;)
    {
        if (code.words[word] != 0)
        {
            return word * bits + unsigned(std::bit_width(code.words[word])) - 1;
        }
    }
    return 0;
}

template <typename W>
constexpr MortonIndex3D<W> exclusiveOr(const MortonIndex3D<W>& a, const MortonIndex3D<W>& b)
{
    return MortonIndex3D<W>{{a.words[0] ^ b.words[0], a.words[1] ^ b.words[1], a.words[2] ^ b.words[2]}};
}

}  // namespace morton_detail

// The code of cell (x, y, z), without bias: cell 0 is code 0.
template <typename W>
constexpr MortonIndex3D<W> encodeMorton(W x, W y, W z)
{
    return MortonIndex3D<W>{{morton_detail::encodeWord<W, 0>(x, y, z),
                             morton_detail::encodeWord<W, 1>(x, y, z),
                             morton_detail::encodeWord<W, 2>(x, y, z)}};
}

// The exact inverse of encodeMorton: x, y, z.
template <typename W>
constexpr std::array<W, 3> decodeMorton(const MortonIndex3D<W>& code)
{
    return {morton_detail::decodeAxis<W, 0>(code.words), morton_detail::decodeAxis<W, 1>(code.words),
            morton_detail::decodeAxis<W, 2>(code.words)};
}

// The code of a signed cell. Flipping the sign bit maps the most negative value to 0 and 0 to the middle of
// the space, so that the unsigned order of the codes is the signed order of the cells. The top fifteen codes
// are folded onto the one below them: this moves a cell at the very corner of the space, but keeps
// invalidIndex free to mean "past the end".
template <typename W>
constexpr MortonIndex3D<W> encodeMortonSigned(std::make_signed_t<W> x, std::make_signed_t<W> y,
                                              std::make_signed_t<W> z)
{
    constexpr W sign = MortonIndex3D<W>::kSignBit;
    constexpr W allOnes = MortonIndex3D<W>::kAllOnes;
    MortonIndex3D<W> code = encodeMorton<W>(W(x) ^ sign, W(y) ^ sign, W(z) ^ sign);
    const bool inTopFifteen =
        code.words[2] == allOnes && code.words[1] == allOnes && code.words[0] >= allOnes - 14;
    code.words[0] = inTopFifteen ? allOnes - 15 : code.words[0];
    return code;
}

// The signed cell of a code made by encodeMortonSigned.
template <typename W>
constexpr std::array<std::make_signed_t<W>, 3> decodeMortonSigned(const MortonIndex3D<W>& code)
{
    using S = std::make_signed_t<W>;
    constexpr W sign = MortonIndex3D<W>::kSignBit;
    const std::array<W, 3> axes = decodeMorton(code);
    return {S(axes[0] ^ sign), S(axes[1] ^ sign), S(axes[2] ^ sign)};
}

// The code of the node that follows the node of `code` at `lod`; invalidIndex past the end of the space and
// for the lod of the whole space (or above it).
template <typename W>
constexpr MortonIndex3D<W> nextIndexAtLod(const MortonIndex3D<W>& code, unsigned lod)
{
    if (lod >= MortonIndex3D<W>::kBitsPerAxis)
    {
        return MortonIndex3D<W>::invalidIndex();
    }
    MortonIndex3D<W> next = code;
    const bool wrapped = morton_detail::addPowerOfTwo(next, 3 * lod);
    return wrapped ? MortonIndex3D<W>::invalidIndex() : next;
}

template <typename W>
struct LodAndNext
{
    unsigned lod;
    MortonIndex3D<W> next;
};

// The coarsest lod at which `code` starts a node, and the start of the next node of that lod. Code 0 starts
// the whole space: lod B, nothing after it.
template <typename W>
constexpr LodAndNext<W> lodAndNextIndex(const MortonIndex3D<W>& code)
{
    constexpr unsigned bits = MortonIndex3D<W>::kBitsPerAxis;
    if (code == MortonIndex3D<W>{})
    {
        return {bits, MortonIndex3D<W>::invalidIndex()};
    }
    unsigned trailingZeros = 0;
    for (unsigned word = 0; word < 3; ++word)
    {
        if (code.words[word] != 0)
        {
            trailingZeros = word * bits + unsigned(std::countr_zero(code.words[word]));
            break;
        }
    }
    const unsigned lod = trailingZeros / 3;
    return {lod, nextIndexAtLod(code, lod)};
}

// The number of levels, counted from the finest, at which the nodes of `a` and `b` differ, plus one; equal
// codes give 1.
template <typename W>
constexpr unsigned commonLodCount(const MortonIndex3D<W>& a, const MortonIndex3D<W>& b)
{
    return morton_detail::highestSetBit(morton_detail::exclusiveOr(a, b)) / 3 + 1;
}

template <typename W>
struct MortonPivot
{
    MortonIndex3D<W> index;
    unsigned lod;
};

// Splits a sorted run of codes from p0 to p at the highest octant boundary between them: the lod is that of
// the highest bit in which they differ, the pivot p0 plus one node of that lod (invalidIndex on wrap). Equal
// codes cannot be split; that means too many points fell into one cell, which is reported on the standard
// streams and answered with nothing.
template <typename W>
std::optional<MortonPivot<W>> computeSmallerPivot(const MortonIndex3D<W>& p0, const MortonIndex3D<W>& p);

extern template std::optional<MortonPivot<uint32_t>> computeSmallerPivot(const MortonIndex3D<uint32_t>&,
                                                                         const MortonIndex3D<uint32_t>&);
extern template std::optional<MortonPivot<uint64_t>> computeSmallerPivot(const MortonIndex3D<uint64_t>&,
                                                                         const MortonIndex3D<uint64_t>&);

}  // namespace HSPC
