// How a node payload splits a point record into compressed groups of byte planes. Payload kinds 100 and 99:
//
//   offset   size  field
//   0        1     payload kind
//   1        1     group count n
//   2        8n    start of each group, counted from the end of this table
//   2 + 8n   ...   the groups
//
// A group is k planes, each an 8-byte compressed length L and one zstd frame of L bytes that inflates to one
// byte per point. One group per attribute in list order with k = the type's size, except that R, G and B of
// one common type make a single last group with k = 3 x that size (green, blue - green, red - green).
//
// Inside each plane the entries of a pair of points (0, 1), (2, 3), ... are swapped: entry i belongs to point
// i ^ 1, and a last odd point keeps its place.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "hspc/format/Attribute.h"

namespace HSPC
{

inline constexpr uint8_t kPayloadKindDelta = 100;
// The same layout from data sets whose cells are unsigned (format versions below 12).
inline constexpr uint8_t kPayloadKindUnbiasedDelta = 99;
inline constexpr uint8_t kPayloadKindArithmetic = 26;
inline constexpr size_t kPayloadPrefixSize = 2;
inline constexpr size_t kPlaneLengthSize = 8;

struct NodeGroup
{
    // The attribute of an ordinary group; for the colour group the index of G.
    uint32_t attribute = 0;
    uint32_t planeCount = 0;
    bool isColor = false;
};

struct NodeGroupLayout
{
    std::vector<NodeGroup> groups;
    // Set when R, G and B share one type and are stored as the colour group.
    bool colorGroup = false;
    uint32_t colorSize = 0;
    // Byte offsets of R, G and B in the record, and their attribute indices.
    uint32_t redOffset = 0;
    uint32_t greenOffset = 0;
    uint32_t blueOffset = 0;
    uint32_t red = 0;
    uint32_t green = 0;
    uint32_t blue = 0;
    // The most planes of any group: the plane buffers a codec needs.
    uint32_t widestGroup = 0;
};

NodeGroupLayout nodeGroupLayout(const std::vector<Attribute>& attributes);

// The plane entry that holds the value of `point` in a node of `count` points.
inline size_t planeEntry(size_t point, size_t count)
{
    const size_t partner = point ^ 1;
    return partner < count ? partner : point;
}

}  // namespace HSPC
