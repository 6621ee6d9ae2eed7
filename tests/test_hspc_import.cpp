// Importers of the HSPC converter: the encoding of source records into the target's attribute list, the
// interpreter of its actions, and the importer of raw binary records from memory or a file.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "hspc/convert/BinaryRecordImporter.h"
#include "hspc/convert/EncodingImporterHelper.h"
#include "hspc/convert/Importer.h"
#include "hspc/convert/RecordSource.h"
#include "hspc/convert/SourceDescription.h"
#include "hspc/format/MortonIndex3D.h"
#include "support/LittleEndianBytes.h"
#include "support/MessageLog.h"
#include "support/TempFolder.h"

using namespace HSPC;

namespace
{

using Messages = pcp_test::MessageLog;
using pcp_test::get;

// Source records built value by value, in little-endian order.
class Records
{
public:
    template <typename T>
    Records& add(T value)
    {
        pcp_test::put(m_bytes, value);
        return *this;
    }
    const std::vector<uint8_t>& bytes() const { return m_bytes; }

private:
    std::vector<uint8_t> m_bytes;
};

MortonIndex3D<uint32_t> mortonAt(const std::vector<uint8_t>& bytes, size_t offset)
{
    return MortonIndex3D<uint32_t>{
        {get<uint32_t>(bytes, offset), get<uint32_t>(bytes, offset + 4), get<uint32_t>(bytes, offset + 8)}};
}

MortonIndex3D<uint32_t> cell(int32_t x, int32_t y, int32_t z)
{
    return encodeMortonSigned<uint32_t>(x, y, z);
}

EncodingAttribute target(uint8_t type, uint8_t role, std::string name,
                         std::optional<double> defaultValue = {})
{
    EncodingAttribute attribute;
    attribute.attribute = Attribute{type, role, std::move(name)};
    attribute.defaultValue = defaultValue;
    return attribute;
}

EncodingAttribute position()
{
    return target(AttributeType::M96, AttributeRole::POSITION, "POSITION");
}

EncodingTarget unitGrid(std::vector<EncodingAttribute> attributes)
{
    EncodingTarget grid;
    grid.attributes = std::move(attributes);
    grid.scale = {1.0, 1.0, 1.0};
    return grid;
}

SourceDescription xyz(uint8_t type, double scale = 1.0, double offset = 0.0)
{
    return {makeSourceAttribute(type, AttributeRole::X, "X", scale, offset),
            makeSourceAttribute(type, AttributeRole::Y, "Y", scale, offset),
            makeSourceAttribute(type, AttributeRole::Z, "Z", scale, offset)};
}

SourceDescription with(SourceDescription description, const SourceAttribute& attribute)
{
    description.push_back(attribute);
    return description;
}

std::vector<uint8_t> encode(const EncodingImporterHelper& helper, const Records& records,
                            uint64_t firstPoint = 0)
{
    const uint64_t count = records.bytes().size() / helper.sourceRecordSize();
    std::vector<uint8_t> out(count * helper.targetRecordSize());
    EXPECT_TRUE(helper.encodePoints(records.bytes().data(), count, out.data(), firstPoint));
    return out;
}

std::vector<uint8_t> kinds(const EncodingImporterHelper& helper)
{
    std::vector<uint8_t> result;
    for (const ConversionAction& action : helper.actions())
        result.push_back(action.kind);
    return result;
}

}  // namespace

TEST(EncodingImporterHelper, RefusesUnusableTargetsBeforeComputingActions)
{
    Messages messages;
    EncodingImporterHelper helper(messages.logger(), xyz(AttributeType::F64));

    EXPECT_FALSE(helper.setEncodingParameters(unitGrid({}), {}));
    EXPECT_FALSE(helper.setEncodingParameters(
        unitGrid({target(AttributeType::M192, AttributeRole::POSITION, "POSITION")}), {}));

    EncodingTarget both = unitGrid({position()});
    both.transformation = [](double*) {};
    both.transformAll = [](double*, size_t) {};
    EXPECT_FALSE(helper.setEncodingParameters(both, {}));
    EXPECT_TRUE(helper.actions().empty());
    EXPECT_FALSE(helper.isValid());

    Records one;
    one.add(1.0).add(2.0).add(3.0);
    std::vector<uint8_t> out(12);
    EXPECT_FALSE(helper.encodePoints(one.bytes().data(), 1, out.data()));

    EXPECT_EQ(
        messages.lines,
        (std::vector<std::string>{
            "setEncodingParameters: encoding attributes are empty.",
            "setEncodingParameters: first attribute not POSITION with MortonInteger96 type.",
            "setEncodingParameters: both transformation and transformAll functions set, only one or zero "
            "can be used simultaneously.",
            "EncodingImporterHelper::encodePoints: encoding parameters are not valid."}));

    // The same helper recovers with a usable target: just a position, one action.
    ASSERT_TRUE(helper.setEncodingParameters(unitGrid({position()}), {}));
    EXPECT_EQ(kinds(helper), std::vector<uint8_t>{ActionKind::kPosition});
    EXPECT_EQ(helper.actions()[0].sourceSize, 24);
}

