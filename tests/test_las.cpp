// The LAS importer and the interpreter of coordinate system VLRs: the file's own grid and its raw integers,
// the header's failures, counts by version and by what the file really holds, colour and class rules, dropped
// points, VLR walking and GeoTIFF keys to WKT. Small files are written by the tests; real files from other
// writers come from the sample folder. Conversions go the way a host drives them: probe, then run into a
// cache folder, then the point file is read back.
#include <gtest/gtest.h>
#include <laszip/laszip_api.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "core/StringConversion.h"
#include "fuzz/LasFuzzCase.h"
#include "importers/Las.h"
#include "importers/las/LaszVlr.h"
#include "support/ErrorText.h"
#include "support/FuzzCorpus.h"
#include "support/ImportRun.h"
#include "support/LasSamples.h"
#include "support/TempFolder.h"
#include "support/TestData.h"

using namespace pc_preprocess;
using pcp_test::errorText;
using pcp_test::LasLayout;
using pcp_test::LasRecord;
using pcp_test::LasVlrRecord;

namespace
{

std::wstring writeLas(const pcp_test::TempFolder& folder, const std::wstring& name, const LasLayout& layout,
                      const std::vector<LasRecord>& records)
{
    const std::wstring path = folder.file(name);
    pcp_test::writeBytes(toPath(path), pcp_test::lasFileBytes(layout, records));
    return path;
}

std::vector<LasRecord> samples(uint64_t count)
{
    std::vector<LasRecord> records;
    for (uint64_t i = 0; i < count; ++i)
        records.push_back(pcp_test::lasSample(i));
    return records;
}

// What a host sees of one input: the probe, then a conversion in the probed grid by a fresh importer, in
// the same colour mode.
pcp_test::ImportRun convert(const pcp_test::TempFolder& folder, const std::wstring& file,
                            ERgbMode rgb = kRgb16Bit, const IoTransfo* grid = nullptr)
{
    const ColorMode mode(rgb, kIntensity16Bit);
    pcp_test::ImportSettings settings;
    settings.runMode = mode;
    if (grid != nullptr)
        settings.grid = *grid;
    return pcp_test::runImport(
        folder, [&](const ColorMode& m) { return std::make_unique<Las>(file, 1.0, m); }, mode, 1.0, settings);
}

std::string probeError(const std::wstring& file, ERgbMode rgb = kRgb16Bit)
{
    return errorText([&] { Las(file, 1.0, ColorMode(rgb, kIntensity16Bit)).probe(1.0, {}); });
}

std::vector<uint8_t> shorts(std::initializer_list<uint16_t> values)
{
    std::vector<uint8_t> bytes;
    for (uint16_t v : values)
        bytes.insert(bytes.end(), {uint8_t(v & 0xFF), uint8_t(v >> 8)});
    return bytes;
}

std::vector<uint8_t> bytesOf(const std::string& text)
{
    return std::vector<uint8_t>(text.begin(), text.end());
}

// GeoTIFF keys of WGS 84 geographic coordinates: model type 2 (geographic), raster type 1, GCS 4326.
const std::vector<uint8_t> kWgs84Keys = shorts({1, 1, 0, 3, 1024, 0, 1, 2, 1025, 0, 1, 1, 2048, 0, 1, 4326});

LasVlrRecord projection(uint16_t id, std::vector<uint8_t> payload)
{
    return LasVlrRecord{"LASF_Projection", id, "", std::move(payload), {}};
}

}  // namespace

