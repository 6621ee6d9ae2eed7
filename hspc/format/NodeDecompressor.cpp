#include "hspc/format/NodeDecompressor.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <type_traits>

#include "hspc/format/LittleEndian.h"
#include "hspc/format/MortonIndex3D.h"
#include "hspc/format/NodeGroups.h"

namespace HSPC
{

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

// The value of one point from the byte planes of its entry, plane j giving byte j.
template <typename T>
inline T gather(const uint8_t* planes, size_t planeStride, size_t entry)
{
    T value = 0;
    for (size_t j = 0; j < sizeof(T); ++j)
    {
        value |= T(planes[j * planeStride + entry]) << (8 * j);
    }
    return value;
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
          planes_(decompressor.planes_.data()),
          planeStride_(decompressor.pointLimit_)
    {
    }

    bool run()
    {
        if (payload_.empty())
        {
            return fail("empty payload");
        }
        const uint8_t kind = payload_[0];
        if (kind == kPayloadKindArithmetic)
        {
            return fail("payload kind 26 (arithmetic coding) is not supported by this reader");
        }
        if (kind != kPayloadKindDelta && kind != kPayloadKindUnbiasedDelta)
        {
            return fail("unknown payload kind " + std::to_string(kind));
        }
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
        layout_ = nodeGroupLayout(header_.attributes);
        offsets_ = attributeOffsets(header_.attributes);
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
        for (size_t g = 0; g < layout_.groups.size(); ++g)
        {
            if (!decodeGroup(g))
            {
                return false;
            }
        }
        return true;
    }

private:
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
            if (size == 0 || ((action.source != 0 || positionCopy) && action.code != type))
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

    // Inflates the planes of group g into the plane buffers.
    bool inflateGroup(size_t g, uint32_t planeCount)
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
                ZSTD_decompressDCtx(decompressor_.context_.get(), planes_ + j * planeStride_, count_,
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

    bool decodeGroup(size_t g)
    {
        const NodeGroup& group = layout_.groups[g];
        if (group.planeCount > kMaxPlanes)
        {
            return fail("group " + std::to_string(g) + " has too many planes");
        }
        if (!wanted(group) || group.planeCount == 0)
        {
            return true;
        }
        if (!inflateGroup(g, group.planeCount))
        {
            return false;
        }
        if (group.isColor)
        {
            return decodeColors();
        }
        if (group.attribute == 0)
        {
            return header_.attributes[0].type == AttributeType::M96 ? decodePositions<uint32_t>()
                                                                    : decodePositions<uint64_t>();
        }
        for (const OutputAction& action : output_.actions)
        {
            if (action.source == group.attribute)
            {
                copyValuesOfSize(group.planeCount, action.offset);
            }
        }
        return true;
    }

    template <typename T>
    void copyValues(uint32_t offset)
    {
        uint8_t* out = output_.records.data() + offset;
        T value = 0;
        for (size_t i = 0; i < count_; ++i)
        {
            value += gather<T>(planes_, planeStride_, planeEntry(i, count_));
            little_endian::store<T>(out + i * output_.stride, value);
        }
    }

    void copyValuesOfSize(uint32_t size, uint32_t offset)
    {
        switch (size)
        {
            case 1:
                return copyValues<uint8_t>(offset);
            case 2:
                return copyValues<uint16_t>(offset);
            case 4:
                return copyValues<uint32_t>(offset);
            default:
                return copyValues<uint64_t>(offset);
        }
    }

    template <typename T>
    void decodeColorsOf()
    {
        const size_t componentStride = sizeof(T) * planeStride_;
        T green = 0;
        uint8_t* records = output_.records.data();
        for (size_t i = 0; i < count_; ++i)
        {
            const size_t entry = planeEntry(i, count_);
            green += gather<T>(planes_, planeStride_, entry);
            const T blue = T(green + gather<T>(planes_ + componentStride, planeStride_, entry));
            const T red = T(green + gather<T>(planes_ + 2 * componentStride, planeStride_, entry));
            uint8_t* record = records + i * output_.stride;
            for (const OutputAction& action : output_.actions)
            {
                if (action.source == layout_.red)
                    little_endian::store<T>(record + action.offset, red);
                else if (action.source == layout_.green)
                    little_endian::store<T>(record + action.offset, green);
                else if (action.source == layout_.blue)
                    little_endian::store<T>(record + action.offset, blue);
            }
        }
    }

    bool decodeColors()
    {
        switch (layout_.colorSize)
        {
            case 1:
                decodeColorsOf<uint8_t>();
                break;
            case 2:
                decodeColorsOf<uint16_t>();
                break;
            case 4:
                decodeColorsOf<uint32_t>();
                break;
            default:
                decodeColorsOf<uint64_t>();
                break;
        }
        return true;
    }

    // Maps a decoded axis to its signed offset from the node's anchor. Biased payloads store cells with the
    // sign bit flipped; a node below zero on an axis is addressed from its corner nearest zero, so its
    // offsets are negative. The side is taken once per node from the first point: every point of a node below
    // the whole space's lod lies on the same side.
    template <typename W>
    struct AxisMapping
    {
        W lowMask = ~W(0);
        std::array<bool, 3> nonNegative{true, true, true};
        bool biased = true;
        bool wholeSpace = true;

        int64_t offset(W axis, unsigned index) const
        {
            using S = std::make_signed_t<W>;
            if (!biased)
            {
                return int64_t(S(axis & lowMask));
            }
            const W flipped = axis ^ MortonIndex3D<W>::kSignBit;
            if (wholeSpace)
            {
                return int64_t(S(flipped));
            }
            return int64_t(S(nonNegative[index] ? (flipped & lowMask) : (flipped | ~lowMask)));
        }
    };

    template <typename W>
    AxisMapping<W> axisMapping() const
    {
        AxisMapping<W> mapping;
        mapping.biased = biased_;
        mapping.wholeSpace = header_.lod >= MortonIndex3D<W>::kBitsPerAxis;
        mapping.lowMask = mapping.wholeSpace ? ~W(0) : W((W(1) << header_.lod) - 1);
        if (biased_ && !mapping.wholeSpace)
        {
            const size_t first = std::min<size_t>(count_ - 1, 1);
            MortonIndex3D<W> code;
            for (unsigned word = 0; word < 3; ++word)
            {
                code.words[word] = gather<W>(planes_ + word * sizeof(W) * planeStride_, planeStride_, first);
            }
            const std::array<W, 3> axes = decodeMorton(code);
            for (unsigned axis = 0; axis < 3; ++axis)
            {
                mapping.nonNegative[axis] = (axes[axis] & MortonIndex3D<W>::kSignBit) != 0;
            }
        }
        return mapping;
    }

    template <typename W>
    bool decodePositions()
    {
        const AxisMapping<W> mapping = axisMapping<W>();
        const size_t wordStride = sizeof(W) * planeStride_;
        MortonIndex3D<W> code{};
        uint8_t* records = output_.records.data();
        for (size_t i = 0; i < count_; ++i)
        {
            const size_t entry = planeEntry(i, count_);
            W carry = 0;
            for (unsigned word = 0; word < 3; ++word)
            {
                const W delta = gather<W>(planes_ + word * wordStride, planeStride_, entry);
                const W sum = W(code.words[word] + delta);
                const W total = W(sum + carry);
                carry = W((sum < delta) | (total < carry));
                code.words[word] = total;
            }
            uint8_t* record = records + i * output_.stride;
            for (const OutputAction& action : output_.actions)
            {
                if (action.source == 0)
                {
                    writePosition(code, mapping, action, record + action.offset);
                }
            }
        }
        return true;
    }

    template <typename W>
    void writePosition(const MortonIndex3D<W>& code, const AxisMapping<W>& mapping,
                       const OutputAction& action, uint8_t* out) const
    {
        if (action.code == kCopyM96 || action.code == kCopyM192)
        {
            std::memcpy(out, code.words.data(), MortonIndex3D<W>::kBytes);
            return;
        }
        const std::array<W, 3> axes = decodeMorton(code);
        for (unsigned axis = 0; axis < 3; ++axis)
        {
            const int64_t offset = mapping.offset(axes[axis], axis);
            switch (action.code)
            {
                case kIntegerI32:
                    little_endian::store<int32_t>(out + 4 * axis, int32_t(offset));
                    break;
                case kIntegerI64:
                    little_endian::store<int64_t>(out + 8 * axis, offset);
                    break;
                case kFloatF32:
                    little_endian::store<float>(out + 4 * axis, float(double(offset) * header_.scale[axis]));
                    break;
                case kFloatF64:
                    little_endian::store<double>(out + 8 * axis, double(offset) * header_.scale[axis]);
                    break;
                default:
                    if (action.code - kAxisX == int(axis))
                    {
                        little_endian::store<double>(out, double(offset) * header_.scale[axis]);
                    }
                    break;
            }
        }
    }

    const NodeHeader& header_;
    std::span<const uint8_t> payload_;
    NodeDecompressor& decompressor_;
    const NodeOutput& output_;
    size_t count_;
    uint8_t* planes_;
    size_t planeStride_;
    bool biased_ = true;
    size_t tableEnd_ = 0;
    NodeGroupLayout layout_;
    std::vector<uint32_t> offsets_;
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
    : context_(std::move(context)), pointLimit_(pointLimit), planes_(kMaxPlanes * pointLimit)
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
