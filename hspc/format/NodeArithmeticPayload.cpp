#include "hspc/format/NodeArithmeticPayload.h"

#include <array>
#include <cstdio>
#include <vector>

#include "hspc/format/AdaptiveArithmeticDecoder.h"
#include "hspc/format/Attribute.h"
#include "hspc/format/LittleEndian.h"
#include "hspc/format/NodeGroups.h"

namespace HSPC
{
namespace
{

constexpr size_t kPrefixSize = 9;
constexpr size_t kBlockEntrySize = 8;
constexpr size_t kMaxValueBytes = 8;
constexpr size_t kMaxBlockAttributes = 3;

struct Block
{
    uint32_t first = 0;
    uint32_t count = 0;
    std::span<const uint8_t> code;
};

// The models and running state of one attribute inside a block.
struct AttributeCoding
{
    uint32_t index = 0;
    uint32_t size = 0;
    bool isPosition = false;
    // Minimum as up to three words (the position's code) or one value in word 0.
    std::array<uint64_t, 3> minimum{};
    std::array<uint64_t, 3> previous{};
    uint32_t byteCount = 0;
    std::array<AdaptiveDataModel, kMaxValueBytes> models;
    size_t firstPlane = 0;
};

class ArithmeticPayloadReader
{
public:
    ArithmeticPayloadReader(const NodeHeader& header, std::span<const uint8_t> payload,
                            const ArithmeticPlanes& target, std::string& error)
        : header_(header),
          payload_(payload),
          target_(target),
          error_(error),
          count_(size_t(header.pointCount))
    {
    }

    bool run()
    {
        const auto& attributes = header_.attributes;
        positionSize_ = typeSize(attributes[0].type);
        tableSize_ = positionSize_ + 8 * (attributes.size() - 1);
        if (payload_.size() < kPrefixSize + 2 * tableSize_)
        {
            return fail("payload of " + std::to_string(payload_.size()) +
                        " bytes is shorter than its tables");
        }
        const uint64_t count = little_endian::load<uint64_t>(payload_.data() + 1);
        if (count != header_.pointCount)
        {
            return fail("point count " + std::to_string(count) + " differs from the header's " +
                        std::to_string(header_.pointCount));
        }
        std::vector<Block> blocks;
        if (!readBlocks(blocks))
        {
            return false;
        }
        for (const Block& block : blocks)
        {
            if (!decodeBlock(block))
            {
                return false;
            }
        }
        return true;
    }

private:
    bool fail(const std::string& reason)
    {
        error_ = "kind 26 payload: " + reason;
        return false;
    }

    // The block list, checked against the payload size: 16n - 16 + 2p + 8 x blocks + block bytes + 9.
    bool readBlocks(std::vector<Block>& blocks)
    {
        const size_t attributeCount = header_.attributes.size();
        size_t at = kPrefixSize + 2 * tableSize_;
        uint32_t covered = 0;
        uint64_t blockBytes = 0;
        while (covered < attributeCount)
        {
            if (payload_.size() - at < kBlockEntrySize)
            {
                return fail("block list cut off after " + std::to_string(covered) + " attributes");
            }
            const uint32_t kind = little_endian::load<uint32_t>(payload_.data() + at);
            const uint32_t bytes = little_endian::load<uint32_t>(payload_.data() + at + 4);
            at += kBlockEntrySize;
            if (kind != 1 && kind != kMaxBlockAttributes)
            {
                return fail("block kind " + std::to_string(kind) + " is neither 1 nor 3");
            }
            if (kind > attributeCount - covered)
            {
                return fail("blocks cover more than the " + std::to_string(attributeCount) + " attributes");
            }
            blocks.push_back(Block{covered, kind, {}});
            covered += kind;
            blockBytes += bytes;
            blockSizes_.push_back(bytes);
        }
        const uint64_t expected = 16 * uint64_t(attributeCount) - 16 + 2 * uint64_t(positionSize_) +
                                  kBlockEntrySize * blocks.size() + blockBytes + kPrefixSize;
        if (expected != payload_.size())
        {
            return fail("sizes add up to " + std::to_string(expected) + " bytes, the payload has " +
                        std::to_string(payload_.size()));
        }
        for (size_t b = 0; b < blocks.size(); ++b)
        {
            if (!checkBlockAttributes(blocks[b]))
            {
                return false;
            }
            blocks[b].code = payload_.subspan(at, blockSizes_[b]);
            at += blockSizes_[b];
        }
        return true;
    }