TEST(Las, KeepsTheFileGridAndItsRawIntegers)
{
    pcp_test::TempFolder folder;
    LasLayout layout;
    layout.offset = {1000.0, 2000.0, 30.0};
    layout.recordLength = 40;       // six extra bytes per record are passed over
    const uint64_t count = 150000;  // more than two batches and more than the probe looks at
    const std::wstring file = writeLas(folder, L"tile-ä.las", layout, samples(count));

    const pcp_test::ImportRun c = convert(folder, file);
    EXPECT_EQ(c.probe.transfo.scale, (std::array<double, 3>{0.001, 0.001, 0.001}));
    EXPECT_EQ(c.probe.transfo.offset, layout.offset);
    EXPECT_EQ(c.probe.colorMode, ColorMode(kRgb16Bit, kIntensity16Bit));
    EXPECT_TRUE(c.probe.hasClasses);
    EXPECT_TRUE(c.attributes.color);
    EXPECT_TRUE(c.probeWarnings.empty());
    ASSERT_EQ(c.points.size(), count);
    for (uint64_t i = 0; i < count; i += 997)
    {
        const LasRecord s = pcp_test::lasSample(i);
        const IoLightPoint& p = c.points[i];
        ASSERT_TRUE(p.x == s.x && p.y == s.y && p.z == s.z) << i;
        ASSERT_TRUE(p.r == s.r && p.g == s.g && p.b == s.b && p.intensity == s.intensity) << i;
        ASSERT_EQ(p.classification, s.classification) << i;
    }
    EXPECT_EQ(c.meta.extents, ExtentsI32(0, 0, -1500, 19995, 185, 1500));
    EXPECT_EQ(c.workDone, int64_t(count));
    EXPECT_EQ(c.workTotal, int64_t(count));
    ASSERT_FALSE(c.progress.empty());
    EXPECT_DOUBLE_EQ(c.progress.back(), 1.0);
}

TEST(Las, RefusesWhatItCannotReadWithItsReason)
{
    pcp_test::TempFolder folder;
    const std::vector<LasRecord> one = {{1, 2, 3}};
    const auto withHeader = [&](const std::wstring& name, auto change)
    {
        LasLayout layout;
        change(layout);
        return writeLas(folder, name, layout, one);
    };

    const std::wstring random = folder.file(L"random.las");
    std::vector<uint8_t> noise(4000);
    for (size_t i = 0; i < noise.size(); ++i)
        noise[i] = uint8_t(i * 2654435761u >> 13);
    pcp_test::writeBytes(toPath(random), noise);
    EXPECT_EQ(probeError(random), "LAS error: " + ws2s(random) + " is not a valid las file!\n");
    const std::wstring tiny = folder.file(L"tiny.las");
    pcp_test::writeBytes(toPath(tiny), bytesOf("LASF"));
    EXPECT_EQ(probeError(tiny), "LAS error: " + ws2s(tiny) + " is not a valid las file!\n");

    EXPECT_EQ(probeError(withHeader(L"v15.las", [](LasLayout& l) { l.versionMinor = 5; })),
              "LAS error: LAS version 1.5 is not supported!\n");
    EXPECT_EQ(
        probeError(withHeader(L"laz.las", [](LasLayout& l) { l.pointFormat = 131; })),
        "\nLAS error: LAS format 131 is not supported, but indicates LAZ format. Please try renaming the "
        "extension to *.laz!\n");
    EXPECT_EQ(probeError(withHeader(L"f11.las", [](LasLayout& l) { l.pointFormat = 11; })),
              "\nLAS error: LAS format 11 is not supported!\n");
    EXPECT_EQ(probeError(withHeader(L"short.las", [](LasLayout& l) { l.recordLength = 33; })),
              "LAS error: point size specification 33 is too small for format 3!");
    const std::wstring flat = withHeader(L"flat.las", [](LasLayout& l) { l.scale[2] = 0.0; });
    EXPECT_EQ(probeError(flat),
              "LAS error: " + ws2s(flat) + " has a scale factor that is not a positive number!\n");

    EXPECT_EQ(probeError(withHeader(L"good.las", [](LasLayout&) {}), kRgbFromIntensity),
              "LAS error: Color mode should be RGB 16-bit or RGB 8-bit.");
}

