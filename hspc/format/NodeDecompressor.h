// Reading octree nodes: the payload of an "APRN" block (kinds 100 and 99, NodeGroups.h; the old kind 26,
// NodeArithmeticPayload.h) decoded straight into the caller's output records. Only the groups that the
// output needs are inflated.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "hspc/format/Attribute.h"
#include "hspc/format/Loggers.h"
#include "hspc/format/NodeColumnDecoding.h"
#include "hspc/format/NodeHeader.h"
#include "hspc/format/ZstdContexts.h"

namespace HSPC
{

// What to make of one stored attribute in the output record. For the position (source 0) the code says
// the form: 10 or 11 the Morton code as stored, 13 / 14 three I32 / I64 cells relative to the node's
// anchor, 15 / 16 three F32 / F64 offsets from the anchor in real units (cells times the node's scale),
// 19 / 20 / 21 the x / y / z offset alone as one F64 in real units (not for kind 26). For any other
// attribute the code is its stored type code or one the stored type widens to (canWiden), and the value is
// converted.
struct OutputAction
{
    uint32_t source = 0;
    uint32_t offset = 0;
    uint8_t code = 0;
};

// The actions that rebuild records as they were stored: each of the first `count` attributes of
// `attributes` in its own type, one after the other. `stride` receives the bytes of such a record.
std::vector<OutputAction> storedRecordActions(const std::vector<Attribute>& attributes, std::size_t count,
                                              uint32_t& stride);

struct NodeOutput
{
    std::span<uint8_t> records;
    size_t stride = 0;
    std::span<const OutputAction> actions;
};

// Everything one worker needs to read nodes of up to `pointLimit` points; reused for every node.
class NodeDecompressor
{
public:
    // Nothing, after "failed to create zstd decompression context." on standard error, when zstd can't
    // make its context.
    static std::unique_ptr<NodeDecompressor> create(size_t pointLimit);

    size_t pointLimit() const { return pointLimit_; }
    // Why the last decompressNode call failed, for the caller's message.
    const std::string& lastError() const { return lastError_; }

private:
    NodeDecompressor(ZstdDecompressionContext context, size_t pointLimit);

    friend class NodePayloadReader;

    ZstdDecompressionContext context_;
    size_t pointLimit_ = 0;
    // Whether axes are taken with PEXT (MortonLimbs.h); decided once, from the processor.
    bool parallelExtract_ = false;
    // Planes of pointLimit_ bytes each: as many as the widest group, grown when a node's output needs more
    // groups at once.
    std::vector<uint8_t> planes_;
    // The groups of the node being decoded.
    std::vector<column_decoding::GroupCursor> cursors_;
    // The rows in which one block of points is rebuilt (NodeColumnDecoding.h).
    std::vector<uint64_t> blockRows_;
    std::string lastError_;
};

// Decodes the payload of the node described by `header` (its version, lod, scale, point count and
// attributes) into `output`. False, with the reason in lastError(), on any inconsistency of the payload.
bool decompressNode(const NodeHeader& header, std::span<const uint8_t> payload,
                    NodeDecompressor& decompressor, const NodeOutput& output);

// A whole block as a reader receives it: the header parsed, its chunk size compared with the bytes at hand
// ("decompress hspc node : input size : ... is different than chunk.size : ..." on `logError`) and the
// payload decoded.
bool decompressNodeBlock(std::span<const uint8_t> block, NodeDecompressor& decompressor,
                         const NodeOutput& output, NodeHeader& header, const LogFunction& logError);

}  // namespace HSPC
