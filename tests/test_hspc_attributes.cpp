// The HSPC attribute model: codes and names, widening, equality, record layout, the client's statistics
// request and the statistics gathered from point records.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "hspc/format/Attribute.h"
#include "hspc/format/AttributeDescription.h"
#include "hspc/format/AttributeRecord.h"
#include "hspc/format/AttributeStatistics.h"

using namespace HSPC;

namespace
{

// Collects everything a component reports, so that a test can compare exact texts.
struct MessageLog
{
    std::vector<std::string> lines;
    LogFunction logger()
    {
        return [this](const std::string& line) { lines.push_back(line); };
    }
};

// Bitwise reference CRC-32 (reflected, polynomial 0xEDB88320), independent of the library's table-driven one.
uint32_t referenceCrc32(const std::vector<uint8_t>& bytes)
{
    uint32_t crc = 0xFFFFFFFFu;
    for (uint8_t byte : bytes)
    {
        crc ^= byte;
        for (int bit = 0; bit < 8; ++bit)
        {
            crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
        }
    }
    return ~crc;
}

// Point records built value by value in the layout of an attribute list.
class RecordBuilder
{
public:
    explicit RecordBuilder(std::vector<Attribute> attributes)
        : m_offsets(attributeOffsets(attributes)), m_size(recordSize(attributes))
    {
    }

    template <typename T>
    void set(uint64_t point, size_t attribute, T value)
    {
        if (m_bytes.size() < (point + 1) * m_size)
        {
            m_bytes.resize((point + 1) * m_size);
        }
        std::memcpy(m_bytes.data() + point * m_size + m_offsets[attribute], &value, sizeof(T));
    }

    const uint8_t* data() const { return m_bytes.data(); }
    const uint8_t* point(uint64_t index) const { return m_bytes.data() + index * m_size; }
    uint64_t count() const { return m_bytes.size() / m_size; }

private:
    std::vector<uint32_t> m_offsets;
    uint32_t m_size;
    std::vector<uint8_t> m_bytes;
};

HistogramSpec histogramOf(uint8_t role, uint8_t type, uint16_t buckets, std::string name = {})
{
    HistogramSpec request;
    request.role = role;
    request.type = type;
    request.name = std::move(name);
    request.bucketCount = buckets;
    return request;
}

}  // namespace

TEST(AttributeNames, RolesRoundTripThroughTheirNamesAndAliases)
{
    std::set<std::string> names;
    for (int code = 0; code < 256; ++code)
    {
        const std::string name = getRoleName(static_cast<uint8_t>(code));
        if (name.empty())
        {
            continue;
        }
        names.insert(name);
        uint8_t parsed = 255;
        ASSERT_TRUE(parseRole(name, parsed)) << name;
        EXPECT_EQ(parsed, code) << name;
    }
    EXPECT_EQ(names.size(), 41u);

    // Upper-case aliases, two of them for the time stamp.
    const std::vector<std::pair<std::string, uint8_t>> aliases = {
        {"RED", 4}, {"T", 11}, {"GPS_TIMESTAMP", 11}, {"XT", 18}, {"NORMALZ", 23}};
    for (const auto& [alias, code] : aliases)
    {
        uint8_t parsed = 255;
        EXPECT_TRUE(parseRole(alias, parsed)) << alias;
        EXPECT_EQ(parsed, code) << alias;
    }
    uint8_t untouched = 77;
    EXPECT_FALSE(parseRole("red", untouched));
    EXPECT_FALSE(parseRole("", untouched));
    EXPECT_FALSE(parseRole("NORMAL_X", untouched));
    EXPECT_EQ(untouched, 77);
}

TEST(AttributeEquality, RoleDecidesAndCustomAttributesAlsoNeedTheirName)
{
    const Attribute intensity{AttributeType::U16, AttributeRole::INTENSITY, "Intensity"};
    EXPECT_EQ(intensity, (Attribute{AttributeType::F32, AttributeRole::INTENSITY, "reflectance"}));
    EXPECT_NE(intensity, (Attribute{AttributeType::U16, AttributeRole::CLASSIFICATION, "Intensity"}));
    EXPECT_EQ((Attribute{AttributeType::M96, AttributeRole::POSITION, "Position"}),
              (Attribute{AttributeType::M96, AttributeRole::POSITION, "POSITION"}));

    const Attribute size{AttributeType::F32, AttributeRole::CUSTOM, "PointSize"};
    EXPECT_EQ(size, (Attribute{AttributeType::U8, AttributeRole::CUSTOM, "PointSize"}));
    EXPECT_NE(size, (Attribute{AttributeType::F32, AttributeRole::CUSTOM, "pointsize"}));
    EXPECT_NE(size, (Attribute{AttributeType::F32, AttributeRole::CUSTOM, "PointSize "}));
}