TEST(Las, CountsRecordsByVersionAndByWhatTheFileHolds)
{
    pcp_test::TempFolder folder;
    const std::vector<LasRecord> three = samples(3);
    const auto total = [&](const std::wstring& file)
    {
        Las las(file, 1.0, ColorMode(kRgb16Bit, kIntensity16Bit));
        las.probe(1.0, {});
        return las.workTotal();
    };

    // LAS 1.4 counts with 64 bits; a count beyond the file is cut to the records there.
    LasLayout v14;
    v14.versionMinor = 4;
    v14.statedCount = 5'000'000'000;
    v14.statedLegacyCount = 0;
    EXPECT_EQ(total(writeLas(folder, L"v14.las", v14, three)), 3);
    v14.statedCount = 2;
    v14.statedLegacyCount = 3;
    EXPECT_EQ(total(writeLas(folder, L"v14-legacy.las", v14, three)), 2);
    // LAS 1.3 has no count at 247: there lies the first record, whose bytes would make a huge count.
    LasLayout v13;
    v13.versionMinor = 3;
    v13.statedCount = 2;
    std::vector<LasRecord> loud = three;
    loud[0].intensity = 0xFFFF;
    loud[0].classification = 0xFF;
    EXPECT_EQ(total(writeLas(folder, L"v13.las", v13, loud)), 2);

    // A file cut in the middle of a record gives its whole records, and its work total says so.
    std::vector<uint8_t> bytes = pcp_test::lasFileBytes(LasLayout{}, samples(10));
    bytes.resize(bytes.size() - 7);
    const std::wstring cut = folder.file(L"cut.las");
    pcp_test::writeBytes(toPath(cut), bytes);
    const pcp_test::ImportRun c = convert(folder, cut);
    ASSERT_EQ(c.points.size(), 9u);
    EXPECT_EQ(c.points[8].x, pcp_test::lasSample(8).x);
    EXPECT_EQ(c.workTotal, 9);
    EXPECT_EQ(c.workDone, 9);

    // Point data that would begin beyond the end: no point, and the probe says so.
    bytes = pcp_test::lasHeaderBytes(LasLayout{}, 5);
    bytes[96] = 0xFF;
    bytes[97] = 0xFF;
    const std::wstring beyond = folder.file(L"beyond.las");
    pcp_test::writeBytes(toPath(beyond), bytes);
    const pcp_test::ImportRun none = convert(folder, beyond, kRgb16Bit, &c.probe.transfo);
    EXPECT_TRUE(none.points.empty());
    EXPECT_EQ(none.probeWarnings,
              std::vector<std::wstring>{L"Probe could not find any points in input data"});
    EXPECT_FALSE(none.probe.transfo.isValid());
}

TEST(Las, ColourAndClassRules)
{
    pcp_test::TempFolder folder;
    // Format 0 has no colour: the intensity stands in, and the class is the low 5 bits of a byte with flags.
    LasLayout f0;
    f0.pointFormat = 0;
    const pcp_test::ImportRun grey =
        convert(folder, writeLas(folder, L"f0.las", f0, {{1, 2, 3, 4321, 0xE5}}));
    ASSERT_EQ(grey.points.size(), 1u);
    const IoLightPoint& g = grey.points[0];
    EXPECT_TRUE(g.r == 4321 && g.g == 4321 && g.b == 4321 && g.intensity == 4321);
    EXPECT_EQ(g.classification, 5);
    EXPECT_FALSE(grey.attributes.color);

    // LAS 1.4 formats keep the class in a byte of its own, one further on; still its low 5 bits are taken.
    LasLayout f7;
    f7.versionMinor = 4;
    f7.pointFormat = 7;
    const pcp_test::ImportRun seven =
        convert(folder, writeLas(folder, L"f7.las", f7, {{1, 2, 3, 9, 200, 10, 20, 30}}));
    ASSERT_EQ(seven.points.size(), 1u);
    EXPECT_EQ(seven.points[0].classification, 200 & 31);
    EXPECT_TRUE(seven.points[0].r == 10 && seven.points[0].g == 20 && seven.points[0].b == 30);

    // In 8-bit mode 255 is scaled to 65280, and 256 fails at its point; the probe only measures.
    const std::wstring eight = writeLas(folder, L"eight.las", LasLayout{}, {{0, 0, 0, 0, 0, 255, 1, 0}});
    const pcp_test::ImportRun scaled = convert(folder, eight, kRgb8Bit);
    ASSERT_EQ(scaled.points.size(), 1u);
    EXPECT_TRUE(scaled.points[0].r == 65280 && scaled.points[0].g == 256 && scaled.points[0].b == 0);
    const std::wstring wide = writeLas(folder, L"wide.las", LasLayout{},
                                       {{0, 0, 0, 0, 0, 255, 255, 255}, {1, 1, 1, 0, 0, 0, 256, 0}});
    EXPECT_EQ(errorText([&] { convert(folder, wide, kRgb8Bit); }),
              "LAZ error: Expected r, g & b in range [0, 255] based on first 131072 valid points.");
    EXPECT_EQ(convert(folder, wide, kRgb16Bit).points.size(), 2u);
}

