#include "hspc/format/NodeDecompressor.h"

#include <algorithm>
#include <cstdio>

#include "hspc/format/LittleEndian.h"
#include "hspc/format/MortonIndex3D.h"
#include "hspc/format/NodeArithmeticPayload.h"
#include "hspc/format/NodeColumnDecoding.h"
#include "hspc/format/NodeGroups.h"

namespace HSPC
{

std::vector<OutputAction> storedRecordActions(const std::vector<Attribute>& attributes, std::size_t count,
                                              uint32_t& stride)
{
    std::vector<OutputAction> actions;
    stride = 0;
    for (std::size_t i = 0; i < std::min(count, attributes.size()); ++i)
    {
        actions.push_back(OutputAction{uint32_t(i), stride, attributes[i].type});
        stride += typeSize(attributes[i].type);
    }
    return actions;
}


namespace
{

// The widest group there can be: an M192 position, or three 8-byte colours.
constexpr size_t kMaxPlanes = 24;

enum PositionAction : uint8_t
{
    kCopyM96 = 10,
    kCopyM192 = 11,
    kIntegerI32 = 13,
    kIntegerI64 = 14,
    kFloatF32 = 15,
    kFloatF64 = 16,
    kAxisX = 19,
    kAxisY = 20,
    kAxisZ = 21,
};

size_t positionOutputSize(uint8_t code)
{
    switch (code)
    {
        case kCopyM96:
        case kIntegerI32:
        case kFloatF32:
            return 12;
        case kCopyM192:
        case kIntegerI64:
        case kFloatF64:
            return 24;
        default:
            return code >= kAxisX && code <= kAxisZ ? 8 : 0;
    }
}

}  // namespace

// One decode of one payload: bounds-checked access to the groups, and the accumulation of their planes into
// the output records.
class NodePayloadReader
{
public:
    NodePayloadReader(const NodeHeader& header, std::span<const uint8_t> payload,
                      NodeDecompressor& decompressor, const NodeOutput& output)
        : header_(header),
          payload_(payload),
          decompressor_(decompressor),
          output_(output),
          count_(size_t(header.pointCount)),
          planeStride_(decompressor.pointLimit_),
          shape_{planeStride_, count_},
          rows_{decompressor.blockRows_.data()}
    {
    }

    bool run()
    {
        if (payload_.empty())
        {
            return fail("empty payload");
        }
        const uint8_t kind = payload_[0];
        if (kind != kPayloadKindDelta && kind != kPayloadKindUnbiasedDelta && kind != kPayloadKindArithmetic)
        {
            return fail("unknown payload kind " + std::to_string(kind));
        }
        // Kinds 99 and 26 come from data sets whose cells are unsigned.
        biased_ = kind == kPayloadKindDelta;
        if (header_.pointCount > decompressor_.pointLimit_)
        {
            return fail("point count " + std::to_string(header_.pointCount) +
                        " above the reader's limit of " + std::to_string(decompressor_.pointLimit_));
        }
        if (header_.attributes.empty() || !isMortonType(header_.attributes.front().type))
        {
            return fail("the first attribute is not a Morton position");
        }
        if (kind == kPayloadKindArithmetic)
        {
            return runArithmetic();
        }
        layout_ = nodeGroupLayout(header_.attributes);
        if (payload_.size() < kPayloadPrefixSize || payload_[1] != layout_.groups.size())
        {
            return fail("group count does not match the attributes");
        }
        tableEnd_ = kPayloadPrefixSize + 8 * layout_.groups.size();
        if (payload_.size() < tableEnd_)
        {
            return fail("offset table past the end of the payload");
        }
        if (!checkOutput())
        {
            return false;
        }
        if (count_ == 0)
        {
            return true;
        }
        if (!inflateWantedGroups())
        {
            return false;
        }
        decodeBlocks(decompressor_.cursors_);
        return true;
    }

private:
    bool runArithmetic()
    {
        for (const OutputAction& action : output_.actions)
        {
            if (action.source == 0 && action.code >= kAxisX && action.code <= kAxisZ)
            {
                return fail("payload kind 26 has no single-axis output (action " +
                            std::to_string(action.code) + ")");
            }
        }
        if (!checkOutput())
        {
            return false;
        }
        ArithmeticPlanes target;
        target.planes = decompressor_.planes_.data();
        target.planeStride = planeStride_;
        target.planeCount = planeStride_ == 0 ? 0 : decompressor_.planes_.size() / planeStride_;
        target.wanted = [&](uint32_t attribute)
        {
            return std::any_of(output_.actions.begin(), output_.actions.end(),
                               [&](const OutputAction& action) { return action.source == attribute; });
        };
        target.decoded = [&](uint32_t attribute, const uint8_t* planes)
        {
            if (target.wanted(attribute))
            {
                column_decoding::GroupCursor cursor{attribute, false, planes, {}};
                decodeBlocks({&cursor, 1});
            }
        };
        std::string error;
        if (!decodeArithmeticPayload(header_, payload_, target, error))
        {
            return fail(error);
        }
        return true;
    }