TEST(RecordLayout, PackedOffsetsRecordBytesAndAttributeId)
{
    const std::vector<Attribute> attributes = {{AttributeType::M96, AttributeRole::POSITION, "POSITION"},
                                               {AttributeType::U16, AttributeRole::R, "Red"},
                                               {AttributeType::U8, AttributeRole::CLASSIFICATION, ""},
                                               {AttributeType::F64, AttributeRole::TIMESTAMP, "t"}};
    EXPECT_EQ(recordSize(attributes), 23u);
    EXPECT_EQ(attributeOffsets(attributes), (std::vector<uint32_t>{0, 12, 14, 15}));
    EXPECT_EQ(recordSize({}), 0u);

    std::vector<uint8_t> record;
    appendAttributeRecord(record, attributes[1]);
    EXPECT_EQ(record, (std::vector<uint8_t>{1, 4, 0, 0, 0, 0, 3, 0, 'R', 'e', 'd'}));

    const std::vector<Attribute> position = {attributes[0]};
    const std::vector<uint8_t> block = {22, 0, 0, 0, 12, 0, 0,   0,   1,   0,   0,   0,   10,  0,
                                        0,  0, 0, 0, 8,  0, 'P', 'O', 'S', 'I', 'T', 'I', 'O', 'N'};
    EXPECT_EQ(computeAttributeId(position, 12), referenceCrc32(block));
    // The name of a non-custom role is part of the id too, though equality ignores it.
    EXPECT_NE(computeAttributeId(position, 12),
              computeAttributeId({{AttributeType::M96, AttributeRole::POSITION, "Position"}}, 12));

    // A name beyond the 16-bit length field is cut, never written with a wrapped length.
    std::vector<uint8_t> longRecord;
    appendAttributeRecord(longRecord, {AttributeType::U8, AttributeRole::CUSTOM, std::string(70000, 'n')});
    EXPECT_EQ(longRecord.size(), 8u + 65535u);
    EXPECT_EQ(longRecord[6], 0xFF);
    EXPECT_EQ(longRecord[7], 0xFF);
}

TEST(GenerateAttributeFormat, PositionInTheRequestedFormFollowedByTheRest)
{
    const std::vector<Attribute> source = {{AttributeType::M96, AttributeRole::POSITION, "Position"},
                                           {AttributeType::U16, AttributeRole::INTENSITY, "Intensity"},
                                           {AttributeType::U8, AttributeRole::CLASSIFICATION, "Class"}};
    std::vector<Attribute> out = {{AttributeType::U8, AttributeRole::NIR, "stale"}};
    uint32_t size = 99;

    ASSERT_TRUE(generateAttributeFormat(AttributeType::F64, source, out, size));
    ASSERT_EQ(out.size(), 5u);
    EXPECT_EQ(out[0].role, AttributeRole::X);
    EXPECT_EQ(out[1].name, "Y");
    EXPECT_EQ(out[2].type, AttributeType::F64);
    EXPECT_EQ(out[2].name, "Z");
    EXPECT_EQ(out[3].name, "Intensity");
    EXPECT_EQ(out[4].name, "Class");
    EXPECT_EQ(size, 3u * 8u + 2u + 1u);

    ASSERT_TRUE(generateAttributeFormat(AttributeType::I32, source, out, size));
    EXPECT_EQ(size, 3u * 4u + 3u);

    ASSERT_TRUE(generateAttributeFormat(AttributeType::M192, source, out, size));
    ASSERT_EQ(out.size(), 3u);
    EXPECT_EQ(out[0].type, AttributeType::M192);
    EXPECT_EQ(out[0].role, AttributeRole::POSITION);
    EXPECT_EQ(out[0].name, "POSITION");
    EXPECT_EQ(size, 27u);

    testing::internal::CaptureStderr();
    EXPECT_FALSE(generateAttributeFormat(AttributeType::I16, source, out, size));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "generateAttributeFormat: undefined position type.\n");
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(size, 0u);

    // Without a Morton position there is nothing to convert from, and the output stays as it was.
    out = source;
    size = 7;
    EXPECT_FALSE(generateAttributeFormat(AttributeType::F64, {}, out, size));
    EXPECT_FALSE(generateAttributeFormat(AttributeType::F64, {source[1], source[2]}, out, size));
    EXPECT_EQ(out.size(), 3u);
    EXPECT_EQ(size, 7u);
}