    // What a block may hold: the position alone, one value of at most eight bytes (the width of its minimum
    // and range fields), or the colour triple R, G, B of one such type. Anything else would decode into
    // more planes than a value has, or than the plane buffer holds.
    bool checkBlockAttributes(const Block& block)
    {
        const auto& attributes = header_.attributes;
        const auto scalar = [&](uint32_t i)
        {
            const uint32_t size = typeSize(attributes[i].type);
            return size > 0 && size <= kMaxValueBytes && !isMortonType(attributes[i].type);
        };
        const std::string which = "block of attribute " + std::to_string(block.first);
        if (block.count == 1)
        {
            if (block.first != 0 && !scalar(block.first))
            {
                return fail(which + ": type " + getTypeName(attributes[block.first].type) +
                            " is no value of at most eight bytes");
            }
            return true;
        }
        std::array<bool, 3> seen{};
        for (uint32_t i = block.first; i < block.first + block.count; ++i)
        {
            const uint8_t role = attributes[i].role;
            const bool colour =
                role == AttributeRole::R || role == AttributeRole::G || role == AttributeRole::B;
            if (i == 0 || !colour || seen[role - AttributeRole::R] || !scalar(i) ||
                attributes[i].type != attributes[block.first].type)
            {
                return fail(which + ": a block of three is R, G and B of one type of at most eight bytes");
            }
            seen[role - AttributeRole::R] = true;
        }
        return true;
    }

    // Reads the minimum and range of attribute i and prepares its models; false for a range of all zeros or
    // one wider than eight bytes.
    bool prepare(uint32_t i, AttributeCoding& coding)
    {
        coding = AttributeCoding{};
        coding.index = i;
        coding.isPosition = i == 0;
        coding.size = typeSize(header_.attributes[i].type);
        const size_t fieldSize = coding.isPosition ? positionSize_ : 8;
        const size_t fieldAt = i == 0 ? 0 : positionSize_ + 8 * (i - 1);
        const uint8_t* minimum = payload_.data() + kPrefixSize + fieldAt;
        const uint8_t* range = minimum + tableSize_;
        const size_t wordSize = coding.isPosition ? coding.size / 3 : 8;
        for (size_t word = 0; word * wordSize < fieldSize; ++word)
        {
            coding.minimum[word] = wordSize == 4 ? little_endian::load<uint32_t>(minimum + 4 * word)
                                                 : little_endian::load<uint64_t>(minimum + 8 * word);
        }
        uint32_t topByte = 0;
        for (size_t b = 0; b < fieldSize; ++b)
        {
            if (range[b] != 0)
            {
                coding.byteCount = uint32_t(b + 1);
                topByte = range[b];
            }
        }
        if (coding.byteCount == 0)
        {
            std::fprintf(stderr, "Failed to initialize model.\n");
            return fail("attribute " + std::to_string(i) + " has a range of zero");
        }
        if (coding.byteCount > kMaxValueBytes)
        {
            return fail("attribute " + std::to_string(i) + " has a range wider than eight bytes");
        }
        coding.models[coding.byteCount - 1] = AdaptiveDataModel(topByte + 1);
        return true;
    }

