// The inner loops of node decoding: byte planes (NodeGroups.h) accumulated into values and written straight
// into the caller's output column. Everything that varies per action (stored type, output type, position
// form) is a template parameter, so that the per-point loop has no dispatch and no branch: the dispatch
// happens once per action, outside the loop.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>

#include "hspc/format/Attribute.h"
#include "hspc/format/LittleEndian.h"
#include "hspc/format/MortonIndex3D.h"

// The per-point steps below are lambdas called from a loop helper; GCC leaves them out of line at -O2,
// which costs more than the work inside them, so they are forced inline.
#define HSPC_HOT_INLINE __attribute__((always_inline))

namespace HSPC::column_decoding
{

// The unsigned integer of a width, in which deltas are taken for every type of that width.
template <size_t bytes>
using UnsignedOfSize = std::conditional_t<
    bytes == 1, uint8_t,
    std::conditional_t<bytes == 2, uint16_t, std::conditional_t<bytes == 4, uint32_t, uint64_t>>>;

// The value of one point from the byte planes of its entry, plane j giving byte j. Unrolled by hand: the
// compiler keeps a loop over the planes, and the loop costs more than the loads.
template <typename T, size_t... plane>
HSPC_HOT_INLINE inline T gatherPlanes(const uint8_t* entryByte, size_t planeStride,
                                      std::index_sequence<plane...>)
{
    return T(((T(entryByte[plane * planeStride]) << (8 * plane)) | ...));
}

template <typename T>
HSPC_HOT_INLINE inline T gather(const uint8_t* planes, size_t planeStride, size_t entry)
{
    return gatherPlanes<T>(planes + entry, planeStride, std::make_index_sequence<sizeof(T)>{});
}

// Calls step(point, entry) for every point in order, with the plane entry that holds it: the entries of each
// pair of points are swapped, a last odd point keeps its place. Walking by pairs keeps that rule out of the
// loop body.
template <typename Step>
HSPC_HOT_INLINE inline void forEachEntry(size_t count, Step&& step)
{
    size_t point = 0;
    for (; point + 1 < count; point += 2)
    {
        step(point, point + 1);
        step(point + 1, point);
    }
    if (point < count)
    {
        step(point, point);
    }
}

// Stores the accumulated bits of a value stored as `Stored` as an `Out` value. Equal types move the bits
// untouched, so that floats keep every NaN payload.
template <typename Stored, typename Out>
HSPC_HOT_INLINE inline void storeConverted(uint8_t* out, UnsignedOfSize<sizeof(Stored)> bits)
{
    if constexpr (std::is_same_v<Stored, Out>)
    {
        little_endian::store(out, bits);
    }
    else
    {
        little_endian::store(out, static_cast<Out>(std::bit_cast<Stored>(bits)));
    }
}

// Calls f with a default value of the C++ type of a scalar type code (U8 .. F64); false for any other code.
template <typename F>
inline bool withScalarType(uint8_t type, F&& f)
{
    switch (type)
    {
        case AttributeType::U8:
            return f(uint8_t{}), true;
        case AttributeType::U16:
            return f(uint16_t{}), true;
        case AttributeType::U32:
            return f(uint32_t{}), true;
        case AttributeType::U64:
            return f(uint64_t{}), true;
        case AttributeType::I8:
            return f(int8_t{}), true;
        case AttributeType::I16:
            return f(int16_t{}), true;
        case AttributeType::I32:
            return f(int32_t{}), true;
        case AttributeType::I64:
            return f(int64_t{}), true;
        case AttributeType::F32:
            return f(float{}), true;
        case AttributeType::F64:
            return f(double{}), true;
        default:
            return false;
    }
}

// Where one output column goes: the first record's byte and the record stride.
struct Column
{
    uint8_t* first = nullptr;
    size_t stride = 0;
};

// One ordinary attribute: deltas of its width accumulated and written as `Out`.
template <typename Stored, typename Out>
void decodeValues(const uint8_t* planes, size_t planeStride, size_t count, Column column)
{
    using Bits = UnsignedOfSize<sizeof(Stored)>;
    Bits value = 0;
    forEachEntry(count,
                 [&](size_t point, size_t entry) HSPC_HOT_INLINE
                 {
                     value = Bits(value + gather<Bits>(planes, planeStride, entry));
                     storeConverted<Stored, Out>(column.first + point * column.stride, value);
                 });
}

// One component of the colour group. The planes hold green deltas, then blue - green, then red - green;
// component 0 is green itself, 1 blue and 2 red.
template <typename Stored, typename Out, unsigned component>
void decodeColorComponent(const uint8_t* planes, size_t planeStride, size_t count, Column column)
{
    using Bits = UnsignedOfSize<sizeof(Stored)>;
    const uint8_t* differences = planes + component * sizeof(Bits) * planeStride;
    Bits green = 0;
    forEachEntry(count,
                 [&](size_t point, size_t entry) HSPC_HOT_INLINE
                 {
                     green = Bits(green + gather<Bits>(planes, planeStride, entry));
                     Bits value = green;
                     if constexpr (component != 0)
                     {
                         value = Bits(green + gather<Bits>(differences, planeStride, entry));
                     }
                     storeConverted<Stored, Out>(column.first + point * column.stride, value);
                 });
}

// Calls emit(point, code) with the Morton code of every point: the three words are one number, so a delta
// carries from word to word.
template <typename W, typename Emit>
HSPC_HOT_INLINE inline void forEachCode(const uint8_t* planes, size_t planeStride, size_t count, Emit&& emit)
{
    const size_t wordStride = sizeof(W) * planeStride;
    MortonIndex3D<W> code{};
    forEachEntry(count,
                 [&](size_t point, size_t entry) HSPC_HOT_INLINE
                 {
                     W carry = 0;
                     for (unsigned word = 0; word < 3; ++word)
                     {
                         const W delta = gather<W>(planes + word * wordStride, planeStride, entry);
                         const W sum = W(code.words[word] + delta);
                         const W total = W(sum + carry);
                         carry = W((sum < delta) | (total < carry));
                         code.words[word] = total;
                     }
                     emit(point, code);
                 });
}

// Turns a decoded axis into the signed offset of the cell from the node's anchor, as
// (axis XOR flip) AND keep OR set: one form for unbiased codes (keep the node's low bits), biased codes of
// the whole space (flip the sign bit) and biased codes of a node on either side of zero (flip, keep the low
// bits, and for a node below zero set the high ones so that the offset is negative).
template <typename W>
struct AxisMapping
{
    std::array<W, 3> flip{};
    std::array<W, 3> keep{~W(0), ~W(0), ~W(0)};
    std::array<W, 3> set{};

