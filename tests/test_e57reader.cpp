// Our E57 reading library through its public API: pages and their checksums, the XML section and its node
// tree, compressed vectors of every field type and blobs; real files from other writers, files from the
// test writer read back exactly, and broken files each refused with its own E57Exception.
#include <gtest/gtest.h>

#include <malloc.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "e57/CompressedVectorReader.h"
#include "e57/Crc32c.h"
#include "e57/E57Exception.h"
#include "e57/ImageFile.h"
#include "e57/PagedFile.h"
#include "e57/XmlSection.h"
#include "fuzz/E57FuzzCase.h"
#include "sample/E57Writer.h"
#include "support/FuzzCorpus.h"
#include "support/TempFolder.h"
#include "support/TestData.h"

// The heap that this thread's allocations hold while a test counts them: every operator new of the test
// program goes through here, and blocks are measured as the heap hands them out.
namespace
{
thread_local bool t_countHeap = false;
thread_local int64_t t_heapInUse = 0;
thread_local int64_t t_heapPeak = 0;
}  // namespace

void* operator new(size_t size)
{
    void* block = std::malloc(size == 0 ? 1 : size);
    if (block == nullptr)
        throw std::bad_alloc();
    if (t_countHeap)
    {
        t_heapInUse += static_cast<int64_t>(malloc_usable_size(block));
        t_heapPeak = std::max(t_heapPeak, t_heapInUse);
    }
    return block;
}

void operator delete(void* block) noexcept
{
    if (block != nullptr && t_countHeap)
        t_heapInUse -= static_cast<int64_t>(malloc_usable_size(block));
    std::free(block);
}

void operator delete(void* block, size_t) noexcept
{
    operator delete(block);
}

using e57::ErrorCode;
using e57::Node;
using e57::SourceDestBuffer;
using pcp_sample::E57Image;
using pcp_sample::E57Points;
using pcp_sample::E57Scan;
using pcp_sample::E57Storage;

namespace
{

// The code of the E57Exception that f throws; nullopt when it throws none.
template <typename F>
std::optional<ErrorCode> failure(F&& f, std::string* message = nullptr)
{
    try
    {
        f();
    }
    catch (const e57::E57Exception& e)
    {
        if (message != nullptr)
            *message = e.context();
        return e.code();
    }
    return std::nullopt;
}

// Whether f throws an E57Exception of `code` whose context holds every one of `texts`.
template <typename F>
::testing::AssertionResult failsWith(F&& f, ErrorCode code, std::initializer_list<std::string_view> texts)
{
    std::string message;
    const std::optional<ErrorCode> thrown = failure(f, &message);
    if (thrown != code)
        return ::testing::AssertionFailure() << "code " << (thrown ? int(*thrown) : -1) << ": " << message;
    for (const std::string_view text : texts)
        if (message.find(text) == std::string::npos)
            return ::testing::AssertionFailure() << "\"" << message << "\" lacks \"" << text << "\"";
    return ::testing::AssertionSuccess();
}

// Every record of a compressed vector, one vector of doubles per field, read in batches of `capacity`.
std::map<std::string, std::vector<double>> readAll(const e57::ImageFile& file, const Node& points,
                                                   const std::vector<std::string>& fields,
                                                   size_t capacity = 1000, bool scaling = true)
{
    std::vector<std::vector<double>> batch(fields.size(), std::vector<double>(capacity));
    std::vector<SourceDestBuffer> buffers;
    for (size_t i = 0; i < fields.size(); ++i)
        buffers.push_back(SourceDestBuffer::doubles(fields[i], batch[i], scaling));
    e57::CompressedVectorReader reader(file, points, buffers);
    std::map<std::string, std::vector<double>> values;
    while (const size_t count = reader.read())
        for (size_t i = 0; i < fields.size(); ++i)
            values[fields[i]].insert(values[fields[i]].end(), batch[i].begin(), batch[i].begin() + count);
    EXPECT_EQ(reader.remaining(), 0u);
    return values;
}

std::vector<std::string> fieldNames(const Node& prototype)
{
    std::vector<std::string> names;
    for (const auto& child : prototype.children)
        names.push_back(child->name);
    return names;
}

// Replaces the XML section of a file by `edit` of it, the checksums kept right.
void editXml(const std::filesystem::path& path, const std::function<std::string(std::string)>& edit)
{
    std::vector<uint8_t> logical = pcp_sample::readE57Logical(path);
    uint64_t xmlOffset = 0;
    uint64_t xmlLength = 0;
    std::memcpy(&xmlOffset, logical.data() + 24, 8);
    std::memcpy(&xmlLength, logical.data() + 32, 8);
    const uint64_t start = e57::physicalToLogical(xmlOffset);
    const std::string xml =
        edit(std::string(logical.begin() + static_cast<std::ptrdiff_t>(start),
                         logical.begin() + static_cast<std::ptrdiff_t>(start + xmlLength)));
    logical.resize(start);
    logical.insert(logical.end(), xml.begin(), xml.end());
    const uint64_t length = xml.size();
    std::memcpy(logical.data() + 32, &length, 8);
    pcp_sample::writeE57Pages(path, std::move(logical));
}

std::string replaced(std::string text, const std::string& from, const std::string& to)
{
    const size_t at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return at == std::string::npos ? text : text.replace(at, from.size(), to);
}

// A scan whose every value follows from its index, so that any record can be checked.
E57Points syntheticPoints(size_t count)
{
    E57Points p;
    for (size_t k = 0; k < count; ++k)
    {
        const auto i = static_cast<double>(k);
        p.coordinates[0].push_back(std::sin(i) * 100.0);
        p.coordinates[1].push_back(std::cos(i * 0.5) * 50.0);
        p.coordinates[2].push_back(i * 0.001 - 7.0);
        p.intensity.push_back(std::fmod(i * 0.37, 1.0));
        for (size_t c = 0; c < 3; ++c)
            p.color[c].push_back(static_cast<int64_t>(k * (c + 3)) % 256);
        p.invalidState.push_back(static_cast<int64_t>(k % 3));
        p.rowIndex.push_back(static_cast<int64_t>(k / 13 % 1000));
        p.columnIndex.push_back(static_cast<int64_t>(k % 13));
    }
    return p;
}

// A valid file with one scan of `count` synthetic points, for the tests that break it.
std::filesystem::path writeSample(const pcp_test::TempFolder& folder, size_t count,
                                  const pcp_sample::E57WriteOptions& options = {})
{
    E57Scan scan;
    scan.points = syntheticPoints(count);
    const std::filesystem::path path = folder.path() / "sample.e57";
    pcp_sample::writeE57File(path, {scan}, {}, options);
    return path;
}

}  // namespace