TEST(EncodingImporterHelper, ReportsEachSourceThatCannotBecomeTheTarget)
{
    const std::string prefix = "EncodingImporterHelper::computeActions: ";
    const SourceAttribute morton96 =
        makeSourceAttribute(AttributeType::M96, AttributeRole::POSITION, "POSITION");
    struct Case
    {
        SourceDescription source;
        std::vector<EncodingAttribute> target;
        std::string message;
    };
    const std::vector<Case> cases = {
        {{makeSourceAttribute(AttributeType::F64, AttributeRole::X, "X"),
          makeSourceAttribute(AttributeType::F64, AttributeRole::Y, "Y")},
         {position()},
         prefix + "No position found in source data."},
        {{makeSourceAttribute(AttributeType::M192, AttributeRole::POSITION, "POSITION")},
         {position()},
         prefix + "Cannot cast between different Morton integer types"},
        {xyz(AttributeType::I16),
         {position()},
         prefix + "Cannot perform casting operation for this coordinate type."},
        {with(xyz(AttributeType::F64),
              makeSourceAttribute(AttributeType::F64, AttributeRole::ELEVATION, "H")),
         {position(), target(AttributeType::F32, AttributeRole::ELEVATION, "Elevation")},
         prefix + "Cannot convert height attribute."},
        {{morton96},
         {position(), target(AttributeType::F32, AttributeRole::ELEVATION, "Elevation")},
         prefix + "Could not extract z coordinate for height."},
        {with(xyz(AttributeType::F64),
              makeSourceAttribute(AttributeType::U16, AttributeRole::INTENSITY, "I", 2.0)),
         {position(), target(AttributeType::U16, AttributeRole::INTENSITY, "Intensity")},
         prefix + "encoding parameters unit, offset or scale different for target and source attribute=."},
        {with(xyz(AttributeType::F64),
              makeSourceAttribute(AttributeType::I16, AttributeRole::INTENSITY, "I")),
         {position(), target(AttributeType::U16, AttributeRole::INTENSITY, "Intensity")},
         prefix +
             "Cannot perform casting operation for this attribute=Intensity (source type is 2 bytes while "
             "target type is 2 bytes)"},
        {with(xyz(AttributeType::F64),
              makeSourceAttribute(AttributeType::F64, AttributeRole::TIMESTAMP, "T")),
         {position(), target(AttributeType::U32, AttributeRole::TIMESTAMP, "Time")},
         prefix +
             "Cannot perform casting operation for this attribute=Time (source type is 8 bytes while target "
             "type is 4 bytes)"},
        {xyz(AttributeType::F64),
         {position(), target(AttributeType::U8, AttributeRole::CLASSIFICATION, "Classification")},
         prefix + "Unsupported attribute: Classification; and no default value specified."},
    };
    for (const Case& c : cases)
    {
        Messages messages;
        EncodingImporterHelper helper(messages.logger(), c.source);
        EXPECT_FALSE(helper.setEncodingParameters(unitGrid(c.target), {})) << c.message;
        EXPECT_FALSE(helper.isValid());
        EXPECT_TRUE(helper.actions().empty());
        EXPECT_EQ(messages.lines, std::vector<std::string>{c.message});
    }
}

