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
    kCopy = 0,          // target size bytes from the source offset
    kConstant = 1,      // target size bytes of the value field
    kCounter = 2,       // the running point number
    kColorDown16 = 3,   // a colour, capped and shifted right by the value, as one or two bytes
    kColorDown8 = 4,    // the same with a one-byte result
    kPosition = 5,      // x, y, z of the source as one Morton code on the target grid
    kElevation = 6,     // the source's z in real units, as a float or double
    kIntegerCast = 7,   // an integer widened to a larger integer of the same signedness
    kIntegerToFloat = 8,
    kScanIndex = 9,     // the point's scan index, saturated to the target size
    kFloatCast = 10,    // a float to a float of the other width
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

// The value field of the casts and of the elevation: the source type in its lowest byte, the target type in
// the next.
constexpr uint64_t packTypePair(uint8_t sourceType, uint8_t targetType)
{
    return uint64_t(sourceType) | uint64_t(targetType) << 8;
}
constexpr uint8_t sourceTypeOf(uint64_t value)
{
    return uint8_t(value);
}
constexpr uint8_t targetTypeOf(uint64_t value)
{
    return uint8_t(value >> 8);
}

// The value field of the colour actions: the shift in its lowest byte, the largest colour a source value may
// have above it; larger values are capped before the shift so that they cannot spill over the target.
constexpr uint64_t packColorDown(uint8_t shift, uint32_t maxColor)
{
    return uint64_t(shift) | uint64_t(maxColor) << 8;
}
constexpr uint8_t colorShiftOf(uint64_t value)
{
    return uint8_t(value);
}
constexpr uint32_t maxColorOf(uint64_t value)
{
    return uint32_t(value >> 8);
}

// The value field of the position: the offsets of y and z in a source record (x is the action's own offset).
constexpr uint64_t packAxisOffsets(uint16_t yOffset, uint16_t zOffset)
{
    return uint64_t(yOffset) | uint64_t(zOffset) << 16;
}
constexpr uint16_t yOffsetOf(uint64_t value)
{
    return uint16_t(value);
}
constexpr uint16_t zOffsetOf(uint64_t value)
{
    return uint16_t(value >> 16);
}

}  // namespace HSPC