// ---------------------------------------------------------------------------------------------------------
// Pages

TEST(E57Pages, Crc32cChecksumsCoverEveryPageThatLogicalReadsTouch)
{
    EXPECT_EQ(e57::crc32c("123456789", 9), 0xE3069283u);
    EXPECT_EQ(e57::crc32cPortable("123456789", 9), 0xE3069283u);
    std::mt19937 random(7);
    std::vector<uint8_t> bytes(1100);
    for (uint8_t& b : bytes)
        b = static_cast<uint8_t>(random());
    for (size_t offset : {0, 1, 3, 7})
        for (size_t size = 0; size < 1024; size += 37)
            ASSERT_EQ(e57::crc32c(bytes.data() + offset, size),
                      e57::crc32cPortable(bytes.data() + offset, size));

    // Logical reads skip the checksums and check every page they touch.
    constexpr size_t kPages = 5;
    std::vector<uint8_t> file(kPages * e57::kPageSize + 100);  // and a partial page, which holds nothing
    for (size_t p = 0; p < kPages; ++p)
    {
        for (size_t i = 0; i < e57::kPagePayload; ++i)
            file[p * e57::kPageSize + i] = static_cast<uint8_t>((p * e57::kPagePayload + i) % 251);
        e57::sealPage(file.data() + p * e57::kPageSize);
    }
    file[3 * e57::kPageSize + 500] ^= 0x10;  // page 3 corrupt
    const e57::PagedFile pages("memory.e57", file);
    EXPECT_EQ(pages.pageCount(), kPages);
    EXPECT_EQ(pages.logicalSize(), kPages * e57::kPagePayload);

    e57::PageReader reader(pages, 2);
    std::vector<uint8_t> got(2500);
    reader.read(10, got.data(), got.size());  // pages 0 to 2, two windows
    for (size_t i = 0; i < got.size(); ++i)
        ASSERT_EQ(got[i], (10 + i) % 251) << i;
    EXPECT_TRUE(failsWith([&] { reader.read(3 * e57::kPagePayload - 1, got.data(), 2); },
                          ErrorCode::BadChecksum, {"page 3 of memory.e57"}));
    reader.read(4 * e57::kPagePayload, got.data(), e57::kPagePayload);  // page 4 is fine
    EXPECT_EQ(failure([&] { reader.read(4 * e57::kPagePayload + 1, got.data(), e57::kPagePayload); }),
              ErrorCode::ReadFailed);

    for (uint64_t logical : {0ull, 1019ull, 1020ull, 123456789ull})
        EXPECT_EQ(e57::physicalToLogical(e57::logicalToPhysical(logical)), logical);
    EXPECT_EQ(e57::logicalToPhysical(1020), 1024u);
    EXPECT_TRUE(e57::isChecksumOffset(2044));
    EXPECT_EQ(failure([] { e57::PagedFile("/nonexistent/folder/file.e57"); }), ErrorCode::OpenFailed);
}

// ---------------------------------------------------------------------------------------------------------
// Real files from other writers

TEST(E57RealFiles, ColouredCubesInFloatAndDoubleHoldTheSamePoints)
{
    PCP_REQUIRE_TEST_DATA(floats, "e57/ColouredCubeFloat.e57");
    PCP_REQUIRE_TEST_DATA(doubles, "e57/ColouredCubeDouble.e57");
    const e57::ImageFile single(floats);
    const e57::ImageFile precise(doubles);
    const Node& points = single.root().at("data3D/0/points");
    EXPECT_EQ(points.recordCount, 7680u);
    EXPECT_TRUE(points.at("prototype/cartesianX").singlePrecision);
    const auto a = readAll(single, points, fieldNames(*points.prototype), 1000);
    const auto b =
        readAll(precise, precise.root().at("/data3D/0/points"), fieldNames(*points.prototype), 4096);
    for (const auto& [field, values] : a)
    {
        ASSERT_EQ(values.size(), 7680u) << field;
        ASSERT_EQ(b.at(field).size(), 7680u) << field;
        for (size_t i = 0; i < values.size(); ++i)
        {
            ASSERT_NEAR(values[i], b.at(field)[i], 1e-6) << field << " " << i;
            ASSERT_LE(std::fabs(values[i]), field.rfind("color", 0) == 0 ? 255.0 : 0.5) << field;
        }
    }
}

TEST(E57RealFiles, BunnyScaledIntegersFitTheirBoundsAndTheirRawValues)
{
    PCP_REQUIRE_TEST_DATA(path, "e57/bunnyInt32.e57");
    const e57::ImageFile file(path);
    const Node& scan = file.root().at("data3D/0");
    const Node& points = scan.at("points");
    EXPECT_EQ(points.recordCount, 30571u);
    const Node& x = points.at("prototype/cartesianX");
    EXPECT_EQ(x.type, e57::NodeType::ScaledInteger);
    const std::vector<std::string> fields = {"cartesianX", "cartesianY", "cartesianZ",
                                             "cartesianInvalidState"};
    const auto scaled = readAll(file, points, fields, 1000, true);
    const auto raw = readAll(file, points, fields, 777, false);
    const char* const kAxes[] = {"x", "y", "z"};
    for (size_t axis = 0; axis < 3; ++axis)
    {
        const double low = scan.at(std::string("cartesianBounds/") + kAxes[axis] + "Minimum").numericValue();
        const double high = scan.at(std::string("cartesianBounds/") + kAxes[axis] + "Maximum").numericValue();
        const auto& values = scaled.at(fields[axis]);
        ASSERT_EQ(values.size(), 30571u);
        for (size_t i = 0; i < values.size(); ++i)
        {
            ASSERT_GE(values[i], low - 1e-6);
            ASSERT_LE(values[i], high + 1e-6);
            ASSERT_DOUBLE_EQ(values[i], raw.at(fields[axis])[i] * x.scale + x.offset);
        }
    }
    for (double state : scaled.at("cartesianInvalidState"))
        ASSERT_TRUE(state == 0.0 || state == 1.0);
}

