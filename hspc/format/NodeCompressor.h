// Writing octree nodes: the point records of one node become one "APRN" block (NodeHeader.h) with a payload
// of kind 100 (NodeGroups.h). Each attribute is delta coded against the previous point, split into byte
// planes and each plane compressed with zstd, at level 1 for nodes: the deltas of sorted Morton codes have
// almost only zero high bytes, which a plane of its own compresses to nearly nothing.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "hspc/format/Attribute.h"
#include "hspc/format/NodeGroups.h"
#include "hspc/format/NodeHeader.h"
#include "hspc/format/ZstdContexts.h"

namespace HSPC
{

// zstd level of the planes of nodes: low, so that reading many nodes stays cheap.
inline constexpr int kNodeCompressionLevel = 1;
// zstd level of point batches that a conversion spills to disk, read back once: disk space over speed.
inline constexpr int kBatchCompressionLevel = 16;

// Everything one worker needs to compress nodes of up to `pointLimit` points: the zstd context and the plane
// buffers are made once and reused for every node, without clearing.
class NodeCompressor
{
public:
    // Nothing, with a message on standard error, for an attribute that cannot be stored as byte planes (a
    // Morton code other than the position, a type of no size or of a size other than 1, 2, 4 or 8 bytes),
    // and after "failed to create zstd compression context" when zstd can't make its context. `level` is the
    // zstd level of every plane; the layout is the same at any level.
    static std::unique_ptr<NodeCompressor> create(const std::vector<Attribute>& attributes, size_t pointLimit,
                                                  int level = kNodeCompressionLevel);

    const std::vector<Attribute>& attributes() const { return attributes_; }
    uint32_t recordSize() const { return recordSize_; }
    size_t pointLimit() const { return pointLimit_; }
    int level() const { return level_; }
    // An output buffer with room for any node of the point limit; callers may hand it to compressNode.
    std::vector<uint8_t>& output() { return output_; }

private:
    NodeCompressor(ZstdCompressionContext context, const std::vector<Attribute>& attributes,
                   size_t pointLimit, int level);

    friend bool compressNode(bool, NodeHeader&, NodeCompressor&, std::span<const uint8_t>,
                             std::vector<uint8_t>&, std::vector<uint8_t>&);

    ZstdCompressionContext context_;
    std::vector<Attribute> attributes_;
    uint32_t recordSize_ = 0;
    std::vector<uint32_t> offsets_;
    NodeGroupLayout layout_;
    size_t pointLimit_ = 0;
    int level_ = kNodeCompressionLevel;
    // layout_.widestGroup planes of pointLimit_ bytes each, one after the other.
    std::vector<uint8_t> planes_;
    std::vector<uint8_t> output_;
};

// Compresses the records of one node into `output` as a version 22 block; `header` supplies the node's
// place (node, lod, scale, origin, box, distribution) and receives the written fields. With `rebase` the
// positions arrive as signed cells relative to the node's anchor (three signed words of the Morton width)
// and are encoded here; their codes must then ascend. `scratch` holds the header while the payload is
// written. False, with a message on standard error, for an empty node, a record count above the point
// limit, a position that is not a Morton code, unordered points or a zstd failure.
bool compressNode(bool rebase, NodeHeader& header, NodeCompressor& compressor,
                  std::span<const uint8_t> records, std::vector<uint8_t>& output,
                  std::vector<uint8_t>& scratch);

}  // namespace HSPC
