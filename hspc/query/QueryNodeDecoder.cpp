#include "hspc/query/QueryNodeDecoder.h"

#include <algorithm>
#include <cstring>

#include "hspc/convert/ConverterChecks.h"
#include "hspc/format/LittleEndian.h"
#include "hspc/format/MortonNodeBox.h"

namespace HSPC
{
namespace
{

// The cells of the points relative to the anchor, three int64 behind each record while a node is cut.
constexpr size_t kCellBytes = 24;

bool isRealPosition(uint8_t code)
{
    return code == query_action::kRealF32 || code == query_action::kRealF64 ||
           (code >= query_action::kAxisX && code <= query_action::kAxisZ);
}

bool needsRealPositions(const QueryLayout& layout)
{
    return std::any_of(layout.actions.begin(), layout.actions.end(),
                       [](const QueryAction& action) { return action.source == 0 && isRealPosition(action.code); });
}

bool hasUnsourcedFields(const QueryLayout& layout)
{
    return std::any_of(layout.actions.begin(), layout.actions.end(),
                       [](const QueryAction& action) { return action.source == kNoSourceAttribute; });
}

std::string nodeText(const QueryNodePlace& place)
{
    return "node " + std::to_string(place.nodeIndex);
}

std::string cornerText(unsigned lod, const std::array<uint64_t, 3>& corner)
{
    return "lod " + std::to_string(lod) + " at (" + std::to_string(corner[0]) + ", " + std::to_string(corner[1]) +
           ", " + std::to_string(corner[2]) + ")";
}

}  // namespace

bool QueryNodeDecoder::checkHeader(std::span<const uint8_t> block, const QueryNodePlace& place,
                                   const QueryGrid& grid, DecodedNode& node, std::string& error)
{
    NodeHeader& header = node.header;
    payloadStart_ = readNodeHeader(block, header);
    if (payloadStart_ == 0)
    {
        error = nodeText(place) + ": the block is not a node block or ends inside its header";
        return false;
    }
    if (header.chunkSize != block.size())
    {
        error = nodeText(place) + ": the block holds " + std::to_string(block.size()) + " bytes, its chunk says " +
                std::to_string(header.chunkSize);
        return false;
    }
    if (header.lod != place.lod || header.node != place.corner)
    {
        error = nodeText(place) + ": the block is of " + cornerText(header.lod, header.node) +
                ", the tree names " + cornerText(place.lod, place.corner);
        return false;
    }
    if (header.pointCount > kLargestNodeSize || (place.exactCount && header.pointCount != place.pointCount))
    {
        error = nodeText(place) + ": the block holds " + std::to_string(header.pointCount) +
                " points, the tree says " + std::to_string(place.pointCount);
        return false;
    }
    const auto anchor = nodeAnchor(grid.storedPositionType, header.version, header.lod, header.node[0],
                                   header.node[1], header.node[2]);
    if (!anchor)
    {
        error = nodeText(place) + ": the block's lod " + std::to_string(header.lod) +
                " does not fit the data set's positions";
        return false;
    }
    node.anchor = *anchor;
    node.pointCount = header.pointCount;
    return true;
}

bool QueryNodeDecoder::decompress(std::span<const uint8_t> block, const DecodedNode& node,
                                  std::span<uint8_t> records, size_t stride, std::string& error)
{
    const size_t count = size_t(node.pointCount);
    if (!decompressor_ || decompressor_->pointLimit() < count)
    {
        decompressor_ = NodeDecompressor::create(std::max<size_t>(count, 1));
        if (!decompressor_)
        {
            error = "cannot create a zstd decompression context";
            return false;
        }
    }
    const NodeOutput output{records, stride, actions_};
    if (!decompressNode(node.header, block.subspan(payloadStart_), *decompressor_, output))
    {
        error = decompressor_->lastError();
        return false;
    }
    return true;
}

bool QueryNodeDecoder::decode(std::span<const uint8_t> block, const QueryNodePlace& place,
                              const QueryLayout& layout, const QueryGrid& grid,
                              const std::optional<std::array<double, 6>>& box, std::vector<uint8_t>& records,
                              DecodedNode& node, std::string& error)
{
    if (!checkHeader(block, place, grid, node, error))
    {
        return false;
    }
    const size_t count = size_t(node.pointCount);
    const size_t stride = layout.recordSize;
    const bool zeroFields = hasUnsourcedFields(layout);
    const bool direct = !box && !needsRealPositions(layout);
    // Fields without a source stay zero; real positions are made from the cells afterwards.
    actions_.clear();
    for (const QueryAction& action : layout.actions)
    {
        const bool madeAfterwards = action.source == 0 && isRealPosition(action.code);
        if (action.source != kNoSourceAttribute && (direct || !madeAfterwards))
        {
            actions_.push_back({action.source, action.offset, action.code});
        }
    }
    // Real positions are made from the cells, so that they equal cell * scale + origin exactly (whole
    // coordinates, not offsets from the node, and for every payload kind, single axes too): the decoder
    // then writes the cells behind each record into the scratch buffer, and finishPoints keeps and completes
    // the records.
    std::vector<uint8_t>& target = direct ? records : scratch_;
    const size_t targetStride = direct ? stride : stride + kCellBytes;
    if (!direct)
    {
        actions_.push_back({0, uint32_t(stride), query_action::kIntegerI64});
    }
    target.resize(count * targetStride);
    if (zeroFields)
    {
        std::fill(target.begin(), target.end(), uint8_t(0));
    }
    if (!decompress(block, node, target, targetStride, error))
    {
        error = nodeText(place) + ": " + error;
        return false;
    }
    if (!direct)
    {
        finishPoints(layout, grid, box, stride, records, node);
    }
    return true;
}

void QueryNodeDecoder::finishPoints(const QueryLayout& layout, const QueryGrid& grid,
                                    const std::optional<std::array<double, 6>>& box, size_t stride,
                                    std::vector<uint8_t>& records, DecodedNode& node) const
{
    const size_t count = size_t(node.pointCount);
    const size_t extended = stride + kCellBytes;
    records.resize(count * stride);
    size_t kept = 0;
    for (size_t i = 0; i < count; ++i)
    {
        const uint8_t* source = scratch_.data() + i * extended;
        std::array<double, 3> real{};
        for (unsigned axis = 0; axis < 3; ++axis)
        {
            const int64_t cell = node.anchor[axis] + little_endian::load<int64_t>(source + stride + 8 * axis);
            real[axis] = double(cell) * grid.scale[axis] + grid.origin[axis];
        }
        if (box && !((*box)[0] <= real[0] && real[0] <= (*box)[3] && (*box)[1] <= real[1] &&
                     real[1] <= (*box)[4] && (*box)[2] <= real[2] && real[2] <= (*box)[5]))
        {
            continue;
        }
        uint8_t* out = records.data() + kept * stride;
        std::memcpy(out, source, stride);
        for (const QueryAction& action : layout.actions)
        {
            if (action.source != 0 || !isRealPosition(action.code))
            {
                continue;
            }
            uint8_t* field = out + action.offset;
            if (action.code == query_action::kRealF64)
            {
                for (unsigned axis = 0; axis < 3; ++axis)
                    little_endian::store<double>(field + 8 * axis, real[axis]);
            }
            else if (action.code == query_action::kRealF32)
            {
                for (unsigned axis = 0; axis < 3; ++axis)
                    little_endian::store<float>(field + 4 * axis, float(real[axis]));
            }
            else
            {
                little_endian::store<double>(field, real[action.code - query_action::kAxisX]);
            }
        }
        ++kept;
    }
    records.resize(kept * stride);
    node.pointCount = kept;
}

}  // namespace HSPC