TEST(E57RealFiles, PinholeImagesGiveTheirJpegBlobs)
{
    PCP_REQUIRE_TEST_DATA(path, "e57/PinholeImageWithDistortionParameters.e57");
    const e57::ImageFile file(path);
    const Node& images = file.root().at("images2D");
    ASSERT_EQ(images.children.size(), 3u);
    for (const auto& image : images.children)
    {
        const Node& blob = image->at("pinholeRepresentation/jpegImage");
        const std::vector<uint8_t> jpeg = file.readBlob(blob, 1 << 20);
        ASSERT_EQ(jpeg.size(), 375u);
        EXPECT_EQ(jpeg[0], 0xFF);
        EXPECT_EQ(jpeg[1], 0xD8);
        EXPECT_EQ(jpeg[373], 0xFF);
        EXPECT_EQ(jpeg[374], 0xD9);
        EXPECT_EQ(failure([&] { file.readBlob(blob, 374); }), ErrorCode::BadApiArgument);
    }
    // Extension elements keep their prefix.
    EXPECT_NEAR(images.at("0/dist:distortion/dist:CV_K1").numericValue(), 1.01, 1e-6);
    EXPECT_EQ(images.at("1/dist:distortion/dist:Type").stringValue, "");
    EXPECT_EQ(failure([&] { file.readBlob(images.at("0/name"), 100); }), ErrorCode::BadNodeDowncast);
}

// A file without records reads as empty; one whose section header is broken opens, and fails at the read.
TEST(E57RealFiles, NoRecordsAndABrokenSectionHeader)
{
    PCP_REQUIRE_TEST_DATA(zero, "e57/ZeroPoints.e57");
    PCP_REQUIRE_TEST_DATA(badHeader, "e57/InvalidCVHeader.e57");
    const e57::ImageFile zeroFile(zero);
    EXPECT_EQ(zeroFile.root().at("data3D/0/points").recordCount, 0u);
    EXPECT_TRUE(readAll(zeroFile, zeroFile.root().at("data3D/0/points"), {"cartesianX"}).empty());
    const e57::ImageFile broken(badHeader);
    EXPECT_EQ(failure([&] { readAll(broken, broken.root().at("data3D/0/points"), {"cartesianX"}); }),
              ErrorCode::BadCVHeader);
}

// ---------------------------------------------------------------------------------------------------------
// The XML section and the node tree

TEST(E57Xml, ElementsBecomeTypedNodesWithTheirDefaults)
{
    const std::string xml = R"(<?xml version="1.0" encoding="UTF-8"?>
<e57Root type="Structure" xmlns="http://www.astm.org/COMMIT/E57/2010-e57-v1.0" xmlns:nor="urn:nor">
  <name type="String"><![CDATA[caf]]>é &amp; co</name>
  <count type="Integer" minimum="-5" maximum="+9"> 7 </count>
  <zero type="Integer"/>
  <five type="Integer" minimum="5" maximum="9"/>
  <raw type="ScaledInteger" minimum="0" maximum="1000" scale="0.5" offset="10">4</raw>
  <f type="Float" precision="single">1.5e-1</f>
  <d type="Float" minimum="-1" maximum="1"/>
  <list type="Vector" allowHeterogeneousChildren="1">
    <vectorChild type="Integer">1</vectorChild>
    <vectorChild type="Structure"><nor:normalX type="Float">0.25</nor:normalX></vectorChild>
  </list>
  <points type="CompressedVector" fileOffset="2048" recordCount="12">
    <prototype type="Structure"><x type="Float"/></prototype>
    <codecs type="Vector" allowHeterogeneousChildren="1"/>
  </points>
  <picture type="Blob" fileOffset="1024" length="99"/>
</e57Root>)";
    const e57::XmlTree tree = e57::parseXmlSection(xml, "test.e57");
    const std::unique_ptr<Node>& root = tree.root;
    EXPECT_EQ(root->name, "");
    EXPECT_EQ(root->pathName(), "/");
    EXPECT_EQ(root->at("name").stringValue, "café & co");
    const Node& count = root->at("count");
    EXPECT_EQ(count.integerValue, 7);
    EXPECT_EQ(count.integerMinimum, -5);
    EXPECT_EQ(count.integerMaximum, 9);
    EXPECT_EQ(root->at("zero").integerMinimum, std::numeric_limits<int64_t>::min());
    EXPECT_EQ(root->at("five").integerValue, 5);  // empty: the end of the range nearest to 0
    EXPECT_EQ(root->at("raw").numericValue(), 12.0);
    EXPECT_TRUE(root->at("f").singlePrecision);
    EXPECT_DOUBLE_EQ(root->at("f").floatValue, 0.15);
    EXPECT_EQ(root->at("f").floatMaximum, std::numeric_limits<float>::max());
    EXPECT_FALSE(root->at("d").singlePrecision);
    EXPECT_EQ(root->at("d").floatMinimum, -1.0);

    const Node& list = root->at("list");
    ASSERT_EQ(list.children.size(), 2u);
    EXPECT_EQ(list.children[1]->name, "1");
    const Node& normal = root->at("list/1/nor:normalX");
    EXPECT_EQ(normal.pathName(), "/list/1/nor:normalX");
    EXPECT_EQ(normal.find("/count"), &count);
    EXPECT_EQ(root->find("list/2"), nullptr);
    EXPECT_EQ(root->find("list/x"), nullptr);

    const Node& points = root->at("points");
    EXPECT_EQ(points.recordCount, 12u);
    EXPECT_EQ(points.binaryOffset, 2040u);  // physical 2048 is logical 2040
    EXPECT_EQ(root->at("points/prototype/x").parent, points.prototype.get());
    EXPECT_TRUE(points.children.empty());
    EXPECT_EQ(root->at("picture").binaryOffset, 1020u);
    EXPECT_EQ(root->at("picture").length, 99u);

    EXPECT_TRUE(failsWith([&] { root->at("list/9"); }, ErrorCode::PathUndefined, {"list/9"}));
    EXPECT_EQ(failure([&] { root->at("name").numericValue(); }), ErrorCode::ExpectingNumeric);

    // Prefixes are known by the URIs they are bound to.
    ASSERT_EQ(tree.namespaces.size(), 1u);
    EXPECT_EQ(tree.namespaces[0].prefix, "nor");
    EXPECT_EQ(tree.namespaces[0].uri, "urn:nor");
}

