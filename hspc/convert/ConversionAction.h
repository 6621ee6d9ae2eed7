// The short program that turns one source record into one encoded record. computeActions writes it once per
// importer; the interpreter runs it for every point, so an action is a small fixed record and no per-point
// decision is taken twice.
#pragma once

#include <cstdint>

namespace HSPC
{

// What an action does; the values are part of the action list's contract.
namespace ActionKind
{
enum Code : uint8_t
{
    kCopy = 0,         // target size bytes from the source offset
    kConstant = 1,     // target size bytes of the value field
    kCounter = 2,      // the running point number
    kColorDown16 = 3,  // a colour, capped and shifted right by the value, as one or two bytes
    kColorDown8 = 4,   // the same with a one-byte result
    kPosition = 5,     // x, y, z of the source as one Morton code on the target grid
    kElevation = 6,    // the source's z in real units, as a float or double
    kIntegerCast = 7,  // an integer widened to a larger integer of the same signedness
    kIntegerToFloat = 8,
    kScanIndex = 9,   // the point's scan index, saturated to the target size
    kFloatCast = 10,  // a float to a float of the other width
};
}  // namespace ActionKind

// 16 bytes: the interpreter walks a short array of these for every point.
//
//   offset  size  field
//   0       1     kind
//   2       2     target size: bytes written
//   4       2     source size: bytes read
//   6       2     source offset: where in a source record the bytes start
//   8       8     value, by kind: a constant, a colour shift, an attribute index or a pair of types
struct ConversionAction
{
    uint8_t kind = ActionKind::kCopy;
    uint16_t targetSize = 0;
    uint16_t sourceSize = 0;
    uint16_t sourceOffset = 0;
    uint64_t value = 0;
};
static_assert(sizeof(ConversionAction) == 16);

// The value field of several kinds holds two numbers: the first in its low `lowBits` bits, the second above.
template <unsigned lowBits>
struct ValuePair
{
    static constexpr uint64_t pack(uint64_t low, uint64_t high) { return low | high << lowBits; }
    static constexpr uint64_t low(uint64_t value) { return value & ((uint64_t(1) << lowBits) - 1); }
    static constexpr uint64_t high(uint64_t value) { return value >> lowBits; }
};

// Casts and the elevation: the source type, then the target type.
using TypePair = ValuePair<8>;
// Colours: the shift, then the largest source value; larger values are capped before the shift so that they
// cannot spill over the target.
using ColorDown = ValuePair<8>;
// The position: the offsets of y and z in a source record (x is the action's own offset).
using AxisOffsets = ValuePair<16>;

}  // namespace HSPC