TEST(Las, DropsPointsOffTheGridAndStillEnds)
{
    pcp_test::TempFolder folder;
    // The ends of the 32-bit range are reserved; the points around them stay, each once.
    const std::vector<LasRecord> mixed = {{5, 5, 5},         {INT32_MAX, 0, 0},     {6, 6, 6},
                                          {0, INT32_MIN, 0}, {0, 0, INT32_MIN + 1}, {7, 7, INT32_MAX - 1}};
    const pcp_test::ImportRun c = convert(folder, writeLas(folder, L"mixed.las", LasLayout{}, mixed));
    ASSERT_EQ(c.points.size(), 4u);
    EXPECT_EQ(c.points[1].x, 6);
    EXPECT_EQ(c.points[3].z, INT32_MAX - 1);
    EXPECT_EQ(c.meta.extents, ExtentsI32(0, 0, INT32_MIN + 1, 7, 7, INT32_MAX - 1));
    EXPECT_EQ(c.workDone, 6);

    // More than a batch of nothing but such points: the probe, on its coarse grid, sees them, but in the
    // file's own grid every one is dropped, and the conversion ends all the same.
    const std::wstring off =
        writeLas(folder, L"off.las", LasLayout{}, std::vector<LasRecord>(70000, {INT32_MAX, 0, 0}));
    const pcp_test::ImportRun empty = convert(folder, off);
    EXPECT_TRUE(empty.probe.transfo.isValid());
    EXPECT_TRUE(empty.points.empty());
    EXPECT_EQ(empty.workDone, 70000);
    EXPECT_EQ(empty.meta.extents, ExtentsI32(0, 0, 0, 0, 0, 0));  // no point widened it: stored as all zeros

    // Positions computed into a grid that cannot hold them are dropped in the same way.
    IoTransfo fine = c.probe.transfo;
    fine.scale = {1e-9, 1e-9, 1e-9};
    const pcp_test::ImportRun far = convert(
        folder, writeLas(folder, L"far.las", LasLayout{}, {{1, 1, 1}, {3000, 0, 0}}), kRgb16Bit, &fine);
    ASSERT_EQ(far.points.size(), 1u);
    EXPECT_EQ(far.points[0].x, 1000000);
}