TEST(E57Xml, WrongElementsAndAbsurdNestingAreRefusedWithTheirPlace)
{
    const auto parse = [](const std::string& body)
    {
        std::string message;
        const auto code = failure(
            [&]
            { e57::parseXmlSection("<e57Root type=\"Structure\">\n" + body + "\n</e57Root>", "bad.e57"); },
            &message);
        return std::make_pair(code, message);
    };
    const std::pair<std::string, ErrorCode> cases[] = {
        {"<a/>", ErrorCode::BadXmlFormat},
        {"<a type=\"Number\"/>", ErrorCode::BadXmlFormat},
        {"<a type=\"Float\" precision=\"half\"/>", ErrorCode::BadXmlFormat},
        {"<a type=\"Blob\" length=\"5\"/>", ErrorCode::BadXmlFormat},
        {"<a type=\"Blob\" fileOffset=\"1021\" length=\"5\"/>", ErrorCode::BadXmlFormat},
        {"<a type=\"CompressedVector\" fileOffset=\"48\" recordCount=\"1\"/>", ErrorCode::BadXmlFormat},
        {"<a type=\"CompressedVector\" fileOffset=\"48\"><prototype type=\"Float\"/></a>",
         ErrorCode::BadXmlFormat},
        {"<a type=\"CompressedVector\" fileOffset=\"48\" recordCount=\"1\"><prototype type=\"Structure\">"
         "<b type=\"Blob\" fileOffset=\"0\" length=\"1\"/></prototype></a>",
         ErrorCode::BadXmlFormat},
        {"<a type=\"CompressedVector\" fileOffset=\"48\" recordCount=\"1\"><other type=\"Float\"/></a>",
         ErrorCode::BadXmlFormat},
        {"<a type=\"Structure\">text</a>", ErrorCode::BadXmlFormat},
        {"<a type=\"Integer\"><b type=\"Integer\"/></a>", ErrorCode::BadXmlFormat},
        {"<a type=\"Integer\"/><a type=\"Float\"/>", ErrorCode::BadXmlFormat},
        {"<a type=\"Integer\">", ErrorCode::XmlParser},
        {"<a type=\"Integer\" type=\"Float\"/>", ErrorCode::XmlParser},
    };
    for (const auto& [body, expected] : cases)
    {
        const auto [code, message] = parse(body);
        EXPECT_EQ(code, expected) << body << ": " << message;
        EXPECT_NE(message.find("bad.e57"), std::string::npos) << message;
    }
    // expat's own words, with the line and column.
    EXPECT_NE(parse("<a type=\"Integer\"></b>").second.find("mismatched tag at line 2, column"),
              std::string::npos);
    EXPECT_EQ(failure([] { e57::parseXmlSection("", "bad.e57"); }), ErrorCode::XmlParser);
    EXPECT_EQ(failure([] { e57::parseXmlSection("<a type=\"Float\"/>", "bad.e57"); }),
              ErrorCode::BadXmlFormat);
    EXPECT_EQ(
        failure([] { e57::parseXmlSection("<!DOCTYPE r [<!ENTITY e \"x\">]><r type=\"Structure\"/>", "x"); }),
        ErrorCode::BadXmlFormat);

    // Absurd nesting is refused before it costs; the limit itself is fine.
    std::string deep;
    for (int i = 0; i < 100000; ++i)
        deep += "<s type=\"Structure\">";
    EXPECT_TRUE(failsWith([&] { e57::parseXmlSection(deep, "deep.e57"); }, ErrorCode::BadXmlFormat,
                          {"deeper than 64"}));

    std::string nested = "<r type=\"Structure\">";
    for (size_t i = 1; i < e57::kMaxXmlDepth; ++i)
        nested += "<s type=\"Structure\">";
    for (size_t i = 1; i < e57::kMaxXmlDepth; ++i)
        nested += "</s>";
    EXPECT_NE(e57::parseXmlSection(nested + "</r>", "ok.e57").root, nullptr);
}

