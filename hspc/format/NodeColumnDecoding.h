// The inner loops of node decoding. A group's planes are decoded in blocks of kBlockPoints points: the
// block's deltas are rebuilt from the byte planes (BytePlanes.h) into rows of values, accumulated in place,
// and each output action then writes its column from the rows. The rows of a block stay in the first-level
// cache, and every loop is a plain pass over arrays with no dispatch inside: stored type, output type and
// position form are template parameters, chosen once per action and block.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "hspc/format/Attribute.h"
#include "hspc/format/BytePlanes.h"
#include "hspc/format/LittleEndian.h"
#include "hspc/format/MortonIndex3D.h"
#include "hspc/format/MortonLimbs.h"

namespace HSPC::column_decoding
{

// Points per block; even, so that no swapped pair is split between blocks.
inline constexpr size_t kBlockPoints = 1024;
inline constexpr unsigned kBlockRows = 3;

// The unsigned integer of a width, in which deltas are taken for every type of that width.
template <size_t bytes>
using UnsignedOfSize = std::conditional_t<
    bytes == 1, uint8_t,
    std::conditional_t<bytes == 2, uint16_t, std::conditional_t<bytes == 4, uint32_t, uint64_t>>>;

// Three rows of kBlockPoints values of up to 8 bytes: what one block of the widest group needs.
struct BlockRows
{
    uint64_t* storage = nullptr;