TEST(Las, ReadsTheCoordinateSystemFromItsVlrs)
{
    pcp_test::TempFolder folder;
    const std::string text = "PROJCS[\"Local\",GEOGCS[\"WGS 84\"]]";
    std::vector<uint8_t> padded = bytesOf(text);
    padded.resize(padded.size() + 10, 0);

    // The WKT encoding skips the GeoTIFF records unread (this one would fail as a key directory) and strips
    // the zeros that pad the text.
    LasLayout wkt;
    wkt.versionMinor = 4;
    wkt.globalEncoding = 16;
    wkt.vlrs = {{"LASF_Spec", 4, "extra bytes", std::vector<uint8_t>(192, 1), {}},
                projection(LaszVlr::kGeoKeyDirectory, std::vector<uint8_t>(7, 0)),
                projection(LaszVlr::kCoordinateSystemWkt, padded)};
    EXPECT_EQ(convert(folder, writeLas(folder, L"wkt.las", wkt, samples(2))).wkt, text);

    LasLayout keys;
    keys.vlrs = {projection(LaszVlr::kGeoKeyDirectory, kWgs84Keys),
                 projection(LaszVlr::kGeoAsciiParams, bytesOf("WGS 84|"))};

    // A VLR header that ends with the file is fine when its payload is empty; one byte more is not there.
    LasLayout atEnd;
    atEnd.vlrs = {{"Someone", 1, "", {}, {}}};
    const pcp_test::ImportRun end = convert(folder, writeLas(folder, L"at-end.las", atEnd, {}));
    EXPECT_TRUE(end.points.empty() && end.wkt.empty());
    atEnd.vlrs[0].statedLength = 1;
    const std::string beyond = "\nLAS error: VLR extends beyond file size.\n";
    EXPECT_EQ(probeError(writeLas(folder, L"past-end.las", atEnd, {})), beyond);
    // A VLR count that lies runs into the points and then past the end.
    keys.statedVlrCount = 50;
    EXPECT_EQ(probeError(writeLas(folder, L"many.las", keys, samples(3))), beyond);
    // A record of the right id but a broken shape betrays a broken file.
    keys.statedVlrCount.reset();
    keys.vlrs.push_back(projection(LaszVlr::kGeoDoubleParams, std::vector<uint8_t>(12, 0)));
    EXPECT_EQ(probeError(writeLas(folder, L"doubles.las", keys, samples(1))),
              "LaszVlr::parseRecord: record length not compatible with GEOTIFF DOUBLE.\n");
}

TEST(LaszVlr, TakesOnlyWellShapedCoordinateSystemRecords)
{
    const auto header = [](const std::string& userId, uint16_t id, size_t length)
    {
        std::vector<uint8_t> bytes = pcp_test::lasVlrBytes({userId, id, "", {}, uint16_t(length)});
        bytes.resize(LaszVlr::kHeaderSize);
        return bytes;
    };
    LaszVlr wkt(LaszVlr::kWktEncodingBit);
    EXPECT_EQ(errorText([&] { wkt.parseHeader(std::vector<uint8_t>(53)); }),
              "LaszVlr::parseHeader: dataSize != 54.\n");
    EXPECT_FALSE(wkt.parseHeader(header("LASF_Projection2", 2112, 8)).first);
    EXPECT_EQ(errorText([&] { wkt.parseRecord(std::vector<uint8_t>(8).data(), 8); }),
              "LaszVlr::parseRecord: record not interpretable:\n" + wkt.printHeader());
    EXPECT_EQ(wkt.parseHeader(header("LASF_Projection", 2111, 3)), std::make_pair(true, uint16_t(3)));
    EXPECT_EQ(errorText([&] { wkt.parseRecord(bytesOf("GEOGCS[]").data(), 8); }),
              "LaszVlr::parseRecord: dataSize != m_recordLength.\n");
    wkt.parseRecord(bytesOf("abc").data(), 3);
    EXPECT_EQ(errorText([&] { wkt.parseRecord(bytesOf("abc").data(), 3); }),
              "LaszVlr::parseRecord: WKT already copied.\n");

    // The GeoTIFF records come once each, in whole values; what LASzip hands over goes the same way, and a
    // record of the other encoding is passed over.
    LaszVlr keys(0);
    const auto feed = [&](uint16_t id, const std::vector<uint8_t>& payload)
    {
        laszip_vlr record{};
        std::memcpy(record.user_id, "LASF_Projection", 16);
        record.record_id = id;
        record.record_length_after_header = uint16_t(payload.size());
        record.data = const_cast<uint8_t*>(payload.data());
        keys.parseRecord(record);
    };
    EXPECT_EQ(errorText([&] { feed(2112, bytesOf("GEOGCS[]")); }), "(no exception)");
    EXPECT_EQ(errorText([&] { feed(LaszVlr::kGeoKeyDirectory, std::vector<uint8_t>(7)); }),
              "LaszVlr::parseRecord: record length not compatible with GEOTIFF KEY DIR.\n");
    feed(LaszVlr::kGeoKeyDirectory, kWgs84Keys);
    EXPECT_TRUE(keys.getWKT().empty());  // the ASCII record is still missing
    EXPECT_EQ(errorText([&] { feed(LaszVlr::kGeoKeyDirectory, kWgs84Keys); }),
              "LaszVlr::parseRecord: record GEOTIFF KEY DIR already copied.\n");
    feed(LaszVlr::kGeoAsciiParams, bytesOf("WGS 84|"));
    EXPECT_NE(keys.getWKT().find("GEOGCS[\"WGS 84\""), std::string::npos) << keys.getWKT();

    // What the libraries make of keys that name nothing usable counts as no coordinate system.
    LaszVlr useless(LaszVlr::kWktEncodingBit);
    const std::string fake = "VERT_CS[\"Fake_Geoid_WrNull.gdf\"],irretrievable";
    useless.parseHeader(header("LASF_Projection", 2112, fake.size()));
    useless.parseRecord(bytesOf(fake).data(), fake.size());
    EXPECT_EQ(useless.getWKT(), "");
}