TEST(AttributeDescriptionParsing, ReadsBoundsHistogramsEncodingAndMappings)
{
    const std::string json = R"({"comment": "scan 7", "attribute-description": [
        {"attribute": {"name": "Intensity", "role": "I", "type": "U16"},
         "scale": 0.5, "offset": -2, "histogram": {"min": 0, "max": 65535, "distribution": [0, 0, 0, 0]}},
        {"attribute": {"name": "Class", "role": "CLASSIFICATION", "type": "U8"}, "min": 1, "max": 20,
         "mapping": [{"id": 2, "name": "ground"}, {"id": 6, "name": "building"}, {"id": "x", "name": "bad"}]},
        {"attribute": {"name": "Size", "role": "CUSTOM", "type": "F"},
         "histogram": {"min": null, "max": 4.5, "distribution": [0, 0]}},
        {"no attribute": 1},
        42
    ]})";
    MessageLog log;
    std::vector<AttributeDescription> descriptions;
    ASSERT_TRUE(parseAttributeDescription(json, log.logger(), descriptions));
    EXPECT_TRUE(log.lines.empty());
    ASSERT_EQ(descriptions.size(), 3u);

    const AttributeDescription& intensity = descriptions[0];
    EXPECT_EQ(intensity.histogram.role, AttributeRole::INTENSITY);
    EXPECT_EQ(intensity.histogram.name, "Intensity");
    EXPECT_EQ(intensity.histogram.bucketCount, 4);
    EXPECT_EQ(intensity.histogram.max, 65535.0);
    EXPECT_EQ(intensity.scale, 0.5);
    EXPECT_EQ(intensity.offset, -2.0);

    const AttributeDescription& classes = descriptions[1];
    EXPECT_EQ(classes.histogram.bucketCount, 0);
    EXPECT_EQ(classes.histogram.min, 1.0);
    EXPECT_EQ(classes.histogram.max, 20.0);
    EXPECT_FALSE(classes.scale.has_value());
    ASSERT_EQ(classes.mapping.size(), 2u);
    EXPECT_EQ(classes.mapping[1].id, 6);
    EXPECT_EQ(classes.mapping[1].name, "building");

    // A null bound leaves that end to the data.
    const HistogramSpec& size = descriptions[2].histogram;
    EXPECT_EQ(size.type, AttributeType::F32);
    EXPECT_FALSE(size.hasMin);
    EXPECT_TRUE(size.hasMax);
    EXPECT_EQ(size.bucketCount, 2);

    EXPECT_TRUE(parseAttributeDescription("", log.logger(), descriptions));
    EXPECT_TRUE(descriptions.empty());
    EXPECT_TRUE(log.lines.empty());
}