    template <typename T>
    T* row(unsigned index) const
    {
        return reinterpret_cast<T*>(storage + index * kBlockPoints);
    }
};

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

// Where one output column of a block goes: the block's first record's byte and the record stride.
struct Column
{
    uint8_t* first = nullptr;
    size_t stride = 0;
};

// Turns the deltas of a block into values, continuing from the last value of the block before.
template <typename Bits>
Bits accumulate(Bits* values, size_t n, Bits running)
{
    for (size_t i = 0; i < n; ++i)
    {
        running = Bits(running + values[i]);
        values[i] = running;
    }
    return running;
}

// Writes values stored as `Stored` as `Out` values. Equal types move the bits untouched, so that floats
// keep every NaN payload.
template <typename Stored, typename Out>
void storeValues(const UnsignedOfSize<sizeof(Stored)>* values, size_t n, Column column)
{
    for (size_t i = 0; i < n; ++i)
    {
        uint8_t* out = column.first + i * column.stride;
        if constexpr (std::is_same_v<Stored, Out>)
        {
            little_endian::store(out, values[i]);
        }
        else
        {
            little_endian::store(out, static_cast<Out>(std::bit_cast<Stored>(values[i])));
        }
    }
}

// One group on its way through the blocks of a node: where its planes are, and the values its last block
// ended with, from which the next block's deltas count.
struct GroupCursor
{
    // The attribute; for the colour group that of G.
    uint32_t attribute = 0;
    bool isColor = false;
    const uint8_t* planes = nullptr;
    std::array<uint64_t, 3> running{};
};

// The planes of a node: each one byte per point of `count` points, `stride` bytes apart.
struct PlaneShape
{
    size_t stride = 0;
    size_t count = 0;
};

template <typename Bits>
void rebuildValues(const PlaneShape& shape, const uint8_t* planes, size_t first, size_t n, Bits* values)
{
    byte_planes::rebuildValues(planes, shape.stride, shape.count, first, n, values);
}

// The values of one ordinary attribute for one block, into `values`.
template <typename Bits>
void rebuildValueBlock(const PlaneShape& shape, GroupCursor& cursor, size_t first, size_t n, Bits* values)
{
    rebuildValues(shape, cursor.planes, first, n, values);
    cursor.running[0] = accumulate(values, n, Bits(cursor.running[0]));
}

// The colour group of one block into rows 0, 1 and 2: green, blue and red. The planes hold green deltas,
// then blue - green, then red - green.
template <typename Bits>
void rebuildColorBlock(const PlaneShape& shape, GroupCursor& cursor, size_t first, size_t n,
                       const BlockRows& rows)
{
    Bits* green = rows.row<Bits>(0);
    Bits* blue = rows.row<Bits>(1);
    Bits* red = rows.row<Bits>(2);
    rebuildValueBlock(shape, cursor, first, n, green);
    rebuildValues(shape, cursor.planes + sizeof(Bits) * shape.stride, first, n, blue);
    rebuildValues(shape, cursor.planes + 2 * sizeof(Bits) * shape.stride, first, n, red);
    for (size_t i = 0; i < n; ++i)
    {
        blue[i] = Bits(blue[i] + green[i]);
        red[i] = Bits(red[i] + green[i]);
    }
}

// The Morton codes of one block as 64-bit limbs (MortonLimbs.h) in rows 0, 1 and, for M192, 2. The three
// words of a code are one number, so a delta carries from word to word.
template <typename W>
void rebuildCodeBlock(const PlaneShape& shape, GroupCursor& cursor, size_t first, size_t n,
                      const BlockRows& rows)
{
    // A local copy: the rows are uint64_t as well, and the compiler would otherwise store the running
    // code after every point in case a row aliases it.
    std::array<uint64_t, 3> running = cursor.running;
    uint64_t* low = rows.row<uint64_t>(0);
    uint64_t* middle = rows.row<uint64_t>(1);
    rebuildValues(shape, cursor.planes, first, n, low);
    if constexpr (sizeof(W) == 4)
    {
        // Word 2 alone makes the second limb; its deltas wait in row 2 meanwhile.
        uint32_t* highDeltas = rows.row<uint32_t>(2);
        rebuildValues(shape, cursor.planes + 8 * shape.stride, first, n, highDeltas);
        for (size_t i = 0; i < n; ++i)
        {
            const uint64_t delta = low[i];
            running[0] += delta;
            const uint32_t carry = running[0] < delta;
            running[1] = uint32_t(running[1] + highDeltas[i] + carry);
            low[i] = running[0];
            middle[i] = running[1];
        }
    }
    else
    {
        uint64_t* high = rows.row<uint64_t>(2);
        rebuildValues(shape, cursor.planes + 8 * shape.stride, first, n, middle);
        rebuildValues(shape, cursor.planes + 16 * shape.stride, first, n, high);
        for (size_t i = 0; i < n; ++i)
        {
            running[0] += low[i];
            uint64_t carry = running[0] < low[i];
            const uint64_t sum = running[1] + middle[i];
            const uint64_t total = sum + carry;
            carry = uint64_t(sum < middle[i]) | uint64_t(total < carry);
            running[1] = total;
            running[2] += high[i] + carry;
            low[i] = running[0];
            middle[i] = running[1];
            high[i] = running[2];
        }
    }
    cursor.running = running;
}

template <typename W>
std::array<uint64_t, 3> limbsAt(const BlockRows& rows, size_t i)
{
    const uint64_t high = sizeof(W) == 8 ? rows.row<uint64_t>(2)[i] : 0;
    return {rows.row<uint64_t>(0)[i], rows.row<uint64_t>(1)[i], high};
}

template <typename W>
MortonIndex3D<W> codeOfLimbs(const std::array<uint64_t, 3>& limbs)
{
    if constexpr (sizeof(W) == 4)
    {
        return {{uint32_t(limbs[0]), uint32_t(limbs[0] >> 32), uint32_t(limbs[1])}};
    }
    else
    {
        return {limbs};
    }
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

    int64_t offset(W axis, unsigned index) const
    {
        return int64_t(std::make_signed_t<W>(((axis ^ flip[index]) & keep[index]) | set[index]));
    }
};

enum class PositionForm : uint8_t
{
    Integer,
    Float,
    SingleAxis,
};

// The positions of a block as offsets from the node's anchor: integers of type Out, or floats of type Out
// scaled by the node's scale, or one axis alone (Out double).
template <typename W, typename Out, PositionForm form, unsigned singleAxis, typename Extract>
void decodePositionBlock(const BlockRows& rows, size_t n, Column column, const AxisMapping<W>& mapping,
                         const std::array<double, 3>& scale)
{
    using morton_limbs::axisOfLimbs;
    // Copied, so that the stores to the output cannot make the compiler reload it.
    const AxisMapping<W> local = mapping;
    const std::array<double, 3> scales = scale;
    for (size_t i = 0; i < n; ++i)
    {
        const std::array<uint64_t, 3> limbs = limbsAt<W>(rows, i);
        uint8_t* out = column.first + i * column.stride;
        if constexpr (form == PositionForm::SingleAxis)
        {
            const W axis = axisOfLimbs<W, singleAxis, Extract>(limbs);
            little_endian::store<double>(out, double(local.offset(axis, singleAxis)) * scales[singleAxis]);
        }
        else
        {
            const std::array<W, 3> axes{axisOfLimbs<W, 0, Extract>(limbs), axisOfLimbs<W, 1, Extract>(limbs),
                                        axisOfLimbs<W, 2, Extract>(limbs)};
#pragma GCC unroll 3
            for (unsigned axis = 0; axis < 3; ++axis)
            {
                const int64_t offset = local.offset(axes[axis], axis);
                if constexpr (form == PositionForm::Integer)
                {
                    little_endian::store<Out>(out + sizeof(Out) * axis, Out(offset));
                }
                else
                {
                    little_endian::store<Out>(out + sizeof(Out) * axis, Out(double(offset) * scales[axis]));
                }
            }
        }
    }
}

// The codes of a block as stored: three words of W each.
template <typename W>
void copyPositionBlock(const BlockRows& rows, size_t n, Column column)
{
    for (size_t i = 0; i < n; ++i)
    {
        const MortonIndex3D<W> code = codeOfLimbs<W>(limbsAt<W>(rows, i));
        std::memcpy(column.first + i * column.stride, code.words.data(), MortonIndex3D<W>::kBytes);
    }
}

}  // namespace HSPC::column_decoding
