// The "APRN" chunk that starts every octree node block, whether the block is a file of its own or an entry of
// a pack archive. Every chunk starts with the same 12 bytes:
//
//   offset  size  field
//   0       4     four-character tag
//   4       8     size of the whole chunk, counted from the tag
//
// "APRN", format versions 12 to 22 (all integers little-endian):
//
//   offset  size  field
//   12      4     format version (22 when written)
//   16      4     attribute id (computeAttributeId)
//   20      8     point count
//   28      8     payload size
//   36      24    node x, y, z: the decoded Morton index of the node's corner, three uint64
//   60      24    scale x, y, z, three doubles
//   84      24    origin x, y, z, three doubles           (absent below version 8: zero)
//   108     4     lod
//   112     4     header size: the payload starts here
//   116     4     distribution                             (absent below version 9: zero)
//   120     48    local box min x, y, z, max x, y, z as uint64, integer units relative to the corner
//                 (below version 12: six floats in real units, and every later field 24 bytes earlier)
//   168     4     attribute count
//   172     ...   attribute records (AttributeRecord.h; below version 7 one type byte each)
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "hspc/format/Attribute.h"

namespace HSPC
{

inline constexpr uint32_t kNodeFormatVersion = 22;
inline constexpr uint32_t kOldestNodeFormatVersion = 4;
inline constexpr size_t kChunkHeaderSize = 12;

struct NodeHeader
{
    uint64_t chunkSize = 0;
    uint32_t version = kNodeFormatVersion;
    uint32_t attributeId = 0;
    uint64_t pointCount = 0;
    uint64_t payloadSize = 0;
    std::array<uint64_t, 3> node{};
    std::array<double, 3> scale{1.0, 1.0, 1.0};
    std::array<double, 3> origin{};
    uint32_t lod = 0;
    uint32_t headerSize = 0;
    // Belongs to the conversion; a reader only carries it along.
    uint32_t distribution = 0;
    std::array<uint64_t, 3> localMin{};
    std::array<uint64_t, 3> localMax{};
    std::vector<Attribute> attributes;
};

// Parses the header at the start of `block`. Returns the offset at which the payload starts (the header
// size field), or 0 when the block is shorter than its header, has another tag, a chunk size below the
// bytes at hand, a version outside 4..22, or a header size that does not cover the parsed fields.
size_t readNodeHeader(std::span<const uint8_t> block, NodeHeader& header);

// Appends the header as format version 22, with the chunk size, payload size and header size fields as the
// header holds them.
void writeNodeHeader(const NodeHeader& header, std::vector<uint8_t>& bytes);

// Bytes that writeNodeHeader produces for these attributes.
size_t nodeHeaderSize(const std::vector<Attribute>& attributes);

}  // namespace HSPC