TEST(EncodingImporterHelper, EncodesEveryActionKindAsComputedByHand)
{
    SourceDescription source = xyz(AttributeType::F64);
    source.push_back(makeSourceAttribute(AttributeType::U8, AttributeRole::SCAN_INDEX, "Scan"));
    source.push_back(makeSourceAttribute(AttributeType::U16, AttributeRole::INTENSITY, "Intensity"));
    source.push_back(makeSourceAttribute(AttributeType::U16, AttributeRole::NIR, "Nir"));
    source.push_back(makeSourceAttribute(AttributeType::I16, AttributeRole::CUSTOM, "Amplitude"));
    source.push_back(makeSourceAttribute(AttributeType::F32, AttributeRole::TIMESTAMP, "Time"));
    source.push_back(makeSourceAttribute(AttributeType::F64, AttributeRole::SCAN_ANGLE, "Angle"));
    source.push_back(makeSourceAttribute(AttributeType::I8, AttributeRole::USER_DATA, "User"));

    const std::vector<EncodingAttribute> attributes = {
        position(),
        target(AttributeType::U16, AttributeRole::SCAN_INDEX, "Scan"),
        target(AttributeType::U16, AttributeRole::INTENSITY, "Intensity"),
        target(AttributeType::U32, AttributeRole::NIR, "Nir"),
        target(AttributeType::F32, AttributeRole::CUSTOM, "Amplitude"),
        target(AttributeType::F64, AttributeRole::TIMESTAMP, "Time"),
        target(AttributeType::F32, AttributeRole::SCAN_ANGLE, "Angle"),
        target(AttributeType::I32, AttributeRole::USER_DATA, "User"),
        target(AttributeType::U8, AttributeRole::CLASSIFICATION, "Classification", 2.0),
        target(AttributeType::F32, AttributeRole::CUSTOM, "Weight", 1.5),
        target(AttributeType::U32, AttributeRole::FILE_POINT_ID, "PointId"),
        target(AttributeType::U16, AttributeRole::INPUT_FILE_ID, "FileId"),
    };
    Messages messages;
    EncodingImporterHelper helper(messages.logger(), source);
    ASSERT_TRUE(helper.setEncodingParameters(unitGrid(attributes), {true, true, 7})) << messages.lines.at(0);
    EXPECT_EQ(
        kinds(helper),
        (std::vector<uint8_t>{ActionKind::kPosition, ActionKind::kScanIndex, ActionKind::kCopy,
                              ActionKind::kIntegerCast, ActionKind::kIntegerToFloat, ActionKind::kFloatCast,
                              ActionKind::kFloatCast, ActionKind::kIntegerCast, ActionKind::kConstant,
                              ActionKind::kConstant, ActionKind::kCounter, ActionKind::kConstant}));
    ASSERT_EQ(helper.targetRecordSize(), 12u + 2 + 2 + 4 + 4 + 8 + 4 + 4 + 1 + 4 + 4 + 2);

    Records records;
    records.add(1.0)
        .add(-2.0)
        .add(3.0)
        .add(uint8_t(9))
        .add(uint16_t(500))
        .add(uint16_t(65535))
        .add(int16_t(-300));
    records.add(0.5f).add(-0.25).add(int8_t(-5));
    records.add(2.5)
        .add(-2.5)
        .add(0.49)
        .add(uint8_t(255))
        .add(uint16_t(0))
        .add(uint16_t(1))
        .add(int16_t(32767));
    records.add(-1.75f).add(1e300).add(int8_t(127));
    const std::vector<uint8_t> out = encode(helper, records, 41);

    const size_t size = helper.targetRecordSize();
    struct Expected
    {
        MortonIndex3D<uint32_t> position;
        uint16_t scan, intensity;
        uint32_t nir;
        float amplitude;
        double time;
        float angle;
        int32_t user;
        uint32_t pointId;
    };
    // Half way between two cells rounds away from zero; a double beyond a float's range becomes infinity.
    const Expected expected[] = {
        {cell(1, -2, 3), 9, 500, 65535, -300.0f, 0.5, -0.25f, -5, 41},
        {cell(3, -3, 0), 255, 0, 1, 32767.0f, -1.75, std::numeric_limits<float>::infinity(), 127, 42}};
    for (size_t point = 0; point < 2; ++point)
    {
        const size_t at = point * size;
        const Expected& e = expected[point];
        EXPECT_EQ(mortonAt(out, at), e.position);
        EXPECT_EQ(get<uint16_t>(out, at + 12), e.scan);
        EXPECT_EQ(get<uint16_t>(out, at + 14), e.intensity);
        EXPECT_EQ(get<uint32_t>(out, at + 16), e.nir);
        EXPECT_EQ(get<float>(out, at + 20), e.amplitude);
        EXPECT_EQ(get<double>(out, at + 24), e.time);
        EXPECT_EQ(get<float>(out, at + 32), e.angle);
        EXPECT_EQ(get<int32_t>(out, at + 36), e.user);
        EXPECT_EQ(get<uint8_t>(out, at + 40), 2);
        EXPECT_EQ(get<float>(out, at + 41), 1.5f);
        EXPECT_EQ(get<uint32_t>(out, at + 45), e.pointId);
        EXPECT_EQ(get<uint16_t>(out, at + 49), 7);
    }
    EXPECT_TRUE(messages.lines.empty());
}