// The tree's memory is counted as it grows and bounded: the count covers what the heap really holds, and a
// section whose tree would pass the limit is refused before it does.
TEST(E57Xml, TheTreeStaysWithinItsMemoryLimit)
{
    std::string xml = "<e57Root type=\"Structure\"><images2D type=\"Vector\">";
    for (int i = 0; i < 20000; ++i)
        xml +=
            "<vectorChild type=\"Structure\"><guid type=\"String\">{8E1C5A50-" + std::to_string(i) +
            "-4D4B-9B2F-5C8E2C1B7A31}</guid><associatedData3DGuid type=\"String\">scan</associatedData3DGuid>"
            "<pixelWidth type=\"Float\">1.5e-5</pixelWidth><imageHeight type=\"Integer\">1024</imageHeight>"
            "<temperature type=\"Float\">1.#INF</temperature></vectorChild>";
    xml += "</images2D></e57Root>";

    t_heapInUse = 0;
    t_heapPeak = 0;
    t_countHeap = true;
    std::optional<e57::XmlTree> tree;
    tree.emplace(e57::parseXmlSection(xml, "big.e57"));
    const int64_t held = t_heapInUse;
    const int64_t peak = t_heapPeak;
    tree.reset();
    t_countHeap = false;
    ASSERT_GT(held, 0);
    const size_t counted = e57::parseXmlSection(xml, "big.e57").treeBytes;
    EXPECT_LE(held, static_cast<int64_t>(counted));
    EXPECT_LE(peak, static_cast<int64_t>(counted) + (int64_t{1} << 20));

    EXPECT_TRUE(failsWith([&] { e57::parseXmlSection(xml, "big.e57", counted - 1); }, ErrorCode::BadXmlFormat,
                          {"big.e57", "MiB of memory"}));
    EXPECT_NE(e57::parseXmlSection(xml, "big.e57", counted).root, nullptr);
}

// Writers in other locales and compilers put "1,5", "1.#INF" or "-nan(ind)" where a number belongs. Such an
// element parses; it fails, with its path and its text, only when its numbers are read.
TEST(E57Xml, MalformedNumbersFailOnlyWhenRead)
{
    const std::string xml = R"xml(<e57Root type="Structure">
  <comma type="Float">1,5</comma>
  <infinite type="Float">1.#INF</infinite>
  <notANumber type="Float" minimum="-nan(ind)"/>
  <integer type="Integer">12x</integer>
  <huge type="Integer">99999999999999999999</huge>
  <outside type="Integer" minimum="0" maximum="10">11</outside>
  <reversed type="Integer" minimum="5" maximum="1"/>
  <unscaled type="ScaledInteger" scale="0"/>
  <overflow type="Float">1e999</overflow>
  <picture type="Blob" fileOffset="1,024" length="5"/>
  <points type="CompressedVector" fileOffset="48" recordCount="-nan(ind)">
    <prototype type="Structure"><x type="Float"/></prototype>
  </points>
  <good type="Float">2.5</good>
</e57Root>)xml";
    const e57::XmlTree tree = e57::parseXmlSection(xml, "odd.e57");
    const Node& root = *tree.root;
    EXPECT_EQ(root.at("good").numericValue(), 2.5);
    EXPECT_FALSE(root.at("good").malformedNumber);
    for (const char* name : {"comma", "infinite", "notANumber", "integer", "huge", "outside", "reversed",
                             "unscaled", "overflow", "picture", "points"})
    {
        const Node& node = root.at(name);
        EXPECT_TRUE(node.malformedNumber) << name;
        std::string message;
        EXPECT_EQ(failure([&] { node.requireNumbers(); }, &message), ErrorCode::BadXmlFormat) << name;
        EXPECT_EQ(message.find("/" + std::string(name) + ": "), 0u) << message;
    }
    std::string message;
    EXPECT_EQ(failure([&] { root.at("comma").numericValue(); }, &message), ErrorCode::BadXmlFormat);
    EXPECT_EQ(message, "/comma: value \"1,5\" is not a number");
    EXPECT_EQ(failure([&] { root.at("notANumber").numericValue(); }, &message), ErrorCode::BadXmlFormat);
    EXPECT_EQ(message, "/notANumber: attribute minimum=\"-nan(ind)\" is not a number");
    // Nothing that needs them can use such nodes.
    const e57::PagedFile pages("odd.e57", std::vector<uint8_t>(1024, 0));
    std::vector<double> values(4);
    EXPECT_EQ(failure(
                  [&] {
                      e57::CompressedVectorReader(pages, root.at("points"),
                                                  {SourceDestBuffer::doubles("x", values, true)});
                  }),
              ErrorCode::BadXmlFormat);
}

// ---------------------------------------------------------------------------------------------------------
// Round trips through the test writer