TEST(LaszVlr, ConvertsGeoTiffKeysQuietly)
{
    using lasz_vlr::convertGEOTIFFtoWKT;
    EXPECT_EQ(errorText([] { convertGEOTIFFtoWKT({}, {}, {}); }),
              "convertGEOTIFFtoWKT: Empty geotiffKeyDir.\n");
    EXPECT_EQ(errorText([] { convertGEOTIFFtoWKT(std::vector<uint8_t>(12), {}, {}); }),
              "convertGEOTIFFtoWKT: Incorrect size of geotiffKeyDir.\n");
    EXPECT_EQ(errorText([] { convertGEOTIFFtoWKT(kWgs84Keys, std::vector<uint8_t>(4), {}); }),
              "convertGEOTIFFtoWKT: Incorrect size of geotiffDouble.\n");

    // A projected system by its EPSG code, without any ASCII.
    const std::string utm =
        convertGEOTIFFtoWKT(shorts({1, 1, 0, 2, 1024, 0, 1, 1, 3072, 0, 1, 32633}), {}, {});
    EXPECT_NE(utm.find("UTM zone 33N"), std::string::npos) << utm;

    // Keys that cannot be read give no text and leave the terminal alone: more keys than the directory holds,
    // values beyond the tags, an ASCII key without ASCII, codes that exist nowhere.
    testing::internal::CaptureStderr();
    EXPECT_EQ(convertGEOTIFFtoWKT(shorts({1, 1, 0, 9, 1024, 0, 1, 2}), {}, {}), "");
    EXPECT_EQ(convertGEOTIFFtoWKT(shorts({1, 1, 0, 1, 2048, 34736, 4, 3}), std::vector<uint8_t>(8), {}), "");
    EXPECT_EQ(convertGEOTIFFtoWKT(shorts({1, 1, 0, 1, 1026, 34737, 10, 0}), {}, {}), "");
    EXPECT_EQ(errorText(
                  [] {
                      convertGEOTIFFtoWKT(shorts({1, 1, 0, 1, 3072, 0, 1, 65000}), {}, bytesOf("x"));
                  }),
              "(no exception)");
    EXPECT_EQ(convertGEOTIFFtoWKT(std::vector<uint8_t>(8 * 600, 0xFF), {}, {}), "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

namespace
{

// A file written by another tool: count and box as its header states them, colour where the format has it,
// and the coordinate system it carries (a text that the WKT must contain; empty for none).
void checkSampleFile(const char* name, bool colour, const std::string& wktMark)
{
    SCOPED_TRACE(name);
    PCP_REQUIRE_TEST_DATA(path, name);
    // The header's own word on count, grid and box, read here byte by byte.
    std::vector<uint8_t> head(256);
    std::ifstream(path, std::ios::binary).read(reinterpret_cast<char*>(head.data()), 256);
    const auto field = [&](size_t offset, auto value)
    {
        std::memcpy(&value, head.data() + offset, sizeof value);
        return value;
    };
    const uint64_t count = head[25] >= 4 ? field(247, uint64_t()) : field(107, uint32_t());

    pcp_test::TempFolder folder;
    const pcp_test::ImportRun c = convert(folder, toWide(path));
    ASSERT_EQ(c.points.size(), count);
    EXPECT_EQ(c.workTotal, int64_t(count));
    EXPECT_EQ(c.attributes.color, colour);
    const int32_t lows[3] = {c.meta.extents.minX(), c.meta.extents.minY(), c.meta.extents.minZ()};
    const int32_t highs[3] = {c.meta.extents.maxX(), c.meta.extents.maxY(), c.meta.extents.maxZ()};
    for (int axis = 0; axis < 3; ++axis)
    {
        const double scale = field(131 + 8 * axis, double());
        const double offset = field(155 + 8 * axis, double());
        EXPECT_EQ(c.probe.transfo.scale[axis], scale);
        EXPECT_EQ(c.probe.transfo.offset[axis], offset);
        EXPECT_NEAR(highs[axis] * scale + offset, field(179 + 16 * axis, double()), scale / 2) << axis;
        EXPECT_NEAR(lows[axis] * scale + offset, field(187 + 16 * axis, double()), scale / 2) << axis;
    }
    if (wktMark.empty())
    {
        EXPECT_EQ(c.wkt, "");
    }
    else
    {
        EXPECT_NE(c.wkt.find(wktMark), std::string::npos) << c.wkt;
    }
    if (!colour)
    {
        EXPECT_TRUE(c.points[0].r == c.points[0].intensity && c.points[0].b == c.points[0].intensity);
    }
}

}  // namespace

TEST(Las, ReadsFilesOfOtherWriters)
{
    checkSampleFile("las/autzen_trim.las", true, "NAD_1983_HARN_Lambert_Conformal_Conic");
    checkSampleFile("las/autzen_trim_7.las", true, "PROJCS[\"NAD_1983_HARN_Lambert_Conformal_Conic\"");
    checkSampleFile("las/epsg_4326.las", false, "GEOGCS[\"WGS 84\"");
    checkSampleFile("las/extrabytes.las", true, "");
    checkSampleFile("las/lots_of_vlr.las", false, "");
}

// Every input the fuzz target keeps, the ones that once failed among them, must pass its checks here too.
TEST(Las, ReplaysTheFuzzCorpus)
{
    pcp_test::TempFolder folder;
    const std::wstring cache = toWide(folder.path() / "cache");
    std::filesystem::create_directories(toPath(Convertor::getPointFolder(cache)));
    const size_t replayed = pcp_test::replayFuzzCorpus(
        "las",
        [&](const std::string& bytes, const std::filesystem::path& file)
        {
            const std::vector<uint8_t> data(bytes.begin(), bytes.end());
            EXPECT_EQ(pcp_fuzz::checkHeader(data), "") << file;
            EXPECT_EQ(pcp_fuzz::checkVlrChain(data), "") << file;
            EXPECT_EQ(pcp_fuzz::checkImport(data, folder.file(L"fuzz.las"), cache), "") << file;
        });
    EXPECT_GE(replayed, 5u);
}