    bool fail(const std::string& reason)
    {
        decompressor_.lastError_ = "decompress hspc node: " + reason;
        return false;
    }

    size_t actionSize(const OutputAction& action) const
    {
        return action.source == 0 ? positionOutputSize(action.code) : typeSize(action.code);
    }

    bool checkOutput()
    {
        for (const OutputAction& action : output_.actions)
        {
            if (action.source >= header_.attributes.size())
            {
                return fail("output names attribute " + std::to_string(action.source) + " of " +
                            std::to_string(header_.attributes.size()));
            }
            const uint8_t type = header_.attributes[action.source].type;
            const bool positionCopy =
                action.source == 0 && (action.code == kCopyM96 || action.code == kCopyM192);
            const size_t size = actionSize(action);
            // A stored value may be served as any type that holds its range; a position only in its own
            // Morton type or as offsets.
            const bool served = action.source == 0 ? !positionCopy || action.code == type
                                                   : !isMortonType(type) && canWiden(type, action.code);
            if (size == 0 || !served)
            {
                return fail("output action " + std::to_string(action.code) + " does not apply to attribute " +
                            std::to_string(action.source) + " of type " + std::to_string(type));
            }
            if (size_t(action.offset) + size > output_.stride)
            {
                return fail("output action at byte " + std::to_string(action.offset) + " exceeds the stride");
            }
        }
        if (count_ > 0 && (output_.stride == 0 || output_.records.size() / output_.stride < count_))
        {
            return fail("output buffer too small for " + std::to_string(count_) + " points");
        }
        return true;
    }

    // Inflates the planes of group g to `planes`.
    bool inflateGroup(size_t g, uint32_t planeCount, uint8_t* planes)
    {
        const uint64_t start = little_endian::load<uint64_t>(payload_.data() + kPayloadPrefixSize + 8 * g);
        if (start > payload_.size() - tableEnd_)
        {
            return fail("group " + std::to_string(g) + " starts past the end of the payload");
        }
        size_t at = tableEnd_ + size_t(start);
        for (uint32_t j = 0; j < planeCount; ++j)
        {
            if (payload_.size() - at < kPlaneLengthSize)
            {
                return fail("plane " + std::to_string(j) + " of group " + std::to_string(g) + " is cut off");
            }
            const uint64_t length = little_endian::load<uint64_t>(payload_.data() + at);
            at += kPlaneLengthSize;
            if (length > payload_.size() - at)
            {
                return fail("plane " + std::to_string(j) + " of group " + std::to_string(g) +
                            " is longer than the payload");
            }
            const size_t inflated =
                ZSTD_decompressDCtx(decompressor_.context_.get(), planes + j * planeStride_, count_,
                                    payload_.data() + at, size_t(length));
            if (ZSTD_isError(inflated) || inflated != count_)
            {
                return fail("plane " + std::to_string(j) + " of group " + std::to_string(g) +
                            (ZSTD_isError(inflated) ? std::string(": ") + ZSTD_getErrorName(inflated)
                                                    : " inflates to " + std::to_string(inflated) +
                                                          " bytes, not " + std::to_string(count_)));
            }
            at += size_t(length);
        }
        return true;
    }

    bool wanted(const NodeGroup& group) const
    {
        return std::any_of(output_.actions.begin(), output_.actions.end(),
                           [&](const OutputAction& action)
                           {
                               if (group.isColor)
                               {
                                   return action.source == layout_.red || action.source == layout_.green ||
                                          action.source == layout_.blue;
                               }
                               return action.source == group.attribute;
                           });
    }

    // Inflates every group the output needs, each to its own planes, so that the blocks can then be
    // decoded group after group while their output records are in the cache. Only groups that an output
    // action names take planes, so the caller's actions bound the buffer, whatever the header lists.
    bool inflateWantedGroups()
    {
        std::vector<column_decoding::GroupCursor>& cursors = decompressor_.cursors_;
        cursors.clear();
        size_t planeCount = 0;
        for (const NodeGroup& group : layout_.groups)
        {
            if (wanted(group) && group.planeCount > 0)
            {
                planeCount += group.planeCount;
            }
        }
        std::vector<uint8_t>& planeBuffer = decompressor_.planes_;
        if (planeBuffer.size() < planeCount * planeStride_)
        {
            planeBuffer.resize(planeCount * planeStride_);
        }
        uint8_t* planes = planeBuffer.data();
        for (size_t g = 0; g < layout_.groups.size(); ++g)
        {
            const NodeGroup& group = layout_.groups[g];
            if (!wanted(group) || group.planeCount == 0)
            {
                continue;
            }
            if (!inflateGroup(g, group.planeCount, planes))
            {
                return false;
            }
            cursors.push_back({group.attribute, group.isColor, planes, {}});
            planes += group.planeCount * planeStride_;
        }
        return true;
    }