TEST(EncodingImporterHelper, BringsColoursDownToTheTargetDepth)
{
    struct Case
    {
        uint8_t sourceType;
        std::optional<double> sourceMax;
        uint8_t targetType;
        std::optional<double> targetWhite;
        uint8_t kind;
        std::vector<uint16_t> in;
        std::vector<uint16_t> out;
    };
    namespace T = AttributeType;
    const std::vector<Case> cases = {
        // 16-bit colours into 8 bits: the high byte.
        {T::U16, {}, T::U8, 255.0, ActionKind::kColorDown8, {65535, 0x1234, 0}, {255, 0x12, 0}},
        // 12-bit colours in 16-bit values: shifted by 4, values above the source's white capped.
        {T::U16, 4095.0, T::U8, {}, ActionKind::kColorDown8, {4095, 5000, 16}, {255, 255, 1}},
        // 8-bit colours stored in 16 bits: no shift, and nothing spills over the target byte.
        {T::U16, 255.0, T::U8, {}, ActionKind::kColorDown8, {255, 300, 7}, {255, 255, 7}},
        // 8-bit colours into a 16-bit target keep their values; equal sizes are copied.
        {T::U8, {}, T::U16, 65535.0, ActionKind::kColorDown16, {200, 0, 255}, {200, 0, 255}},
        {T::U16, {}, T::U16, 65535.0, ActionKind::kCopy, {65535, 2, 0}, {65535, 2, 0}},
    };
    for (const Case& c : cases)
    {
        SourceAttribute red = makeSourceAttribute(c.sourceType, AttributeRole::R, "Red");
        red.max = c.sourceMax;
        Messages messages;
        EncodingImporterHelper helper(messages.logger(), with(xyz(AttributeType::F32), red));
        ASSERT_TRUE(helper.setEncodingParameters(
            unitGrid({position(), target(c.targetType, AttributeRole::R, "Red", c.targetWhite)}), {}));
        ASSERT_EQ(kinds(helper), (std::vector<uint8_t>{ActionKind::kPosition, c.kind}));
        Records records;
        for (uint16_t value : c.in)
        {
            records.add(0.0f).add(0.0f).add(0.0f);
            c.sourceType == AttributeType::U8 ? records.add(uint8_t(value)) : records.add(value);
        }
        const std::vector<uint8_t> out = encode(helper, records);
        const size_t size = helper.targetRecordSize();
        for (size_t point = 0; point < c.in.size(); ++point)
        {
            const uint16_t value = c.targetType == AttributeType::U8 ? get<uint8_t>(out, point * size + 12)
                                                                     : get<uint16_t>(out, point * size + 12);
            EXPECT_EQ(value, c.out[point]) << "input " << c.in[point] << ", kind " << int(c.kind);
        }
    }
}

TEST(EncodingImporterHelper, WritesElevationAsFloatOrDoubleAndRefusesOtherTypes)
{
    // z on a grid of 0.25 above 100: stored 12345 is 3186.25, exact in either float width.
    const SourceDescription source = xyz(AttributeType::I32, 0.25, 100.0);
    Records records;
    records.add(int32_t(0)).add(int32_t(0)).add(int32_t(12345));
    for (uint8_t type : {AttributeType::F32, AttributeType::F64})
    {
        Messages messages;
        EncodingImporterHelper helper(messages.logger(), source);
        ASSERT_TRUE(helper.setEncodingParameters(
            unitGrid({position(), target(type, AttributeRole::ELEVATION, "Elevation")}), {}));
        EXPECT_EQ(kinds(helper), (std::vector<uint8_t>{ActionKind::kPosition, ActionKind::kElevation}));
        const std::vector<uint8_t> out = encode(helper, records);
        EXPECT_EQ(type == AttributeType::F32 ? get<float>(out, 12) : get<double>(out, 12), 3186.25);
        EXPECT_EQ(mortonAt(out, 0), cell(100, 100, 3186));
    }

    Messages messages;
    EncodingImporterHelper helper(messages.logger(), source);
    ASSERT_TRUE(helper.setEncodingParameters(
        unitGrid({position(), target(AttributeType::I32, AttributeRole::ELEVATION, "Elevation")}), {}));
    std::vector<uint8_t> out(helper.targetRecordSize());
    EXPECT_FALSE(helper.encodePoints(records.bytes().data(), 1, out.data()));
    EXPECT_EQ(messages.lines,
              std::vector<std::string>{
                  "BinaryImporterHelper: convertPoints: unsupported type for height conversion."});
}

