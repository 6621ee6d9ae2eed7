#include "hspc/format/NodeCompressor.h"

#include <cstdio>
#include <cstring>
#include <type_traits>

#include "hspc/format/AttributeRecord.h"
#include "hspc/format/LittleEndian.h"
#include "hspc/format/MortonIndex3D.h"
#include "hspc/format/MortonNodeBox.h"

namespace HSPC
{
namespace
{

// Plane j receives byte j of each value, at the point's swapped entry.
template <typename T>
inline void scatter(T value, size_t entry, uint8_t* planes, size_t planeStride)
{
    for (size_t j = 0; j < sizeof(T); ++j)
    {
        planes[j * planeStride + entry] = uint8_t(value >> (8 * j));
    }
}

template <typename T>
void deltaPlanes(const uint8_t* records, size_t recordSize, size_t offset, size_t count, uint8_t* planes,
                 size_t planeStride)
{
    T previous = 0;
    for (size_t i = 0; i < count; ++i)
    {
        const T value = little_endian::load<T>(records + i * recordSize + offset);
        scatter<T>(T(value - previous), planeEntry(i, count), planes, planeStride);
        previous = value;
    }
}

void deltaPlanesOfSize(uint32_t size, const uint8_t* records, size_t recordSize, size_t offset, size_t count,
                       uint8_t* planes, size_t planeStride)
{
    switch (size)
    {
        case 1:
            return deltaPlanes<uint8_t>(records, recordSize, offset, count, planes, planeStride);
        case 2:
            return deltaPlanes<uint16_t>(records, recordSize, offset, count, planes, planeStride);
        case 4:
            return deltaPlanes<uint32_t>(records, recordSize, offset, count, planes, planeStride);
        default:  // 8: create admits no other size
            return deltaPlanes<uint64_t>(records, recordSize, offset, count, planes, planeStride);
    }
}

// Green against the previous green, blue and red against the point's own green: neighbouring points differ
// little in brightness, and the channels of one point move together.
template <typename T>
void colorPlanes(const uint8_t* records, size_t recordSize, const NodeGroupLayout& layout, size_t count,
                 uint8_t* planes, size_t planeStride)
{
    T previousGreen = 0;
    for (size_t i = 0; i < count; ++i)
    {
        const uint8_t* record = records + i * recordSize;
        const T green = little_endian::load<T>(record + layout.greenOffset);
        const T blue = little_endian::load<T>(record + layout.blueOffset);
        const T red = little_endian::load<T>(record + layout.redOffset);
        const size_t entry = planeEntry(i, count);
        scatter<T>(T(green - previousGreen), entry, planes, planeStride);
        scatter<T>(T(blue - green), entry, planes + sizeof(T) * planeStride, planeStride);
        scatter<T>(T(red - green), entry, planes + 2 * sizeof(T) * planeStride, planeStride);
        previousGreen = green;
    }
}

void colorPlanesOfSize(const uint8_t* records, size_t recordSize, const NodeGroupLayout& layout, size_t count,
                       uint8_t* planes, size_t planeStride)
{
    switch (layout.colorSize)
    {
        case 1:
            return colorPlanes<uint8_t>(records, recordSize, layout, count, planes, planeStride);
        case 2:
            return colorPlanes<uint16_t>(records, recordSize, layout, count, planes, planeStride);
        case 4:
            return colorPlanes<uint32_t>(records, recordSize, layout, count, planes, planeStride);
        default:
            return colorPlanes<uint64_t>(records, recordSize, layout, count, planes, planeStride);
    }
}

template <typename W>
void printUnorderedCodes(const MortonIndex3D<W>& previous, const MortonIndex3D<W>& code)
{
    std::fprintf(stderr, "Error: Data is not ordered!\n");
    for (const MortonIndex3D<W>* printed : {&previous, &code})
    {
        std::fprintf(stderr, "%llx,%llx,%llx\n", (unsigned long long)printed->words[0],
                     (unsigned long long)printed->words[1], (unsigned long long)printed->words[2]);
    }
}

// The position group: each code minus the previous one as one 3B-bit subtraction with borrow, word 0 first.
// With `anchor` the records hold node-relative signed cells that are made into codes here.
template <typename W>
bool positionPlanes(const uint8_t* records, size_t recordSize, size_t count,
                    const std::array<int64_t, 3>* anchor, uint8_t* planes, size_t planeStride)
{
    using S = std::make_signed_t<W>;
    MortonIndex3D<W> previous{};
    for (size_t i = 0; i < count; ++i)
    {
        const uint8_t* record = records + i * recordSize;
        MortonIndex3D<W> code;
        if (anchor != nullptr)
        {
            std::array<W, 3> cell{};
            for (unsigned axis = 0; axis < 3; ++axis)
            {
                cell[axis] = little_endian::load<W>(record + axis * sizeof(W)) + W((*anchor)[axis]);
            }
            code = encodeMortonSigned<W>(S(cell[0]), S(cell[1]), S(cell[2]));
            if (i > 0 && code < previous)
            {
                printUnorderedCodes(previous, code);
                return false;
            }
        }
        else
        {
            std::memcpy(code.words.data(), record, MortonIndex3D<W>::kBytes);
        }
        const size_t entry = planeEntry(i, count);
        W borrow = 0;
        for (unsigned word = 0; word < 3; ++word)
        {
            const W difference = code.words[word] - previous.words[word];
            const W nextBorrow = (code.words[word] < previous.words[word]) | (difference < borrow);
            scatter<W>(W(difference - borrow), entry, planes + word * sizeof(W) * planeStride, planeStride);
            borrow = nextBorrow;
        }
        previous = code;
    }
    return true;
}

// Appends one plane as its compressed length and zstd frame.
bool appendPlane(ZSTD_CCtx* context, int level, const uint8_t* plane, size_t count,
                 std::vector<uint8_t>& output)
{
    const size_t at = output.size();
    output.resize(at + kPlaneLengthSize + ZSTD_compressBound(count));
    const size_t written = ZSTD_compressCCtx(context, output.data() + at + kPlaneLengthSize,
                                             output.size() - at - kPlaneLengthSize, plane, count, level);
    if (ZSTD_isError(written))
    {
        std::fprintf(stderr, "zstd compression error: %s\n", ZSTD_getErrorName(written));
        output.resize(at);
        return false;
    }
    little_endian::store<uint64_t>(output.data() + at, written);
    output.resize(at + kPlaneLengthSize + written);
    return true;
}

// Every attribute but the position is delta coded as one integer of 1, 2, 4 or 8 bytes (the colour triple as
// three of them); the position is the one Morton code. Anything else has no planes that compressNode could
// fill, and its group would carry whatever the buffers held from the previous node.
bool writableAsPlanes(const std::vector<Attribute>& attributes)
{
    for (uint32_t i = 1; i < attributes.size(); ++i)
    {
        const uint8_t type = attributes[i].type;
        const uint32_t size = typeSize(type);
        if (isMortonType(type) || (size != 1 && size != 2 && size != 4 && size != 8))
        {
            std::fprintf(stderr,
                         "NodeCompressor: attribute %u (%s) of type %s cannot be stored as byte planes\n", i,
                         attributes[i].name.c_str(), getTypeName(type).c_str());
            return false;
        }
    }
    return true;
}

}  // namespace

std::unique_ptr<NodeCompressor> NodeCompressor::create(const std::vector<Attribute>& attributes,
                                                       size_t pointLimit, int level)
{
    if (!writableAsPlanes(attributes))
    {
        return nullptr;
    }
    ZstdCompressionContext context(ZSTD_createCCtx());
    if (!context)
    {
        std::fprintf(stderr, "failed to create zstd compression context\n");
        return nullptr;
    }
    return std::unique_ptr<NodeCompressor>(
        new NodeCompressor(std::move(context), attributes, pointLimit, level));
}

NodeCompressor::NodeCompressor(ZstdCompressionContext context, const std::vector<Attribute>& attributes,
                               size_t pointLimit, int level)
    : context_(std::move(context)),
      attributes_(attributes),
      recordSize_(HSPC::recordSize(attributes)),
      offsets_(attributeOffsets(attributes)),
      layout_(nodeGroupLayout(attributes)),
      pointLimit_(pointLimit),
      level_(level),
      planes_(size_t(layout_.widestGroup) * pointLimit)
{
    output_.reserve((ZSTD_compressBound(pointLimit) + kPlaneLengthSize) * recordSize_ + 2 +
                    kPlaneLengthSize * layout_.groups.size() + nodeHeaderSize(attributes));
}

bool compressNode(bool rebase, NodeHeader& header, NodeCompressor& compressor,
                  std::span<const uint8_t> records, std::vector<uint8_t>& output,
                  std::vector<uint8_t>& scratch)
{
    const size_t recordSize = compressor.recordSize_;
    const size_t count = recordSize == 0 ? 0 : records.size() / recordSize;
    if (count == 0)
    {
        std::fprintf(stderr, "node empty?\n");
        return false;
    }
    const uint8_t positionType = compressor.attributes_.front().type;
    if (!isMortonType(positionType))
    {
        std::fprintf(stderr, "positionType = %d\n", int(positionType));
        return false;
    }
    if (count > compressor.pointLimit_ || records.size() % recordSize != 0)
    {
        std::fprintf(stderr,
                     "compressNode: %zu bytes are not a whole number of %zu-byte records within the "
                     "limit of %zu points\n",
                     records.size(), recordSize, compressor.pointLimit_);
        return false;
    }
    std::optional<std::array<int64_t, 3>> anchor;
    if (rebase)
    {
        anchor = nodeAnchor(positionType, header.version, header.lod, header.node[0], header.node[1],
                            header.node[2]);
        if (!anchor)
        {
            std::fprintf(stderr, "compressNode: node at lod %u has no anchor\n", header.lod);
            return false;
        }
    }
    if (header.version < kFirstSignedCellFormatVersion)
    {
        const uint64_t signBit = positionType == AttributeType::M96 ? 0x80000000ull : 0x8000000000000000ull;
        for (uint64_t& coordinate : header.node)
        {
            coordinate ^= signBit;
        }
    }
    header.version = kNodeFormatVersion;
    header.attributes = compressor.attributes_;
    header.attributeId = computeAttributeId(header.attributes, compressor.recordSize_);
    header.pointCount = count;
    header.chunkSize = 0;
    header.payloadSize = 0;
    header.headerSize = uint32_t(nodeHeaderSize(header.attributes));
    scratch.clear();
    writeNodeHeader(header, scratch);

    const NodeGroupLayout& layout = compressor.layout_;
    output.assign(scratch.size(), 0);
    output.push_back(kPayloadKindDelta);
    output.push_back(uint8_t(layout.groups.size()));
    const size_t tableAt = output.size();
    output.resize(tableAt + 8 * layout.groups.size());
    const size_t groupsAt = output.size();

    uint8_t* planes = compressor.planes_.data();
    const size_t planeStride = compressor.pointLimit_;
    for (size_t g = 0; g < layout.groups.size(); ++g)
    {
        const NodeGroup& group = layout.groups[g];
        little_endian::store<uint64_t>(output.data() + tableAt + 8 * g, output.size() - groupsAt);
        if (group.isColor)
        {
            colorPlanesOfSize(records.data(), recordSize, layout, count, planes, planeStride);
        }
        else if (group.attribute == 0 && positionType == AttributeType::M96)
        {
            if (!positionPlanes<uint32_t>(records.data(), recordSize, count, anchor ? &*anchor : nullptr,
                                          planes, planeStride))
                return false;
        }
        else if (group.attribute == 0)
        {
            if (!positionPlanes<uint64_t>(records.data(), recordSize, count, anchor ? &*anchor : nullptr,
                                          planes, planeStride))
                return false;
        }
        else
        {
            deltaPlanesOfSize(group.planeCount, records.data(), recordSize,
                              compressor.offsets_[group.attribute], count, planes, planeStride);
        }
        for (uint32_t j = 0; j < group.planeCount; ++j)
        {
            if (!appendPlane(compressor.context_.get(), compressor.level_, planes + j * planeStride, count,
                             output))
            {
                return false;
            }
        }
    }
    header.chunkSize = output.size();
    header.payloadSize = output.size() - scratch.size();
    little_endian::store<uint64_t>(scratch.data() + 4, header.chunkSize);
    little_endian::store<uint64_t>(scratch.data() + 28, header.payloadSize);
    std::memcpy(output.data(), scratch.data(), scratch.size());
    return true;
}

}  // namespace HSPC