TEST(AttributeDescriptionParsing, MalformedEntriesAreReportedWithTheirRole)
{
    const auto entry = [](const std::string& body) { return R"({"attribute-description": [)" + body + "]}"; };
    const std::vector<std::pair<std::string, std::string>> cases = {
        {entry(R"({"attribute": {"role": "REDD", "type": "U8"}})"),
         "attribute-description: Failed to get valid role for REDD"},
        {entry(R"({"attribute": {"type": "U8"}})"), "attribute-description: Failed to get valid role for "},
        {entry(R"({"attribute": {"role": "RED", "type": "U12"}})"),
         "attribute-description: Failed to get valid type for RED"},
        {entry(R"({"attribute": {"role": "G", "type": "U8"}, "histogram": {"max": 1, "distribution": []}})"),
         "attribute-description: Failed to find min of histogram for G"},
        {entry(R"({"attribute": {"role": "G", "type": "U8"}, "histogram": [1, 2]})"),
         "attribute-description: Failed to find min of histogram for G"},
        {entry(R"({"attribute": {"role": "G", "type": "U8"}, "histogram": {"min": 1, "distribution": []}})"),
         "attribute-description: Failed to find max of histogram for G"},
        {entry(R"({"attribute": {"role": "B", "type": "U8"}, "histogram": {"min": 0, "max": 1}})"),
         "attribute-description: Failed to find distribution of histogram for B"},
        {entry(
             R"({"attribute": {"role": "B", "type": "U8"}, "histogram": {"min": 0, "max": 1, "distribution": 4}})"),
         "attribute-description: distribution of histogram is not an array for attribute role = B"},
        {entry(R"({"attribute": {"role": "C", "type": "U8"}, "mapping": {"id": 2}})"),
         "attribute-description: distribution of histogram is not an array for attribute role = C"},
    };
    for (const auto& [json, message] : cases)
    {
        MessageLog log;
        std::vector<AttributeDescription> descriptions;
        EXPECT_FALSE(parseAttributeDescription(json, log.logger(), descriptions)) << json;
        EXPECT_EQ(log.lines, std::vector<std::string>{message}) << json;
    }

    // The first bad entry ends the parse; nothing half-parsed is handed back.
    MessageLog log;
    std::vector<AttributeDescription> descriptions;
    EXPECT_FALSE(parseAttributeDescription(
        entry(R"({"attribute": {"role": "R", "type": "U8"}}, {"attribute": {"role": "?", "type": "U8"}})"),
        log.logger(), descriptions));
    EXPECT_EQ(log.lines.size(), 1u);

    EXPECT_FALSE(parseAttributeDescription("{\"attribute-description\": [", log.logger(), descriptions));
    EXPECT_EQ(log.lines.size(), 2u);
}

TEST(AttributeStatistics, RangesOfEveryKindMergeAcrossWorkers)
{
    const std::vector<Attribute> attributes = {{AttributeType::M96, AttributeRole::POSITION, "POSITION"},
                                               {AttributeType::U64, AttributeRole::FILE_POINT_ID, ""},
                                               {AttributeType::I16, AttributeRole::SCAN_ANGLE, ""},
                                               {AttributeType::F32, AttributeRole::CUSTOM, "Size"},
                                               {AttributeType::U8, AttributeRole::CLASSIFICATION, ""}};
    RecordBuilder records(attributes);
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const std::vector<uint64_t> ids = {7, std::numeric_limits<uint64_t>::max(), 0, 12};
    const std::vector<int16_t> angles = {-5, 32767, -32768, 0};
    const std::vector<float> sizes = {nan, -0.25f, 3.5f, nan};
    for (uint64_t i = 0; i < 4; ++i)
    {
        records.set(i, 1, ids[i]);
        records.set(i, 2, angles[i]);
        records.set(i, 3, sizes[i]);
        records.set(i, 4, uint8_t{9});
    }
    const std::vector<HistogramSpec> requests = {
        histogramOf(AttributeRole::FILE_POINT_ID, AttributeType::U64, 2),
        histogramOf(AttributeRole::SCAN_ANGLE, AttributeType::I16, 3),
        histogramOf(AttributeRole::CUSTOM, AttributeType::F32, 1, "Size"),
        // Neither buckets nor bounds: nothing to track.
        histogramOf(AttributeRole::CLASSIFICATION, AttributeType::U8, 0),
        // Not in the layout.
        histogramOf(AttributeRole::CUSTOM, AttributeType::F32, 1, "size")};
    MessageLog log;
    AttributeStatistics whole;
    AttributeStatistics first;
    AttributeStatistics second;
    for (AttributeStatistics* statistics : {&whole, &first, &second})
    {
        ASSERT_TRUE(statistics->initialize(attributes, requests, log.logger()));
    }
    whole.addRange(records.data(), 4);
    first.addRange(records.point(0), 2);
    second.addRange(records.point(2), 2);
    ASSERT_TRUE(first.mergeRange(second, log.logger()));
    EXPECT_TRUE(log.lines.empty());

    for (const AttributeStatistics* statistics : {&whole, &first})
    {
        const std::vector<AttributeRange>& ranges = statistics->ranges();
        ASSERT_EQ(ranges.size(), 3u);
        EXPECT_EQ(ranges[0].offset, 12u);
        EXPECT_EQ(std::get<uint64_t>(ranges[0].min), 0u);
        EXPECT_EQ(std::get<uint64_t>(ranges[0].max), std::numeric_limits<uint64_t>::max());
        EXPECT_EQ(std::get<int64_t>(ranges[1].min), -32768);
        EXPECT_EQ(std::get<int64_t>(ranges[1].max), 32767);
        // NaN is no value: it neither widens nor poisons the range.
        EXPECT_EQ(std::get<double>(ranges[2].min), -0.25);
        EXPECT_EQ(std::get<double>(ranges[2].max), 3.5);
        EXPECT_EQ(ranges[2].valueCount, 4u);
    }
}