TEST(E57RoundTrip, EveryFieldComesBackExactOrToItsScale)
{
    pcp_test::TempFolder folder;
    E57Scan cartesian;
    cartesian.guid = "cartesian-guid";
    cartesian.name = "Scan ä 点";
    cartesian.points = syntheticPoints(2000);
    for (size_t axis = 0; axis < 3; ++axis)
        for (size_t i = 0; i < 2000; ++i)
            cartesian.points.normals[axis].push_back(axis == 2 ? 1.0 : 0.001 * static_cast<double>(i % 7));
    cartesian.points.classification.assign(2000, 17);
    cartesian.points.intensityInvalid.assign(2000, 1);
    cartesian.points.colorInvalid.assign(2000, 0);

    E57Scan spherical;
    spherical.spherical = true;
    spherical.coordinateStorage = E57Storage::Double;
    spherical.intensityStorage = E57Storage::Integer;
    spherical.intensityMaximum = 2047;  // 11 bits beside 8-bit colours and 2-bit states
    spherical.points = syntheticPoints(1500);
    for (double& value : spherical.points.intensity)
        value = std::round(value * 2047);

    E57Scan scaled;
    scaled.coordinateStorage = E57Storage::ScaledInteger;
    scaled.coordinateScale = 0.0005;
    scaled.coordinateOffset = 3.0;
    scaled.intensityStorage = E57Storage::Double;
    scaled.colorMaximum = 65535;
    scaled.points = syntheticPoints(3000);
    for (auto& channel : scaled.points.color)
        for (int64_t& value : channel)
            value *= 257;

    std::vector<E57Image> images(4);
    const char* const kRepresentations[] = {"visualReferenceRepresentation", "pinholeRepresentation",
                                            "sphericalRepresentation", "cylindricalRepresentation"};
    for (size_t i = 0; i < 4; ++i)
    {
        images[i].projection = static_cast<pcp_sample::E57ImageProjection>(i);
        images[i].png = i % 2 == 1;
        images[i].picture.assign(1000 + 700 * i, static_cast<uint8_t>(i + 1));  // most over a page boundary
    }

    pcp_sample::E57WriteOptions small;
    small.packetBytes = 150;  // a few values per field and packet
    small.extraPackets = true;
    for (const pcp_sample::E57WriteOptions& options : {pcp_sample::E57WriteOptions{}, small})
    {
        const std::filesystem::path path = folder.path() / "round trip ä 点.e57";
        pcp_sample::writeE57File(path, {cartesian, spherical, scaled}, images, options);
        const e57::ImageFile file(path);
        const Node& data3D = file.root().at("data3D");
        ASSERT_EQ(data3D.children.size(), 3u);

        const Node& first = *data3D.children[0];
        EXPECT_EQ(first.at("guid").stringValue, "cartesian-guid");
        EXPECT_EQ(first.at("name").stringValue, "Scan ä 点");

        const E57Scan* const scans[] = {&cartesian, &spherical, &scaled};
        for (size_t s = 0; s < 3; ++s)
        {
            const E57Points& expected = scans[s]->points;
            const Node& points = data3D.children[s]->at("points");
            const std::vector<std::string> names = fieldNames(*points.prototype);
            const auto values = readAll(file, points, names, s == 0 ? 333 : 4096);
            for (size_t axis = 0; axis < 3; ++axis)
            {
                const auto& got = values.at(names[axis]);
                ASSERT_EQ(got.size(), expected.size());
                for (size_t i = 0; i < got.size(); ++i)
                {
                    const double want = expected.coordinates[axis][i];
                    if (s == 0)
                        ASSERT_EQ(got[i], static_cast<float>(want)) << i;
                    else if (s == 1)
                        ASSERT_EQ(got[i], want) << i;
                    else
                        ASSERT_NEAR(got[i], want, 0.00025 + 1e-12) << i;
                }
            }
            for (size_t i = 0; i < expected.size(); ++i)
            {
                ASSERT_EQ(values.at(s == 1 ? "sphericalInvalidState" : "cartesianInvalidState")[i],
                          expected.invalidState[i]);
                ASSERT_EQ(values.at("colorGreen")[i], expected.color[1][i]);
                ASSERT_EQ(values.at("rowIndex")[i], expected.rowIndex[i]);
                ASSERT_EQ(values.at("columnIndex")[i], expected.columnIndex[i]);
                const double intensity = expected.intensity[i];
                ASSERT_EQ(values.at("intensity")[i], s == 0 ? static_cast<float>(intensity) : intensity);
            }
        }
        const auto extras =
            readAll(file, data3D.children[0]->at("points"),
                    {"nor:normalX", "nor:normalZ", "class:classification", "isIntensityInvalid"});
        for (size_t i = 0; i < 2000; ++i)
        {
            ASSERT_EQ(extras.at("nor:normalX")[i], static_cast<float>(cartesian.points.normals[0][i]));
            ASSERT_EQ(extras.at("nor:normalZ")[i], 1.0);
            ASSERT_EQ(extras.at("class:classification")[i], 17.0);
            ASSERT_EQ(extras.at("isIntensityInvalid")[i], 1.0);
        }

        const Node& images2D = file.root().at("images2D");
        ASSERT_EQ(images2D.children.size(), 4u);
        for (size_t i = 0; i < 4; ++i)
        {
            const Node& representation = images2D.children[i]->at(kRepresentations[i]);
            const Node& blob = representation.at(images[i].png ? "pngImage" : "jpegImage");
            EXPECT_EQ(file.readBlob(blob, 1 << 20), images[i].picture) << i;
        }
    }
}

// Writers keep identifiers and comments in String fields of a record; nobody asks for them, and their
// bytestreams are passed over, like those of every other field without a buffer.
TEST(E57RoundTrip, StringFieldsOfARecordArePassedOver)
{
    pcp_test::TempFolder folder;
    E57Scan scan;
    scan.points = syntheticPoints(3000);
    for (size_t i = 0; i < 3000; ++i)
        scan.points.labels.push_back(i % 3 == 0 ? std::string(200 + i % 50, 'x') : "p" + std::to_string(i));
    pcp_sample::E57WriteOptions options;
    options.packetBytes = 1000;
    const std::filesystem::path path = folder.path() / "labels.e57";
    pcp_sample::writeE57File(path, {scan}, {}, options);
    const e57::ImageFile file(path);
    const Node& points = file.root().at("data3D/0/points");
    ASSERT_EQ(points.prototype->at("label").type, e57::NodeType::String);

    const auto values = readAll(file, points, {"cartesianX", "colorBlue", "intensity"}, 700);
    for (size_t i = 0; i < 3000; ++i)
    {
        ASSERT_EQ(values.at("cartesianX")[i], static_cast<float>(scan.points.coordinates[0][i])) << i;
        ASSERT_EQ(values.at("colorBlue")[i], scan.points.color[2][i]) << i;
    }
    std::vector<double> text(10);
    EXPECT_TRUE(failsWith(
        [&] { e57::CompressedVectorReader(file, points, {SourceDestBuffer::doubles("label", text, true)}); },
        ErrorCode::BadBuffer, {"String field /data3D/0/points/prototype/label"}));
}

