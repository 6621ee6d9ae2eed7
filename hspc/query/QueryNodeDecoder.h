// Decoding one node block into the records of a query: straight into the output when the whole node is
// wanted as integers or codes; through a per-point pass that cuts to the query box and turns cells into real
// coordinates otherwise. One decoder per thread; its buffers grow to the largest node seen and are reused.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "hspc/format/NodeDecompressor.h"
#include "hspc/format/NodeHeader.h"
#include "hspc/query/QueryLayout.h"

namespace HSPC
{

// Where a node is expected, from the tree: what its block must agree with.
struct QueryNodePlace
{
    uint32_t nodeIndex = 0;
    uint8_t lod = 0;
    std::array<uint64_t, 3> corner{};
    // The tree's point count; only checked against the block when the tree holds exact counts.
    uint64_t pointCount = 0;
    bool exactCount = true;
};

// The grid of the data set: real = cell * scale + origin.
struct QueryGrid
{
    uint8_t storedPositionType = AttributeType::M96;
    std::array<double, 3> origin{};
    std::array<double, 3> scale{1.0, 1.0, 1.0};
};

struct DecodedNode
{
    NodeHeader header;
    // The cell that integer positions are relative to.
    std::array<int64_t, 3> anchor{};
    // Points kept: all of the node's, or those inside the box.
    uint64_t pointCount = 0;
};

class QueryNodeDecoder
{
public:
    // Decodes `block` into `records` (resized to the kept points). With `box` (x0, y0, z0, x1, y1, z1,
    // inclusive) only the points inside are kept. False with the reason in `error` for a block that is not
    // the node the tree names or that does not decode.
    bool decode(std::span<const uint8_t> block, const QueryNodePlace& place, const QueryLayout& layout,
                const QueryGrid& grid, const std::optional<std::array<double, 6>>& box,
                std::vector<uint8_t>& records, DecodedNode& node, std::string& error);

private:
    bool checkHeader(std::span<const uint8_t> block, const QueryNodePlace& place, const QueryGrid& grid,
                     DecodedNode& node, std::string& error);
    bool decompress(std::span<const uint8_t> block, const DecodedNode& node, std::span<uint8_t> records,
                    size_t stride, std::string& error);
    void finishPoints(const QueryLayout& layout, const QueryGrid& grid,
                      const std::optional<std::array<double, 6>>& box, size_t stride,
                      std::vector<uint8_t>& records, DecodedNode& node) const;

    std::unique_ptr<NodeDecompressor> decompressor_;
    std::vector<OutputAction> actions_;
    std::vector<uint8_t> scratch_;
    size_t payloadStart_ = 0;
};

}  // namespace HSPC