namespace
{
template <typename T>
Records stored()
{
    return Records().add(T(100)).add(T(7)).add(T(0));
}
}  // namespace

TEST(EncodingImporterHelper, PutsEveryCoordinateTypeOnTheTargetGrid)
{
    // Stored (100, 7, 0) on the source grid of 0.5 at -10 is (40, -6.5, -10) in real units; on the target
    // grid of 0.25 at (1, 2, 3) that is the cell (156, -34, -52).
    const std::pair<uint8_t, Records> cases[] = {
        {AttributeType::U32, stored<uint32_t>()}, {AttributeType::U64, stored<uint64_t>()},
        {AttributeType::I32, stored<int32_t>()},  {AttributeType::I64, stored<int64_t>()},
        {AttributeType::F32, stored<float>()},    {AttributeType::F64, stored<double>()}};
    for (const auto& [type, records] : cases)
    {
        Messages messages;
        EncodingImporterHelper helper(messages.logger(), xyz(type, 0.5, -10.0));
        EncodingTarget grid = unitGrid({position()});
        grid.origin = {1.0, 2.0, 3.0};
        grid.scale = {0.25, 0.25, 0.25};
        ASSERT_TRUE(helper.setEncodingParameters(grid, {}));
        EXPECT_EQ(mortonAt(encode(helper, records), 0), cell(156, -34, -52)) << "type " << int(type);
    }
}

TEST(EncodingImporterHelper, TransformsRealPositionsPointByPointOrAllAtOnce)
{
    // Integer source on a grid of 0.5 at 1: stored (4, -6, 10) is (3, -2, 6). The transformation moves x by
    // 10, mirrors y and doubles z: (13, 2, 12). The elevation keeps the source's own height.
    const SourceDescription source = xyz(AttributeType::I32, 0.5, 1.0);
    Records records;
    records.add(int32_t(4)).add(int32_t(-6)).add(int32_t(10));
    records.add(int32_t(0)).add(int32_t(0)).add(int32_t(0));
    auto move = [](double* p)
    {
        p[0] += 10.0;
        p[1] = -p[1];
        p[2] *= 2.0;
    };
    const std::vector<EncodingAttribute> attributes = {
        position(), target(AttributeType::F64, AttributeRole::ELEVATION, "Elevation")};

    EncodingTarget onePoint = unitGrid(attributes);
    onePoint.transformation = move;
    EncodingTarget wholeBuffer = unitGrid(attributes);
    size_t buffers = 0;
    wholeBuffer.transformAll = [&](double* xyz, size_t count)
    {
        ++buffers;
        EXPECT_EQ(count, 2u);
        for (size_t point = 0; point < count; ++point)
            move(xyz + 3 * point);
    };
    for (const EncodingTarget& grid : {onePoint, wholeBuffer})
    {
        Messages messages;
        EncodingImporterHelper helper(messages.logger(), source);
        ASSERT_TRUE(helper.setEncodingParameters(grid, {}));
        const std::vector<uint8_t> out = encode(helper, records);
        EXPECT_EQ(mortonAt(out, 0), cell(13, 2, 12));
        EXPECT_EQ(get<double>(out, 12), 6.0);
        EXPECT_EQ(mortonAt(out, 20), cell(11, -1, 2));
        EXPECT_EQ(get<double>(out, 32), 1.0);
    }
    EXPECT_EQ(buffers, 1u);
}

TEST(EncodingImporterHelper, CopiesMortonPositionsButCannotTransformThem)
{
    const SourceDescription source = {
        makeSourceAttribute(AttributeType::M96, AttributeRole::POSITION, "POSITION"),
        makeSourceAttribute(AttributeType::U8, AttributeRole::INTENSITY, "I")};
    const MortonIndex3D<uint32_t> code = cell(-5, 6, 7);
    Records records;
    records.add(code.words[0]).add(code.words[1]).add(code.words[2]).add(uint8_t(9));
    const std::vector<EncodingAttribute> attributes = {
        position(), target(AttributeType::U16, AttributeRole::INTENSITY, "Intensity")};

    Messages messages;
    EncodingImporterHelper helper(messages.logger(), source);
    ASSERT_TRUE(helper.setEncodingParameters(unitGrid(attributes), {}));
    const std::vector<uint8_t> out = encode(helper, records);
    EXPECT_EQ(mortonAt(out, 0), code);
    EXPECT_EQ(get<uint16_t>(out, 12), 9);

    EncodingTarget moved = unitGrid(attributes);
    moved.transformation = [](double*) {};
    ASSERT_TRUE(helper.setEncodingParameters(moved, {}));
    std::vector<uint8_t> refused(helper.targetRecordSize());
    EXPECT_FALSE(helper.encodePoints(records.bytes().data(), 1, refused.data()));
    EXPECT_EQ(messages.lines,
              std::vector<std::string>{
                  "EncodingImporterHelper::encodePoints: Cannot convert for this position type."});
}

