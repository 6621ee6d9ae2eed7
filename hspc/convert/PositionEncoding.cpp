#include "hspc/convert/PositionEncoding.h"

#include <cstring>

#include "hspc/convert/MortonRecords.h"
#include "hspc/format/Attribute.h"
#include "hspc/format/CellMapping.h"
#include "hspc/format/LittleEndian.h"

namespace HSPC
{
namespace
{

// Encodes `count` records from `source` to `target`. The two may be the same buffer as long as the encoded
// record is no larger than the source record: record i is read whole before it is written, and its encoded
// form ends no later than the next source record begins.
template <typename W, typename T>
void encodeRecords(const uint8_t* source, uint8_t* target, std::size_t count, const PositionLayout& layout)
{
    const CellMapping grid(layout.origin, layout.scale);
    const uint32_t restSize = layout.sourceRecordSize - 3 * uint32_t(sizeof(T));
    for (std::size_t i = 0; i < count; ++i)
    {
        const uint8_t* from = source + i * layout.sourceRecordSize;
        uint8_t* to = target + i * layout.encodedRecordSize;
        const std::array<double, 3> position{double(little_endian::load<T>(from)),
                                             double(little_endian::load<T>(from + sizeof(T))),
                                             double(little_endian::load<T>(from + 2 * sizeof(T)))};
        std::memmove(to + 3 * sizeof(W), from + 3 * sizeof(T), restSize);
        storeMortonKey(to, grid.encode<W>(position));
    }
}

template <typename W>
void encodeByType(const uint8_t* source, uint8_t* target, std::size_t count, const PositionLayout& layout)
{
    switch (layout.coordinateType)
    {
        case AttributeType::U32:
            return encodeRecords<W, uint32_t>(source, target, count, layout);
        case AttributeType::U64:
            return encodeRecords<W, uint64_t>(source, target, count, layout);
        case AttributeType::I32:
            return encodeRecords<W, int32_t>(source, target, count, layout);
        case AttributeType::I64:
            return encodeRecords<W, int64_t>(source, target, count, layout);
        case AttributeType::F32:
            return encodeRecords<W, float>(source, target, count, layout);
        default:  // F64, the last type that checkLayout lets through
            return encodeRecords<W, double>(source, target, count, layout);
    }
}

// The record sizes must agree with the coordinate type: the attributes after the position are the same in
// both records.
template <typename W>
std::optional<std::string> checkLayout(std::size_t bytes, const PositionLayout& layout, bool inPlace)
{
    if (layout.sourceRecordSize == 0 || bytes % layout.sourceRecordSize != 0)
    {
        return "encodePosition: buffer of " + std::to_string(bytes) +
               " bytes is not a whole number of records of " + std::to_string(layout.sourceRecordSize) +
               " bytes.";
    }
    if (!isCoordinateType(layout.coordinateType))
    {
        return inPlace ? "encodePositionInPlace: unknown type for coordinates"
                       : "encodePosition: unknown type for coordinates";
    }
    const uint32_t coordinates = 3 * typeSize(layout.coordinateType);
    if (layout.sourceRecordSize < coordinates ||
        layout.encodedRecordSize != layout.sourceRecordSize - coordinates + 3 * sizeof(W))
    {
        return "encodePosition: encoded record of " + std::to_string(layout.encodedRecordSize) +
               " bytes does not follow from a source record of " + std::to_string(layout.sourceRecordSize) +
               " bytes with " + getTypeName(layout.coordinateType) + " coordinates.";
    }
    return std::nullopt;
}

}  // namespace

template <typename W>
std::optional<std::string> encodePosition(HSPCBuffer<uint8_t>& records, const PositionLayout& layout)
{
    const bool inPlace = layout.encodedRecordSize <= layout.sourceRecordSize;
    if (std::optional<std::string> wrong = checkLayout<W>(records.size(), layout, inPlace))
    {
        return wrong;
    }
    const std::size_t count = records.size() / layout.sourceRecordSize;
    if (inPlace)
    {
        encodeByType<W>(records.data(), records.data(), count, layout);
        records.resize(count * layout.encodedRecordSize);
        return std::nullopt;
    }
    HSPCBuffer<uint8_t> encoded(count * layout.encodedRecordSize);
    encodeByType<W>(records.data(), encoded.data(), count, layout);
    records.swap(encoded);
    return std::nullopt;
}

template std::optional<std::string> encodePosition<uint32_t>(HSPCBuffer<uint8_t>&, const PositionLayout&);
template std::optional<std::string> encodePosition<uint64_t>(HSPCBuffer<uint8_t>&, const PositionLayout&);

}  // namespace HSPC
