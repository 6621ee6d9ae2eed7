#include "hspc/convert/BinaryImporterHelper.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <utility>

#include "hspc/format/Attribute.h"
#include "hspc/format/LittleEndian.h"

namespace HSPC
{
namespace
{

using little_endian::load;
using little_endian::store;

// Writes the low `size` bytes of a 64-bit value and zeros beyond: a constant or counter wider than eight
// bytes is the value zero-extended. The usual sizes are stored whole: a copy of a variable size goes through
// memory byte by byte, which costs more than the rest of a point's work.
void storeLowBytes(uint8_t* target, uint64_t value, uint16_t size)
{
    switch (size)
    {
        case 1:
            store(target, uint8_t(value));
            return;
        case 2:
            store(target, uint16_t(value));
            return;
        case 4:
            store(target, uint32_t(value));
            return;
        case 8:
            store(target, value);
            return;
        default:
        {
            const size_t fromValue = std::min<size_t>(size, sizeof(value));
            std::memcpy(target, &value, fromValue);
            std::memset(target + fromValue, 0, size - fromValue);
        }
    }
}

// An unsigned integer of 1, 2, 4 or 8 bytes.
uint64_t loadUnsigned(const uint8_t* bytes, uint16_t size)
{
    switch (size)
    {
        case 1:
            return load<uint8_t>(bytes);
        case 2:
            return load<uint16_t>(bytes);
        case 4:
            return load<uint32_t>(bytes);
        default:
            return load<uint64_t>(bytes);
    }
}

void copyBytes(uint8_t* target, const uint8_t* source, uint16_t size)
{
    switch (size)
    {
        case 1:
        case 2:
        case 4:
        case 8:
            storeLowBytes(target, loadUnsigned(source, size), size);
            return;
        default:
            std::memcpy(target, source, size);
    }
}

int64_t loadSigned(const uint8_t* bytes, uint8_t type)
{
    switch (type)
    {
        case AttributeType::I8:
            return load<int8_t>(bytes);
        case AttributeType::I16:
            return load<int16_t>(bytes);
        case AttributeType::I32:
            return load<int32_t>(bytes);
        default:
            return load<int64_t>(bytes);
    }
}

template <typename T>
T saturate(double value)
{
    if (std::isnan(value))
    {
        return T(0);
    }
    constexpr double lowest = double(std::numeric_limits<T>::lowest());
    constexpr double highest = double(std::numeric_limits<T>::max());
    if (value <= lowest)
    {
        return std::numeric_limits<T>::lowest();
    }
    if (value >= highest)
    {
        return std::numeric_limits<T>::max();
    }
    return T(std::round(value));
}

// A double beyond a float's range becomes an infinity of its sign, as the hardware would round it; the
// language leaves such a conversion undefined.
float toFloat(double value)
{
    constexpr double largest = std::numeric_limits<float>::max();
    if (value > largest || value < -largest)
    {
        return std::copysign(std::numeric_limits<float>::infinity(), float(value > 0 ? 1 : -1));
    }
    return float(value);
}

template <typename T>
uint64_t bitsOf(T value)
{
    uint64_t bits = 0;
    std::memcpy(&bits, &value, sizeof(T));
    return bits;
}

void writeNumber(uint8_t* target, double value, uint8_t type)
{
    const uint64_t bits = numberBytes(value, type);
    std::memcpy(target, &bits, typeSize(type));
}

uint64_t largestUnsigned(uint16_t size)
{
    return size >= 8 ? std::numeric_limits<uint64_t>::max() : (uint64_t(1) << (8 * size)) - 1;
}

}  // namespace

uint64_t numberBytes(double value, uint8_t type)
{
    switch (type)
    {
        case AttributeType::U8:
            return bitsOf(saturate<uint8_t>(value));
        case AttributeType::U16:
            return bitsOf(saturate<uint16_t>(value));
        case AttributeType::U32:
            return bitsOf(saturate<uint32_t>(value));
        case AttributeType::U64:
            return bitsOf(saturate<uint64_t>(value));
        case AttributeType::I8:
            return bitsOf(saturate<int8_t>(value));
        case AttributeType::I16:
            return bitsOf(saturate<int16_t>(value));
        case AttributeType::I32:
            return bitsOf(saturate<int32_t>(value));
        case AttributeType::I64:
            return bitsOf(saturate<int64_t>(value));
        case AttributeType::F32:
            return bitsOf(toFloat(value));
        case AttributeType::F64:
            return bitsOf(value);
        default:
            return 0;
    }
}

double readNumber(const uint8_t* bytes, uint8_t type)
{
    switch (type)
    {
        case AttributeType::U8:
            return load<uint8_t>(bytes);
        case AttributeType::U16:
            return load<uint16_t>(bytes);
        case AttributeType::U32:
            return load<uint32_t>(bytes);
        case AttributeType::U64:
            return double(load<uint64_t>(bytes));
        case AttributeType::I8:
        case AttributeType::I16:
        case AttributeType::I32:
        case AttributeType::I64:
            return double(loadSigned(bytes, type));
        case AttributeType::F32:
            return load<float>(bytes);
        case AttributeType::F64:
            return load<double>(bytes);
        default:
            return 0.0;
    }
}

BinaryImporterHelper::BinaryImporterHelper(LogFunction errorLogger, double zScale, double zOffset)
    : m_errorLogger(std::move(errorLogger)), m_zScale(zScale), m_zOffset(zOffset)
{
}

bool BinaryImporterHelper::writeElevation(const ConversionAction& action, const uint8_t* record,
                                          uint8_t* target) const
{
    const uint8_t targetType = uint8_t(TypePair::high(action.value));
    if (targetType != AttributeType::F32 && targetType != AttributeType::F64)
    {
        m_errorLogger("BinaryImporterHelper: convertPoints: unsupported type for height conversion.");
        return false;
    }
    const double z = readNumber(record + action.sourceOffset, uint8_t(TypePair::low(action.value)));
    writeNumber(target, z * m_zScale + m_zOffset, targetType);
    return true;
}

bool BinaryImporterHelper::convertPoints(std::span<const ConversionAction> actions, const uint8_t* record,
                                         const RecordValues& values, uint8_t*& cursor) const
{
    for (const ConversionAction& action : actions)
    {
        const uint8_t* source = record + action.sourceOffset;
        switch (action.kind)
        {
            case ActionKind::kCopy:
                copyBytes(cursor, source, action.targetSize);
                break;
            case ActionKind::kConstant:
                storeLowBytes(cursor, action.value, action.targetSize);
                break;
            case ActionKind::kCounter:
                storeLowBytes(cursor, values.pointNumber, action.targetSize);
                break;
            case ActionKind::kColorDown16:
            case ActionKind::kColorDown8:
            {
                const uint64_t capped = std::min<uint64_t>(loadUnsigned(source, action.sourceSize),
                                                           ColorDown::high(action.value));
                const uint64_t shifted = capped >> ColorDown::low(action.value);
                storeLowBytes(cursor, std::min(shifted, largestUnsigned(action.targetSize)),
                              action.targetSize);
                break;
            }
            case ActionKind::kPosition:
                for (unsigned word = 0; word < 3; ++word)
                {
                    store(cursor + 4 * word, values.position.words[word]);
                }
                break;
            case ActionKind::kElevation:
                if (!writeElevation(action, record, cursor))
                {
                    return false;
                }
                break;
            case ActionKind::kIntegerCast:
            {
                // Widening only: the low bytes of the sign- or zero-extended value are the value.
                const uint8_t sourceType = uint8_t(TypePair::low(action.value));
                const uint64_t widened = isSignedInteger(sourceType)
                                             ? uint64_t(loadSigned(source, sourceType))
                                             : loadUnsigned(source, action.sourceSize);
                storeLowBytes(cursor, widened, action.targetSize);
                break;
            }
            case ActionKind::kIntegerToFloat:
            case ActionKind::kFloatCast:
                writeNumber(cursor, readNumber(source, uint8_t(TypePair::low(action.value))),
                            uint8_t(TypePair::high(action.value)));
                break;
            case ActionKind::kScanIndex:
            {
                const uint64_t index = loadUnsigned(source, action.sourceSize);
                storeLowBytes(cursor, std::min(index, largestUnsigned(action.targetSize)), action.targetSize);
                break;
            }
            default:
                break;
        }
        cursor += action.targetSize;
    }
    return true;
}

}  // namespace HSPC