namespace
{

// The records of the importer tests: x, y, z in millimetres as I32, 16-bit colours and an intensity, each
// derived from the record's number so that any record can be checked on its own.
constexpr const char* kRawDescription = R"({"attribute-description": [
    {"attribute": {"name": "X", "role": "X", "type": "I32"}, "scale": 0.001},
    {"attribute": {"name": "Y", "role": "Y", "type": "I32"}, "scale": 0.001},
    {"attribute": {"name": "Z", "role": "Z", "type": "I32"}, "scale": 0.001, "offset": 50.0},
    {"attribute": {"name": "Red", "role": "RED", "type": "U16"}},
    {"attribute": {"name": "Green", "role": "G", "type": "U16"}},
    {"attribute": {"name": "Blue", "role": "B", "type": "U16"}},
    {"attribute": {"name": "Intensity", "role": "I", "type": "U16"}}]})";
constexpr size_t kRawRecordSize = 20;

int32_t rawCoordinate(uint64_t point, unsigned axis)
{
    return int32_t(point * 37 % 100003) * (axis == 1 ? -1 : 1) + int32_t(axis * 1000);
}

uint16_t rawColour(uint64_t point, unsigned channel)
{
    return uint16_t(point * (channel + 3) * 257);
}

std::shared_ptr<std::vector<uint8_t>> rawRecords(uint64_t count)
{
    Records records;
    for (uint64_t point = 0; point < count; ++point)
    {
        for (unsigned axis = 0; axis < 3; ++axis)
            records.add(rawCoordinate(point, axis));
        for (unsigned channel = 0; channel < 4; ++channel)
            records.add(rawColour(point, channel));
    }
    return std::make_shared<std::vector<uint8_t>>(records.bytes());
}

// Encoded: the position on a millimetre grid at (0, 0, 50), 8-bit colours, the intensity, the point's number.
constexpr size_t kEncodedRecordSize = 12 + 3 + 2 + 8;

EncodingTarget millimetreGrid()
{
    EncodingTarget grid;
    grid.attributes = {position(),
                       target(AttributeType::U8, AttributeRole::R, "Red", 255.0),
                       target(AttributeType::U8, AttributeRole::G, "Green", 255.0),
                       target(AttributeType::U8, AttributeRole::B, "Blue", 255.0),
                       target(AttributeType::U16, AttributeRole::INTENSITY, "Intensity"),
                       target(AttributeType::U64, AttributeRole::FILE_POINT_ID, "PointId")};
    grid.origin = {0.0, 0.0, 50.0};
    grid.scale = {0.001, 0.001, 0.001};
    return grid;
}

void expectEncodedRecord(const std::vector<uint8_t>& out, size_t at, uint64_t point)
{
    ASSERT_EQ(mortonAt(out, at),
              cell(rawCoordinate(point, 0), rawCoordinate(point, 1), rawCoordinate(point, 2)))
        << "point " << point;
    for (unsigned channel = 0; channel < 3; ++channel)
        ASSERT_EQ(out[at + 12 + channel], rawColour(point, channel) >> 8) << "point " << point;
    ASSERT_EQ(get<uint16_t>(out, at + 15), rawColour(point, 3));
    ASSERT_EQ(get<uint64_t>(out, at + 17), point);
}

std::vector<std::vector<uint8_t>> readAllBatches(Importer& importer, uint64_t maxBytes)
{
    std::vector<std::vector<uint8_t>> batches;
    std::vector<uint8_t> batch;
    ReadResult result;
    while ((result = importer.readPoints(batch, maxBytes)) == ReadResult::kData)
        batches.push_back(batch);
    EXPECT_EQ(result, ReadResult::kEnd);
    return batches;
}

}  // namespace