    HSPC_HOT_INLINE int64_t offset(W axis, unsigned index) const
    {
        return int64_t(std::make_signed_t<W>(((axis ^ flip[index]) & keep[index]) | set[index]));
    }
};

// One axis of a code. For M96 words 0 and 1 are compacted as one 64-bit number, which takes two compactions
// per axis instead of three: bit 3k + axis of that number is bit k of the axis, and word 2 continues where
// it ends (its bit m, that is bit 64 + m of the code, belongs to axis (1 + m) mod 3).
template <typename W, unsigned axis>
HSPC_HOT_INLINE inline W decodeAxisOf(const std::array<W, 3>& words)
{
    if constexpr (std::is_same_v<W, uint32_t>)
    {
        constexpr unsigned highPhase = (axis + 2) % 3;
        constexpr unsigned highFirst = (64 + highPhase - axis) / 3;
        const uint64_t low = uint64_t(words[0]) | (uint64_t(words[1]) << 32);
        return uint32_t(morton_detail::compactBits(uint64_t(low >> axis))) |
               (morton_detail::compactBits(uint32_t(words[2] >> highPhase)) << highFirst);
    }
    else
    {
        return morton_detail::decodeAxis<W, axis>(words);
    }
}

enum class PositionForm : uint8_t
{
    Integer,
    Float,
    SingleAxis,
};

// The position as offsets from the node's anchor: integers of type Out, or floats of type Out scaled by
// the node's scale, or one axis alone (Out double).
template <typename W, typename Out, PositionForm form, unsigned singleAxis = 0>
void decodePositionOffsets(const uint8_t* planes, size_t planeStride, size_t count, Column column,
                           const AxisMapping<W>& mapping, const std::array<double, 3>& scale)
{
    forEachCode<W>(planes, planeStride, count,
                   [&](size_t point, const MortonIndex3D<W>& code) HSPC_HOT_INLINE
                   {
                       uint8_t* out = column.first + point * column.stride;
                       if constexpr (form == PositionForm::SingleAxis)
                       {
                           const W axis = decodeAxisOf<W, singleAxis>(code.words);
                           little_endian::store<double>(
                               out, double(mapping.offset(axis, singleAxis)) * scale[singleAxis]);
                       }
                       else
                       {
                           const std::array<W, 3> axes{decodeAxisOf<W, 0>(code.words),
                                                       decodeAxisOf<W, 1>(code.words),
                                                       decodeAxisOf<W, 2>(code.words)};
                           for (unsigned axis = 0; axis < 3; ++axis)
                           {
                               const int64_t offset = mapping.offset(axes[axis], axis);
                               if constexpr (form == PositionForm::Integer)
                               {
                                   little_endian::store<Out>(out + sizeof(Out) * axis, Out(offset));
                               }
                               else
                               {
                                   little_endian::store<Out>(out + sizeof(Out) * axis,
                                                             Out(double(offset) * scale[axis]));
                               }
                           }
                       }
                   });
}

template <typename W>
void copyPositionCodes(const uint8_t* planes, size_t planeStride, size_t count, Column column)
{
    forEachCode<W>(
        planes, planeStride, count,
        [&](size_t point, const MortonIndex3D<W>& code) HSPC_HOT_INLINE
        { std::memcpy(column.first + point * column.stride, code.words.data(), MortonIndex3D<W>::kBytes); });
}

}  // namespace HSPC::column_decoding

#undef HSPC_HOT_INLINE