    bool decodeBlock(const Block& block)
    {
        bool wanted = false;
        for (uint32_t i = block.first; i < block.first + block.count; ++i)
        {
            wanted = wanted || target_.wanted(i);
        }
        if (!wanted || count_ == 0)
        {
            return true;
        }
        std::array<AttributeCoding, kMaxBlockAttributes> codings;
        size_t planes = 0;
        for (uint32_t a = 0; a < block.count; ++a)
        {
            if (!prepare(block.first + a, codings[a]))
            {
                return false;
            }
            codings[a].firstPlane = planes;
            planes += codings[a].size;
        }
        if (planes > target_.planeCount)
        {
            return fail("block of attribute " + std::to_string(block.first) + " needs " +
                        std::to_string(planes) + " planes, the reader has " +
                        std::to_string(target_.planeCount));
        }
        ArithmeticDecoder decoder;
        if (!decoder.start(block.code))
        {
            return fail("block of attribute " + std::to_string(block.first) + " cannot be decoded");
        }
        for (size_t point = 0; point < count_; ++point)
        {
            const size_t entry = planeEntry(point, count_);
            for (uint32_t a = 0; a < block.count; ++a)
            {
                uint64_t offset = 0;
                if (!decodeOffset(decoder, codings[a], offset))
                {
                    return fail("block of attribute " + std::to_string(block.first) +
                                " is corrupt at point " + std::to_string(point));
                }
                storeDelta(codings[a], offset, entry);
            }
        }
        if (!decoder.stop())
        {
            return fail("block of attribute " + std::to_string(block.first) + " ends early");
        }
        for (uint32_t a = 0; a < block.count; ++a)
        {
            target_.decoded(block.first + a, target_.planes + codings[a].firstPlane * target_.planeStride);
        }
        return true;
    }

    bool decodeOffset(ArithmeticDecoder& decoder, AttributeCoding& coding, uint64_t& offset)
    {
        for (uint32_t b = 0; b < coding.byteCount; ++b)
        {
            uint32_t symbol = 0;
            if (!decoder.decode(coding.models[b], symbol))
            {
                return false;
            }
            offset |= uint64_t(symbol) << (8 * b);
        }
        return true;
    }

    // value = minimum + offset, and its delta to the previous value into the attribute's planes; the
    // position's words carry into each other, every other value wraps at its width.
    void storeDelta(AttributeCoding& coding, uint64_t offset, size_t entry)
    {
        const uint32_t words = coding.isPosition ? 3 : 1;
        const uint32_t wordSize = coding.size / words;
        const uint64_t wordMask = wordSize == 8 ? ~uint64_t(0) : (uint64_t(1) << (8 * wordSize)) - 1;
        uint64_t carry = 0;
        uint64_t borrow = 0;
        for (uint32_t word = 0; word < words; ++word)
        {
            // The offset has at most 64 bits: with 32-bit words its high half goes to word 1.
            const uint64_t addend = wordSize == 8 ? (word == 0 ? offset : 0)
                                                  : (word < 2 ? (offset >> (32 * word)) & wordMask : 0);
            const uint64_t partial = coding.minimum[word] + addend;
            const uint64_t sum = partial + carry;
            const uint64_t value = sum & wordMask;
            carry = wordSize == 8 ? uint64_t(partial < addend || sum < carry) : (sum >> (8 * wordSize)) & 1;
            const uint64_t previous = coding.previous[word];
            const uint64_t delta = (value - previous - borrow) & wordMask;
            borrow = value < previous || (value == previous && borrow != 0) ? 1 : 0;
            coding.previous[word] = value;
            for (uint32_t b = 0; b < wordSize; ++b)
            {
                target_.planes[(coding.firstPlane + word * wordSize + b) * target_.planeStride + entry] =
                    uint8_t(delta >> (8 * b));
            }
        }
    }

    const NodeHeader& header_;
    std::span<const uint8_t> payload_;
    const ArithmeticPlanes& target_;
    std::string& error_;
    size_t count_;
    size_t positionSize_ = 0;
    size_t tableSize_ = 0;
    std::vector<uint32_t> blockSizes_;
};

}  // namespace

bool decodeArithmeticPayload(const NodeHeader& header, std::span<const uint8_t> payload,
                             const ArithmeticPlanes& target, std::string& error)
{
    return ArithmeticPayloadReader(header, payload, target, error).run();
}

}  // namespace HSPC