TEST(E57RoundTrip, BuffersConvertScaleAndCheckTheirFields)
{
    pcp_test::TempFolder folder;
    E57Scan scan;
    scan.coordinateStorage = E57Storage::ScaledInteger;
    scan.coordinateScale = 0.01;
    scan.points = syntheticPoints(1000);
    for (double& x : scan.points.coordinates[0])
        x = std::round(std::fabs(x) * 2.0) / 100.0;  // 0..2, so that bytes can take it
    scan.intensityMaximum = 300.0;
    for (double& value : scan.points.intensity)
        value *= 300.0;
    const std::filesystem::path path = folder.path() / "buffers.e57";
    pcp_sample::writeE57File(path, {scan});
    const e57::ImageFile file(path);
    const Node& points = file.root().at("data3D/0/points");

    // Buffers of different sizes: each read fills the smallest.
    std::vector<double> rawX(100);
    std::vector<uint8_t> red(64);
    std::vector<uint8_t> intensity(500);
    e57::CompressedVectorReader reader(
        file, points,
        {SourceDestBuffer::doubles("cartesianX", rawX, false), SourceDestBuffer::bytes("colorRed", red),
         SourceDestBuffer{"intensity", SourceDestBuffer::Kind::Byte, intensity.data(), intensity.size(), true,
                          false}});
    size_t done = 0;
    std::string message;
    const auto code = failure(
        [&]
        {
            while (const size_t count = reader.read())
            {
                EXPECT_LE(count, 64u);
                for (size_t i = 0; i < count; ++i)
                {
                    ASSERT_EQ(rawX[i], std::round(scan.points.coordinates[0][done + i] / 0.01));
                    ASSERT_EQ(red[i], scan.points.color[0][done + i]);
                    ASSERT_EQ(intensity[i], std::trunc(static_cast<float>(scan.points.intensity[done + i])));
                }
                done += count;
            }
        },
        &message);
    // Intensities go up to 300: the first one past 255 cannot be a byte.
    size_t firstTooLarge = 0;
    while (static_cast<float>(scan.points.intensity[firstTooLarge]) < 256.0f)
        ++firstTooLarge;
    EXPECT_EQ(code, ErrorCode::ValueNotRepresentable) << message;
    EXPECT_NE(message.find("/data3D/0/points/prototype/intensity"), std::string::npos) << message;
    EXPECT_EQ(done, firstTooLarge / 64 * 64);

    std::vector<double> values(10);
    std::vector<uint8_t> bytes(10);
    const auto open = [&](std::vector<SourceDestBuffer> buffers)
    { return failure([&] { e57::CompressedVectorReader(file, points, std::move(buffers)); }); };
    EXPECT_EQ(open({}), ErrorCode::NoBufferForElement);
    EXPECT_EQ(open({SourceDestBuffer::doubles("cartesianW", values, true)}), ErrorCode::PathUndefined);
    EXPECT_EQ(open({SourceDestBuffer::doubles("cartesianX", values, true),
                    SourceDestBuffer::doubles("cartesianX", values, true)}),
              ErrorCode::BadBuffer);
    EXPECT_EQ(open({SourceDestBuffer::doubles("", values, true)}), ErrorCode::BadBuffer);  // the structure
    EXPECT_EQ(
        open({SourceDestBuffer{"intensity", SourceDestBuffer::Kind::Byte, bytes.data(), 10, false, false}}),
        ErrorCode::BadBuffer);
    EXPECT_EQ(open({SourceDestBuffer{"intensity", SourceDestBuffer::Kind::Double, nullptr, 10, true, true}}),
              ErrorCode::BadBuffer);
    EXPECT_EQ(failure([&] { e57::CompressedVectorReader(file, file.root().at("data3D/0"), {}); }),
              ErrorCode::BadNodeDowncast);
}

// ---------------------------------------------------------------------------------------------------------
// Broken files: each a clear E57Exception

TEST(E57BadInput, HeaderLengthAndXmlProblems)
{
    pcp_test::TempFolder folder;
    const std::filesystem::path path = writeSample(folder, 10);
    const std::vector<uint8_t> good = pcp_sample::readE57Logical(path);
    const std::filesystem::path broken = folder.path() / "broken.e57";
    std::string message;
    const auto opening = [&] { return failure([&] { e57::ImageFile file(broken); }, &message); };
    const auto withHeader = [&](size_t offset, std::vector<uint8_t> bytes)
    {
        std::vector<uint8_t> logical = good;
        std::copy(bytes.begin(), bytes.end(), logical.begin() + static_cast<std::ptrdiff_t>(offset));
        pcp_sample::writeE57Pages(broken, logical);
        return opening();
    };
    EXPECT_EQ(withHeader(0, {'A', 'S', 'T', 'M', '-', 'E', '5', '8'}), ErrorCode::BadFileSignature);
    EXPECT_EQ(withHeader(8, {2, 0, 0, 0}), ErrorCode::UnknownFileVersion);
    EXPECT_EQ(withHeader(8, {0, 0, 0, 0}), ErrorCode::UnknownFileVersion);
    EXPECT_EQ(withHeader(12, {1, 0, 0, 0}), std::nullopt);  // 1.1: minor versions only add to the format
    EXPECT_EQ(withHeader(12, {7, 0, 0, 0}), std::nullopt);
    EXPECT_EQ(withHeader(40, {0, 2, 0, 0}), ErrorCode::BadFileLength);                 // 512-byte pages
    EXPECT_EQ(withHeader(32, {0, 0, 0, 0, 1, 0, 0, 0}), ErrorCode::BadFileLength);     // XML past the end
    EXPECT_EQ(withHeader(24, {0xFE, 3, 0, 0, 0, 0, 0, 0}), ErrorCode::BadFileLength);  // XML in a checksum

    const auto truncated = [&](uintmax_t size)
    {
        std::filesystem::copy_file(path, broken, std::filesystem::copy_options::overwrite_existing);
        std::filesystem::resize_file(broken, size);
        return opening();
    };
    const uintmax_t size = std::filesystem::file_size(path);
    EXPECT_EQ(truncated(size - 10), ErrorCode::BadFileLength);
    EXPECT_NE(message.find("broken.e57"), std::string::npos) << message;
    EXPECT_EQ(truncated(size - 1024), ErrorCode::BadFileLength);
    EXPECT_EQ(truncated(40), ErrorCode::BadFileLength);
    EXPECT_EQ(truncated(4), ErrorCode::BadFileSignature);
    EXPECT_EQ(truncated(0), ErrorCode::BadFileSignature);

    // An XML section that does not parse fails the opening in expat's words.
    std::filesystem::copy_file(path, broken, std::filesystem::copy_options::overwrite_existing);
    editXml(broken, [](std::string xml) { return replaced(xml, "</data3D>", "</data3d>"); });
    EXPECT_EQ(opening(), ErrorCode::XmlParser);
    EXPECT_NE(message.find("mismatched tag"), std::string::npos) << message;
}