TEST(BinaryRecordImporter, EncodesEveryRecordOfMemoryAndFileSourcesInAnyOrder)
{
    constexpr uint64_t kPoints = 100003;
    const std::shared_ptr<std::vector<uint8_t>> bytes = rawRecords(kPoints);
    pcp_test::TempFolder folder;
    const std::filesystem::path file = folder.path() / "records.bin";
    std::ofstream(file, std::ios::binary).write(reinterpret_cast<const char*>(bytes->data()), bytes->size());

    Messages messages;
    const EncodingFlags numbered{true, false, 0};
    std::vector<std::shared_ptr<BinaryRecordImporter>> importers = {
        BinaryRecordImporter::create(kRawDescription, makeMemorySource(bytes), millimetreGrid(), numbered,
                                     messages.logger()),
        BinaryRecordImporter::create(kRawDescription, openFileSource(file.string(), messages.logger()),
                                     millimetreGrid(), numbered, messages.logger())};
    for (const std::shared_ptr<BinaryRecordImporter>& importer : importers)
    {
        ASSERT_NE(importer, nullptr) << messages.lines.at(0);
        EXPECT_EQ(importer->pointCount(), kPoints);
        EXPECT_EQ(importer->sourceRecordSize(), kRawRecordSize);
        EXPECT_EQ(importer->encodedRecordSize(), kEncodedRecordSize);
        EXPECT_EQ(importer->origin(), millimetreGrid().origin);
        EXPECT_EQ(importer->attributes().size(), 7u);

        // Batches of 4096 records; the last one holds the rest.
        const std::vector<std::vector<uint8_t>> batches =
            readAllBatches(*importer, BinaryRecordImporter::kBatchHeaderSize + 4096 * kRawRecordSize + 19);
        ASSERT_EQ(batches.size(), (kPoints + 4095) / 4096);

        // Workers convert batches in any order, on several threads at once; every point keeps its number.
        std::vector<std::vector<uint8_t>> encoded(batches.size());
        std::vector<std::thread> workers;
        for (size_t worker = 0; worker < 2; ++worker)
        {
            workers.emplace_back(
                [&, worker]
                {
                    for (size_t batch = batches.size() - 1 - worker; batch < batches.size(); batch -= 2)
                        EXPECT_TRUE(importer->convertPoints(batches[batch], encoded[batch]));
                });
        }
        for (std::thread& worker : workers)
            worker.join();
        uint64_t point = 0;
        for (const std::vector<uint8_t>& batch : encoded)
        {
            ASSERT_EQ(batch.size() % kEncodedRecordSize, 0u);
            for (size_t at = 0; at < batch.size(); at += kEncodedRecordSize, ++point)
                expectEncodedRecord(batch, at, point);
        }
        EXPECT_EQ(point, kPoints);

        // Past the end the answer stays the end, with an empty buffer.
        HSPCBuffer<uint8_t> after(5, 1);
        EXPECT_EQ(importer->readBatch(after, 1 << 20), ReadResult::kEnd);
        EXPECT_TRUE(after.empty());
    }
    EXPECT_TRUE(messages.lines.empty());
}

TEST(BinaryRecordImporter, RefusesBadDescriptionsSourcesAndRequests)
{
    const std::shared_ptr<std::vector<uint8_t>> bytes = rawRecords(10);
    auto torn = std::make_shared<std::vector<uint8_t>>(*bytes);
    torn->pop_back();
    struct Refusal
    {
        std::string description;
        std::shared_ptr<std::vector<uint8_t>> records;
        EncodingFlags flags;
        std::string message;  // empty: the JSON reader's own words
    };
    const Refusal refusals[] = {
        {R"({"attribute-description": [)", bytes, {}, ""},
        {R"({"attribute-description": []})",
         bytes,
         {},
         "parseSourceDescription: no attribute-description entry describes the source records."},
        {R"({"attribute-description": [{"attribute": {"name": "X", "role": "XX", "type": "I32"}}]})",
         bytes,
         {},
         "attribute-description: Failed to get valid role for XX"},
        // A point id that the flags do not ask for has to come from the source, which has none.
        {kRawDescription,
         bytes,
         {},
         "EncodingImporterHelper::computeActions: Unsupported attribute: PointId; and no default value "
         "specified."},
        {kRawDescription,
         torn,
         {true},
         "BinaryRecordImporter: source of 199 bytes does not hold whole records of 20 bytes."},
    };
    for (const Refusal& refusal : refusals)
    {
        SCOPED_TRACE(refusal.description);
        Messages messages;
        EXPECT_EQ(BinaryRecordImporter::create(refusal.description, makeMemorySource(refusal.records),
                                               millimetreGrid(), refusal.flags, messages.logger()),
                  nullptr);
        ASSERT_EQ(messages.lines.size(), 1u);
        if (!refusal.message.empty())
        {
            EXPECT_EQ(messages.lines[0], refusal.message);
        }
    }
    Messages messages;
    EXPECT_EQ(openFileSource("/nonexistent/records.bin", messages.logger()), nullptr);
    ASSERT_EQ(messages.lines.size(), 1u);
    EXPECT_NE(messages.lines[0].find("/nonexistent/records.bin"), std::string::npos);

    // A request too small for one record, and a batch that is not whole records, fail with their reasons.
    messages.lines.clear();
    const std::shared_ptr<BinaryRecordImporter> importer = BinaryRecordImporter::create(
        kRawDescription, makeMemorySource(bytes), millimetreGrid(), {true}, messages.logger());
    ASSERT_NE(importer, nullptr);
    HSPCBuffer<uint8_t> buffer;
    EXPECT_EQ(importer->readBatch(buffer, 27), ReadResult::kRequestFailed);
    EXPECT_EQ(importer->readBatch(buffer, 28), ReadResult::kData);
    EXPECT_EQ(buffer.size(), 28u);
    buffer.pop_back();
    HSPCBuffer<uint8_t> output;
    EXPECT_FALSE(importer->convertBatch(buffer, output));
    EXPECT_EQ(messages.lines,
              (std::vector<std::string>{
                  "BinaryRecordImporter: a batch of 27 bytes cannot take one record of 20 bytes.",
                  "BinaryRecordImporter: a batch of 27 bytes is not a batch header and whole records of 20 "
                  "bytes."}));
}