TEST(AttributeStatistics, HistogramsOverDataBoundsAndFixedBounds)
{
    const std::vector<Attribute> attributes = {{AttributeType::M96, AttributeRole::POSITION, "POSITION"},
                                               {AttributeType::U16, AttributeRole::INTENSITY, ""},
                                               {AttributeType::F64, AttributeRole::TIMESTAMP, ""}};
    RecordBuilder records(attributes);
    for (uint64_t i = 0; i < 100; ++i)
    {
        records.set(i, 1, static_cast<uint16_t>(1000 + i));
        records.set(i, 2, i == 99 ? std::numeric_limits<double>::quiet_NaN() : static_cast<double>(i) - 10.0);
    }
    HistogramSpec time = histogramOf(AttributeRole::TIMESTAMP, AttributeType::F64, 5);
    time.min = 0.0;
    time.max = 50.0;
    time.hasMin = time.hasMax = true;
    const std::vector<HistogramSpec> requests = {histogramOf(AttributeRole::INTENSITY, AttributeType::U16, 4),
                                                 time};

    MessageLog log;
    AttributeStatistics first;
    AttributeStatistics second;
    ASSERT_TRUE(first.initialize(attributes, requests, log.logger()));
    ASSERT_TRUE(second.initialize(attributes, requests, log.logger()));
    first.addRange(records.point(0), 30);
    second.addRange(records.point(30), 70);
    ASSERT_TRUE(first.mergeRange(second, log.logger()));
    ASSERT_TRUE(second.mergeRange(first, log.logger()));
    ASSERT_TRUE(first.beginHistograms(log.logger()));
    ASSERT_TRUE(second.beginHistograms(log.logger()));
    first.addToHistograms(records.point(0), 61);
    second.addToHistograms(records.point(61), 39);
    ASSERT_TRUE(first.mergeHistograms(second, log.logger()));
    EXPECT_TRUE(log.lines.empty());

    const std::vector<AttributeRange>& ranges = first.ranges();
    ASSERT_EQ(ranges.size(), 2u);
    // Data bounds 1000..1099: the max itself lands in the last bucket.
    EXPECT_EQ(ranges[0].histogramMin, 1000.0);
    EXPECT_EQ(ranges[0].histogramMax, 1099.0);
    EXPECT_EQ(ranges[0].distribution, (std::vector<uint64_t>{25, 25, 25, 25}));
    // Fixed bounds 0..50 over -10..88: values outside and the NaN count nowhere; 50 is in the last bucket.
    EXPECT_EQ(ranges[1].distribution, (std::vector<uint64_t>{10, 10, 10, 10, 11}));
}

TEST(AttributeStatistics, RefusesWhatCannotBeMeasured)
{
    const std::vector<Attribute> attributes = {{AttributeType::M96, AttributeRole::POSITION, "POSITION"},
                                               {AttributeType::I8, AttributeRole::USER_DATA, ""}};
    MessageLog log;
    AttributeStatistics statistics;
    EXPECT_FALSE(statistics.initialize(
        attributes, {histogramOf(AttributeRole::POSITION, AttributeType::M96, 8)}, log.logger()));
    EXPECT_EQ(log.lines, std::vector<std::string>{"initializeMin: Unknown type."});

    // A histogram without fixed bounds needs data to span.
    log.lines.clear();
    ASSERT_TRUE(statistics.initialize(
        attributes, {histogramOf(AttributeRole::USER_DATA, AttributeType::I8, 8)}, log.logger()));
    EXPECT_FALSE(statistics.beginHistograms(log.logger()));
    EXPECT_EQ(log.lines, std::vector<std::string>{"Attribute description: min or max do not have a value."});

    // Statistics of different layouts cannot be merged.
    log.lines.clear();
    AttributeStatistics other;
    ASSERT_TRUE(other.initialize(attributes, {}, log.logger()));
    EXPECT_FALSE(statistics.mergeRange(other, log.logger()));
    EXPECT_EQ(log.lines, std::vector<std::string>{"Attribute description: we should not end up here."});
}