    template <typename Step>
    void forEachBlock(Step&& step)
    {
        for (size_t first = 0; first < count_; first += column_decoding::kBlockPoints)
        {
            step(first, std::min(column_decoding::kBlockPoints, count_ - first));
        }
    }

    column_decoding::Column columnOf(const OutputAction& action, size_t first) const
    {
        return {output_.records.data() + first * output_.stride + action.offset, output_.stride};
    }

    // Every group's part of one block after the other, block after block.
    void decodeBlocks(std::span<column_decoding::GroupCursor> cursors)
    {
        if (header_.attributes[0].type == AttributeType::M96)
        {
            decodeBlocks<uint32_t>(cursors);
        }
        else
        {
            decodeBlocks<uint64_t>(cursors);
        }
    }

    template <typename W>
    void decodeBlocks(std::span<column_decoding::GroupCursor> cursors)
    {
        column_decoding::AxisMapping<W> mapping;
        forEachBlock(
            [&](size_t first, size_t n)
            {
                for (column_decoding::GroupCursor& cursor : cursors)
                {
                    if (cursor.attribute == 0)
                    {
                        decodePositionBlock<W>(cursor, mapping, first, n);
                    }
                    else
                    {
                        decodeScalarBlock(cursor, first, n);
                    }
                }
            });
    }

    // Types and their widening were checked before any group was touched, so every dispatch succeeds.
    template <typename Stored, typename Bits>
    void storeAction(const OutputAction& action, const Bits* values, size_t first, size_t n)
    {
        column_decoding::withScalarType(action.code,
                                        [&](auto out)
                                        {
                                            column_decoding::storeValues<Stored, decltype(out)>(
                                                values, n, columnOf(action, first));
                                        });
    }

    // The row of a group's block that holds an attribute: for the colour group green, blue and red in rows
    // 0, 1 and 2, for any other group its attribute in row 0; -1 when the group does not hold it.
    int rowOf(const column_decoding::GroupCursor& cursor, uint32_t attribute) const
    {
        if (!cursor.isColor)
        {
            return attribute == cursor.attribute ? 0 : -1;
        }
        return attribute == layout_.green ? 0 : attribute == layout_.blue ? 1 : attribute == layout_.red ? 2 : -1;
    }

    // An ordinary attribute or the colour group.
    void decodeScalarBlock(column_decoding::GroupCursor& cursor, size_t first, size_t n)
    {
        column_decoding::withScalarType(
            header_.attributes[cursor.attribute].type,
            [&](auto stored)
            {
                using Stored = decltype(stored);
                using Bits = column_decoding::UnsignedOfSize<sizeof(Stored)>;
                if (cursor.isColor)
                {
                    column_decoding::rebuildColorBlock<Bits>(shape_, cursor, first, n, rows_);
                }
                else
                {
                    column_decoding::rebuildValueBlock(shape_, cursor, first, n, rows_.row<Bits>(0));
                }
                for (const OutputAction& action : output_.actions)
                {
                    const int row = rowOf(cursor, action.source);
                    if (row >= 0)
                    {
                        storeAction<Stored>(action, rows_.row<Bits>(unsigned(row)), first, n);
                    }
                }
            });
    }

    // Biased payloads store cells with the sign bit flipped; a node below zero on an axis is addressed from
    // its corner nearest zero, so its offsets are negative. The side is taken once per node from the first
    // point: every point of a node below the whole space's lod lies on the same side.
    template <typename W>
    column_decoding::AxisMapping<W> axisMapping(const MortonIndex3D<W>& firstCode) const
    {
        column_decoding::AxisMapping<W> mapping;
        const bool wholeSpace = header_.lod >= MortonIndex3D<W>::kBitsPerAxis;
        const W lowMask = wholeSpace ? ~W(0) : W((W(1) << header_.lod) - 1);
        if (!biased_)
        {
            mapping.keep = {lowMask, lowMask, lowMask};
            return mapping;
        }
        mapping.flip = {MortonIndex3D<W>::kSignBit, MortonIndex3D<W>::kSignBit, MortonIndex3D<W>::kSignBit};
        if (wholeSpace)
        {
            return mapping;
        }
        const std::array<W, 3> axes = decodeMorton(firstCode);
        for (unsigned axis = 0; axis < 3; ++axis)
        {
            const bool nonNegative = (axes[axis] & MortonIndex3D<W>::kSignBit) != 0;
            mapping.keep[axis] = nonNegative ? lowMask : ~W(0);
            mapping.set[axis] = nonNegative ? W(0) : W(~lowMask);
        }
        return mapping;
    }