TEST(BinaryRecordImporter, EndsAtOnceWhenEmptyAndFailsWhenTheFileShrinks)
{
    Messages messages;
    const std::shared_ptr<BinaryRecordImporter> empty = BinaryRecordImporter::create(
        kRawDescription, makeMemorySource(std::make_shared<std::vector<uint8_t>>()), millimetreGrid(), {true},
        messages.logger());
    ASSERT_NE(empty, nullptr);
    std::vector<uint8_t> untouched = {1, 2, 3};
    EXPECT_EQ(empty->readPoints(untouched, 1 << 20), ReadResult::kEnd);
    EXPECT_EQ(untouched, (std::vector<uint8_t>{1, 2, 3}));

    pcp_test::TempFolder folder;
    const std::filesystem::path file = folder.path() / "records.bin";
    const std::shared_ptr<std::vector<uint8_t>> bytes = rawRecords(100);
    std::ofstream(file, std::ios::binary).write(reinterpret_cast<const char*>(bytes->data()), bytes->size());
    const std::shared_ptr<BinaryRecordImporter> shrinking =
        BinaryRecordImporter::create(kRawDescription, openFileSource(file.string(), messages.logger()),
                                     millimetreGrid(), {true}, messages.logger());
    ASSERT_NE(shrinking, nullptr);
    std::filesystem::resize_file(file, 60 * kRawRecordSize);
    HSPCBuffer<uint8_t> buffer;
    EXPECT_EQ(shrinking->readBatch(buffer, 8 + 50 * kRawRecordSize), ReadResult::kData);
    EXPECT_EQ(shrinking->readBatch(buffer, 8 + 50 * kRawRecordSize), ReadResult::kRequestFailed);
    EXPECT_TRUE(buffer.empty());
    ASSERT_EQ(messages.lines.size(), 1u);
    EXPECT_EQ(messages.lines[0].rfind("RecordSource: ", 0), 0u) << messages.lines[0];
}

TEST(Importer, BaseConversionHandsTheInputBackAndFails)
{
    class Unconverting : public ImporterBase
    {
    public:
        Unconverting() : ImporterBase({}, {1.0, 2.0, 3.0}, {0.5, 0.5, 0.5}, 3) {}
        ReadResult readBatch(HSPCBuffer<uint8_t>& buffer, uint64_t) override
        {
            buffer.assign({4, 5, 6});
            return ReadResult::kData;
        }
    };
    Unconverting importer;
    std::vector<uint8_t> points;
    EXPECT_EQ(importer.readPoints(points, 3), ReadResult::kData);
    EXPECT_EQ(points, (std::vector<uint8_t>{4, 5, 6}));
    std::vector<uint8_t> converted = {9};
    EXPECT_FALSE(importer.convertPoints(points, converted));
    EXPECT_EQ(converted, std::vector<uint8_t>{9});

    HSPCBuffer<uint8_t> input = {7, 8};
    HSPCBuffer<uint8_t> output;
    EXPECT_FALSE(importer.convertBatch(input, output));
    EXPECT_EQ(output, (HSPCBuffer<uint8_t>{7, 8}));
}
