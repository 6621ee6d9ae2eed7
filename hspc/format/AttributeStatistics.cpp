#include "hspc/format/AttributeStatistics.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <type_traits>

namespace HSPC
{
namespace
{

template <typename T>
using WideOf = std::conditional_t<std::is_floating_point_v<T>, double,
                                  std::conditional_t<std::is_signed_v<T>, int64_t, uint64_t>>;

template <typename T>
T load(const uint8_t* bytes)
{
    T value;
    std::memcpy(&value, bytes, sizeof(T));
    return value;
}

// Calls `visit` with a value of the C++ type that stores the attribute type; false for non-scalar types.
template <typename Visitor>
bool withValueType(uint8_t type, Visitor&& visit)
{
    switch (type)
    {
        case AttributeType::U8:
            visit(uint8_t{});
            return true;
        case AttributeType::U16:
            visit(uint16_t{});
            return true;
        case AttributeType::U32:
            visit(uint32_t{});
            return true;
        case AttributeType::U64:
            visit(uint64_t{});
            return true;
        case AttributeType::I8:
            visit(int8_t{});
            return true;
        case AttributeType::I16:
            visit(int16_t{});
            return true;
        case AttributeType::I32:
            visit(int32_t{});
            return true;
        case AttributeType::I64:
            visit(int64_t{});
            return true;
        case AttributeType::F32:
            visit(float{});
            return true;
        case AttributeType::F64:
            visit(double{});
            return true;
        default:
            return false;
    }
}

// The running min starts at the type's largest value and the running max at its lowest, so that the first
// value replaces both and NaN, which compares false, never does.
bool initializeMin(uint8_t type, ScalarValue& min)
{
    return withValueType(type,
                         [&](auto tag)
                         {
                             using T = decltype(tag);
                             min = static_cast<WideOf<T>>(std::numeric_limits<T>::max());
                         });
}

bool initializeMax(uint8_t type, ScalarValue& max)
{
    return withValueType(type,
                         [&](auto tag)
                         {
                             using T = decltype(tag);
                             max = static_cast<WideOf<T>>(std::numeric_limits<T>::lowest());
                         });
}

bool compareMin(uint8_t type, ScalarValue& min, const ScalarValue& other)
{
    return withValueType(type,
                         [&](auto tag)
                         {
                             using Wide = WideOf<decltype(tag)>;
                             min = std::min(std::get<Wide>(min), std::get<Wide>(other));
                         });
}

bool compareMax(uint8_t type, ScalarValue& max, const ScalarValue& other)
{
    return withValueType(type,
                         [&](auto tag)
                         {
                             using Wide = WideOf<decltype(tag)>;
                             max = std::max(std::get<Wide>(max), std::get<Wide>(other));
                         });
}

template <typename T>
void scanRange(const uint8_t* records, uint64_t count, uint32_t stride, AttributeRange& range)
{
    using Wide = WideOf<T>;
    Wide min = std::get<Wide>(range.min);
    Wide max = std::get<Wide>(range.max);
    const uint8_t* value = records + range.offset;
    for (uint64_t i = 0; i < count; ++i, value += stride)
    {
        const Wide v = static_cast<Wide>(load<T>(value));
        min = v < min ? v : min;
        max = v > max ? v : max;
    }
    range.min = min;
    range.max = max;
    range.valueCount += count;
}

template <typename T>
void countBuckets(const uint8_t* records, uint64_t count, uint32_t stride, AttributeRange& range)
{
    const double lo = range.histogramMin;
    const double hi = range.histogramMax;
    const uint64_t bucketCount = range.distribution.size();
    // Halved so that bounds of opposite sign near the largest double cannot overflow their difference.
    const double halfSpan = hi * 0.5 - lo * 0.5;
    const double bucketsPerHalfUnit = halfSpan > 0.0 ? static_cast<double>(bucketCount) / halfSpan : 0.0;
    uint64_t* buckets = range.distribution.data();
    const uint8_t* value = records + range.offset;
    for (uint64_t i = 0; i < count; ++i, value += stride)
    {
        const double v = static_cast<double>(load<T>(value));
        if (!(v >= lo && v <= hi))
        {
            continue;
        }
        const double position = (v * 0.5 - lo * 0.5) * bucketsPerHalfUnit;
        // The max itself, and anything rounding to it, belongs to the last bucket.
        const uint64_t bucket =
            position < static_cast<double>(bucketCount) ? static_cast<uint64_t>(position) : bucketCount - 1;
        ++buckets[bucket];
    }
}

}  // namespace

double toDouble(const ScalarValue& value)
{
    return std::visit([](auto v) { return static_cast<double>(v); }, value);
}

bool AttributeStatistics::initialize(const std::vector<Attribute>& attributes,
                                     const std::vector<HistogramSpec>& requests,
                                     const LogFunction& errorLogger)
{
    m_ranges.clear();
    m_recordSize = recordSize(attributes);
    const std::vector<uint32_t> offsets = attributeOffsets(attributes);
    for (size_t i = 0; i < attributes.size(); ++i)
    {
        const auto request = std::find_if(requests.begin(), requests.end(),
                                          [&](const HistogramSpec& r)
                                          {
                                              return (r.bucketCount != 0 || r.hasMin || r.hasMax) &&
                                                     Attribute{r.type, r.role, r.name} == attributes[i];
                                          });
        AttributeRange range;
        range.attribute = attributes[i];
        range.offset = offsets[i];
        const bool scalar = initializeMin(range.attribute.type, range.min);
        if (!scalar && request == requests.end())
        {
            // The position has no scalar range; its extent is the tree's bounding box.
            continue;
        }
        if (!scalar)
        {
            errorLogger("initializeMin: Unknown type.");
            return false;
        }
        if (!initializeMax(range.attribute.type, range.max))
        {
            errorLogger("initializeMax: Unknown type.");
            return false;
        }
        if (request != requests.end())
        {
            range.request = *request;
        }
        m_ranges.push_back(std::move(range));
    }
    return true;
}

const AttributeRange* AttributeStatistics::find(const Attribute& attribute) const
{
    const auto found =
        std::find_if(m_ranges.begin(), m_ranges.end(),
                     [&](const AttributeRange& range) { return range.attribute == attribute; });
    return found == m_ranges.end() ? nullptr : &*found;
}

void AttributeStatistics::addRange(const uint8_t* records, uint64_t count)
{
    for (AttributeRange& range : m_ranges)
    {
        // initialize admitted scalar types only.
        withValueType(range.attribute.type,
                      [&](auto tag) { scanRange<decltype(tag)>(records, count, m_recordSize, range); });
    }
}

bool AttributeStatistics::sameLayout(const AttributeStatistics& other, const LogFunction& errorLogger) const
{
    const bool same = m_recordSize == other.m_recordSize && m_ranges.size() == other.m_ranges.size() &&
                      std::equal(m_ranges.begin(), m_ranges.end(), other.m_ranges.begin(),
                                 [](const AttributeRange& a, const AttributeRange& b)
                                 {
                                     return a.attribute.type == b.attribute.type && a.offset == b.offset &&
                                            a.request.bucketCount == b.request.bucketCount &&
                                            a.distribution.size() == b.distribution.size();
                                 });
    if (!same)
    {
        errorLogger("Attribute description: we should not end up here.");
    }
    return same;
}

bool AttributeStatistics::mergeRange(const AttributeStatistics& other, const LogFunction& errorLogger)
{
    if (!sameLayout(other, errorLogger))
    {
        return false;
    }
    for (size_t i = 0; i < m_ranges.size(); ++i)
    {
        AttributeRange& range = m_ranges[i];
        const AttributeRange& theirs = other.m_ranges[i];
        if (!compareMin(range.attribute.type, range.min, theirs.min))
        {
            errorLogger("compareMin: Unknown type.");
            return false;
        }
        if (!compareMax(range.attribute.type, range.max, theirs.max))
        {
            errorLogger("compareMax: Unknown type.");
            return false;
        }
        range.valueCount += theirs.valueCount;
    }
    return true;
}

bool AttributeStatistics::beginHistograms(const LogFunction& errorLogger)
{
    for (AttributeRange& range : m_ranges)
    {
        if (range.request.bucketCount == 0)
        {
            continue;
        }
        const bool dataHasRange = range.valueCount != 0;
        if ((!range.request.hasMin || !range.request.hasMax) && !dataHasRange)
        {
            errorLogger("Attribute description: min or max do not have a value.");
            return false;
        }
        range.histogramMin = range.request.hasMin ? range.request.min : toDouble(range.min);
        range.histogramMax = range.request.hasMax ? range.request.max : toDouble(range.max);
        range.distribution.assign(range.request.bucketCount, 0);
    }
    return true;
}

void AttributeStatistics::addToHistograms(const uint8_t* records, uint64_t count)
{
    for (AttributeRange& range : m_ranges)
    {
        if (range.distribution.empty())
        {
            continue;
        }
        withValueType(range.attribute.type,
                      [&](auto tag) { countBuckets<decltype(tag)>(records, count, m_recordSize, range); });
    }
}

bool AttributeStatistics::mergeHistograms(const AttributeStatistics& other, const LogFunction& errorLogger)
{
    if (!sameLayout(other, errorLogger))
    {
        return false;
    }
    for (size_t i = 0; i < m_ranges.size(); ++i)
    {
        std::vector<uint64_t>& mine = m_ranges[i].distribution;
        const std::vector<uint64_t>& theirs = other.m_ranges[i].distribution;
        std::transform(mine.begin(), mine.end(), theirs.begin(), mine.begin(), std::plus<>());
    }
    return true;
}

}  // namespace HSPC