    template <typename W>
    void decodePositionBlock(column_decoding::GroupCursor& cursor, column_decoding::AxisMapping<W>& mapping,
                             size_t first, size_t n)
    {
        column_decoding::rebuildCodeBlock<W>(shape_, cursor, first, n, rows_);
        if (first == 0)
        {
            mapping = axisMapping<W>(column_decoding::codeOfLimbs<W>(column_decoding::limbsAt<W>(rows_, 0)));
        }
        for (const OutputAction& action : output_.actions)
        {
            if (action.source != 0)
            {
                continue;
            }
            if (decompressor_.parallelExtract_)
            {
                decodePositionAction<W, morton_limbs::ParallelExtract>(action, mapping, first, n);
            }
            else
            {
                decodePositionAction<W, morton_limbs::CompactingExtract>(action, mapping, first, n);
            }
        }
    }

    template <typename W, typename Extract>
    void decodePositionAction(const OutputAction& action, const column_decoding::AxisMapping<W>& mapping,
                              size_t first, size_t n)
    {
        using column_decoding::PositionForm;
        const auto column = columnOf(action, first);
        const auto& scale = header_.scale;
        switch (action.code)
        {
            case kCopyM96:
            case kCopyM192:
                return column_decoding::copyPositionBlock<W>(rows_, n, column);
            case kIntegerI32:
                return column_decoding::decodePositionBlock<W, int32_t, PositionForm::Integer, 0, Extract>(
                    rows_, n, column, mapping, scale);
            case kIntegerI64:
                return column_decoding::decodePositionBlock<W, int64_t, PositionForm::Integer, 0, Extract>(
                    rows_, n, column, mapping, scale);
            case kFloatF32:
                return column_decoding::decodePositionBlock<W, float, PositionForm::Float, 0, Extract>(
                    rows_, n, column, mapping, scale);
            case kFloatF64:
                return column_decoding::decodePositionBlock<W, double, PositionForm::Float, 0, Extract>(
                    rows_, n, column, mapping, scale);
            case kAxisX:
                return column_decoding::decodePositionBlock<W, double, PositionForm::SingleAxis, 0, Extract>(
                    rows_, n, column, mapping, scale);
            case kAxisY:
                return column_decoding::decodePositionBlock<W, double, PositionForm::SingleAxis, 1, Extract>(
                    rows_, n, column, mapping, scale);
            default:
                return column_decoding::decodePositionBlock<W, double, PositionForm::SingleAxis, 2, Extract>(
                    rows_, n, column, mapping, scale);
        }
    }

    const NodeHeader& header_;
    std::span<const uint8_t> payload_;
    NodeDecompressor& decompressor_;
    const NodeOutput& output_;
    size_t count_;
    size_t planeStride_;
    column_decoding::PlaneShape shape_;
    column_decoding::BlockRows rows_;
    bool biased_ = true;
    size_t tableEnd_ = 0;
    NodeGroupLayout layout_;
};

std::unique_ptr<NodeDecompressor> NodeDecompressor::create(size_t pointLimit)
{
    ZstdDecompressionContext context(ZSTD_createDCtx());
    if (!context)
    {
        std::fprintf(stderr, "failed to create zstd decompression context.\n");
        return nullptr;
    }
    return std::unique_ptr<NodeDecompressor>(new NodeDecompressor(std::move(context), pointLimit));
}

NodeDecompressor::NodeDecompressor(ZstdDecompressionContext context, size_t pointLimit)
    : context_(std::move(context)),
      pointLimit_(pointLimit),
      parallelExtract_(morton_limbs::parallelExtractIsFast()),
      planes_(kMaxPlanes * pointLimit),
      blockRows_(column_decoding::kBlockRows * column_decoding::kBlockPoints)
{
}

bool decompressNode(const NodeHeader& header, std::span<const uint8_t> payload,
                    NodeDecompressor& decompressor, const NodeOutput& output)
{
    return NodePayloadReader(header, payload, decompressor, output).run();
}

bool decompressNodeBlock(std::span<const uint8_t> block, NodeDecompressor& decompressor,
                         const NodeOutput& output, NodeHeader& header, const LogFunction& logError)
{
    const size_t payloadStart = readNodeHeader(block, header);
    if (payloadStart == 0)
    {
        return false;
    }
    if (header.chunkSize != block.size())
    {
        logError("decompress hspc node : input size : " + std::to_string(block.size()) +
                 " is different than chunk.size : " + std::to_string(header.chunkSize));
        return false;
    }
    return decompressNode(header, block.subspan(payloadStart), decompressor, output);
}

}  // namespace HSPC