TEST(E57BadInput, CorruptDataPageFailsTheReadNotTheOpening)
{
    pcp_test::TempFolder folder;
    const std::filesystem::path path = writeSample(folder, 5000);
    {
        std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(5 * 1024 + 300);
        file.put('\x5A');
    }
    const e57::ImageFile file(path);
    EXPECT_TRUE(failsWith([&] { readAll(file, file.root().at("data3D/0/points"), {"cartesianX"}); },
                          ErrorCode::BadChecksum, {"page 5 of"}));
}

TEST(E57BadInput, CompressedVectorsThatDoNotFit)
{
    pcp_test::TempFolder folder;
    pcp_sample::E57WriteOptions options;
    options.packetBytes = 1000;
    const std::filesystem::path path = writeSample(folder, 500, options);
    const std::filesystem::path broken = folder.path() / "broken.e57";
    std::string message;
    const auto readFails = [&](const std::function<void(const std::filesystem::path&)>& breakIt)
    {
        std::filesystem::copy_file(path, broken, std::filesystem::copy_options::overwrite_existing);
        breakIt(broken);
        return failure(
            [&]
            {
                const e57::ImageFile image(broken);
                readAll(image, image.root().at("data3D/0/points"), {"cartesianX", "colorRed"});
            },
            &message);
    };
    const auto xmlEdit = [](std::string from, std::string to)
    {
        return [=](const std::filesystem::path& p)
        { editXml(p, [&](std::string x) { return replaced(x, from, to); }); };
    };
    const auto patch = [](uint64_t logicalOffset, std::vector<uint8_t> bytes)
    { return [=](const std::filesystem::path& p) { pcp_sample::patchE57File(p, logicalOffset, bytes); }; };
    ASSERT_EQ(readFails([](const std::filesystem::path&) {}), std::nullopt);

    // More records than the section holds: all real records come, then the error.
    EXPECT_EQ(readFails(xmlEdit("\"500\"", "\"501\"")), ErrorCode::BadCVPacket);
    EXPECT_NE(message.find("ends after record 500 of 501"), std::string::npos) << message;

    // The section starts at logical 48; its first data packet at 80. The first bytestream's length says more
    // than the packet holds.
    EXPECT_EQ(readFails(patch(80 + 6, {0xFF, 0x03})), ErrorCode::BadCVPacket);
    EXPECT_NE(message.find("shorter than its bytestreams"), std::string::npos) << message;
    // A packet longer than the section; a packet of an unknown type; a wrong bytestream count.
    EXPECT_EQ(readFails(patch(80 + 2, {0xFF, 0xFF})), ErrorCode::BadCVPacket);
    EXPECT_EQ(readFails(patch(80, {7})), ErrorCode::BadCVPacket);
    EXPECT_EQ(readFails(patch(80 + 4, {3})), ErrorCode::BadCVPacket);
    // Section headers: not a compressed-vector section, longer than the file, data outside the section, a
    // section beyond the end of the file.
    EXPECT_EQ(readFails(patch(48, {0})), ErrorCode::BadCVHeader);
    EXPECT_EQ(readFails(patch(48 + 13, {1})), ErrorCode::BadCVHeader);
    EXPECT_EQ(readFails(patch(48 + 16, {8})), ErrorCode::BadCVHeader);
    EXPECT_EQ(readFails(xmlEdit("fileOffset=\"48\"", "fileOffset=\"999936\"")), ErrorCode::BadCVHeader);
}

TEST(E57BadInput, BlobPastTheEnd)
{
    pcp_test::TempFolder folder;
    E57Image image;
    image.picture.assign(3000, 0x42);
    const std::filesystem::path path = folder.path() / "blob.e57";
    pcp_sample::writeE57File(path, {}, {image});
    editXml(path, [](std::string xml) { return replaced(xml, "length=\"3000\"", "length=\"300000\""); });
    const e57::ImageFile file(path);
    const Node& blob = file.root().at("images2D/0/pinholeRepresentation/jpegImage");
    EXPECT_TRUE(
        failsWith([&] { file.readBlob(blob, uint64_t{1} << 40); }, ErrorCode::ReadFailed, {"past the end"}));
}

// ---------------------------------------------------------------------------------------------------------
// The fuzz targets' kept inputs

// Every input the fuzz targets keep, the ones that once failed among them, must pass their checks here too.
TEST(E57FuzzCorpus, ReplaysPagesXmlAndCompressedVectors)
{
    const auto replay = [](const char* target, const auto& check)
    {
        EXPECT_GE(pcp_test::replayFuzzCorpus(target,
                                             [&](const std::string& bytes, const std::filesystem::path& file)
                                             { EXPECT_EQ(check(bytes), "") << file; }),
                  5u)
            << target;
    };
    const auto bytesOf = [](const std::string& text)
    { return reinterpret_cast<const uint8_t*>(text.data()); };
    replay("e57_pages",
           [&](const std::string& bytes)
           {
               const auto input = pcp_fuzz::E57PagesCase::decode(bytesOf(bytes), bytes.size());
               return input ? pcp_fuzz::checkE57Pages(*input) : std::string();
           });
    replay("e57_xml", [](const std::string& bytes) { return pcp_fuzz::checkE57Xml(bytes); });
    replay("e57_cv",
           [&](const std::string& bytes)
           {
               const auto input = pcp_fuzz::E57CvCase::decode(bytesOf(bytes), bytes.size());
               return input ? pcp_fuzz::checkE57Cv(*input) : std::string();
           });
}
