// The LAZ importer on files from other writers (LASzip, PDAL, LAStools, RiSCAN PRO), on its own LAZS files
// from LazExporter, and on damaged files; the header report; reprojection into a local frame.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "cachefiles/PntFiles.h"
#include "core/ErrorWithReason.h"
#include "core/StringConversion.h"
#include "exporters/LazExporter.h"
#include "importers/Las.h"
#include "importers/LazImporter.h"
#include "scanview/NormalCodes.h"
#include "support/ErrorText.h"
#include "support/FileText.h"
#include "support/LasSamples.h"
#include "support/TempFolder.h"
#include "support/TestData.h"

using namespace pc_preprocess;
using pcp_test::errorText;
using pcp_test::readText;

namespace
{

const ColorMode kLasMode(kRgb16Bit, kIntensity16Bit);

template <typename T>
T at(const std::string& bytes, size_t offset)
{
    T value;
    std::memcpy(&value, bytes.data() + offset, sizeof value);
    return value;
}

template <typename T>
std::string with(std::string bytes, size_t offset, T value)
{
    std::memcpy(bytes.data() + offset, &value, sizeof value);
    return bytes;
}

int32_t coordinate(const IoLightPoint& p, int axis)
{
    return axis == 0 ? p.x : axis == 1 ? p.y : p.z;
}

auto fields(const IoLightPoint& p)
{
    return std::make_tuple(p.x, p.y, p.z, p.r, p.g, p.b, p.intensity, p.classification);
}

// Every point of the file's one scan, as the conversion loop asks for them, with the file's raw integers.
std::vector<IoLightPoint> readAll(Convertor& importer)
{
    IoTransfo unit;
    unit.scale = {1.0, 1.0, 1.0};
    unit.offset = {0.0, 0.0, 0.0};
    const std::array<double, 9> linear = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    const std::array<double, 3> translation = {0, 0, 0};
    const Discretization raw(unit, linear.data(), translation.data());
    importer.openGroup();
    EXPECT_TRUE(importer.canOpenScan(0));
    EXPECT_FALSE(importer.canOpenScan(1));
    std::vector<IoLightPoint> all;
    std::vector<IoLightPoint> batch;
    while (importer.remainScanData())
    {
        importer.processBatch(batch, raw, false);
        EXPECT_LE(batch.size(), Convertor::kBatchSize);
        all.insert(all.end(), batch.begin(), batch.end());
    }
    importer.closeGroup();
    return all;
}

void expectSamePoints(const std::vector<IoLightPoint>& a, const std::vector<IoLightPoint>& b)
{
    ASSERT_EQ(a.size(), b.size());
    for (size_t i = 0; i < a.size(); ++i)
        ASSERT_EQ(fields(a[i]), fields(b[i])) << i;
}

ExportPoint exportPoint(int i)
{
    ExportPoint p;
    p.position = {i * 0.01 - 300.0, std::cos(i * 0.001) * 40.0, 2.0 + (i % 1000) * 0.002};
    p.intensity = static_cast<uint16_t>(i * 3);
    p.r = static_cast<uint16_t>(i);
    p.g = static_cast<uint16_t>(65535 - i);
    p.b = static_cast<uint16_t>(i * 17);
    const uint16_t code = static_cast<uint16_t>((i * 7919) % kNormalCodeCount);
    const uint8_t bytes[2] = {static_cast<uint8_t>(code & 0xFF), static_cast<uint8_t>(code >> 8)};
    p.normal = decodeNormal(bytes);
    return p;
}

IoTransfo lazsGrid()
{
    IoTransfo grid;
    grid.scale = {0.001, 0.002, 0.0005};
    grid.offset = {-100.0, 50.0, 0.0};
    return grid;
}

// A LAZS file of `count` points made by exportPoint, shifted by (1, 2, 3) on the way out.
std::wstring writeLazs(const pcp_test::TempFolder& folder, const std::wstring& name, int count)
{
    const std::wstring path = folder.file(name);
    LazExporter exporter(path, geom::Matrix3d::translation({1, 2, 3}), lazsGrid());
    int next = 0;
    exporter.run(
        [&](std::vector<ExportPoint>& batch)
        {
            for (; next < count && batch.size() < 25000; ++next)
                batch.push_back(exportPoint(next));
            return !batch.empty();
        });
    return path;
}

}  // namespace

TEST(LazImporter, CompressedAndPlainTwinsGiveTheSamePoints)
{
    PCP_REQUIRE_TEST_DATA(laz, "laz/autzen_trim.laz");
    PCP_REQUIRE_TEST_DATA(las, "las/autzen_trim.las");
    LazImporter zipped(toWide(laz), 1.0, kLasMode);
    LazImporter plain(toWide(las), 1.0, kLasMode);
    const std::vector<IoLightPoint> fromLaz = readAll(zipped);
    const std::vector<IoLightPoint> fromLas = readAll(plain);
    EXPECT_TRUE(zipped.isZip());
    EXPECT_FALSE(plain.isZip());
    EXPECT_EQ(fromLaz.size(), 110000u);
    EXPECT_EQ(zipped.workDone(), 110000);
    EXPECT_EQ(zipped.workTotal(), 110000);
    expectSamePoints(fromLaz, fromLas);
    // Format 3 has colour, and not every point is of the same class.
    EXPECT_TRUE(zipped.getSupportedAttributes().color);
    EXPECT_NE(std::adjacent_find(fromLaz.begin(), fromLaz.end(),
                                 [](auto& a, auto& b) { return a.classification != b.classification; }),
              fromLaz.end());

    // The independent LAS reader agrees with LASzip on the plain file.
    Las independent(toWide(las), 1.0, kLasMode);
    expectSamePoints(readAll(independent), fromLas);
}

TEST(LazImporter, ExtendedClassesAreTheirLowFiveBitsAsInLas)
{
    // Format 6 keeps the class in a byte of its own, where classes of 32 and above exist; LASzip's legacy
    // field reads 0 for them.
    pcp_test::TempFolder folder;
    pcp_test::LasLayout f6;
    f6.versionMinor = 4;
    f6.pointFormat = 6;
    const std::wstring path = folder.file(L"f6.las");
    pcp_test::writeBytes(
        toPath(path),
        pcp_test::lasFileBytes(f6, {{1, 2, 3, 9, 40}, {4, 5, 6, 9, 5}, {7, 8, 9, 9, 31}, {1, 1, 1, 9, 255}}));
    LazImporter laz(path, 1.0, kLasMode);
    Las las(path, 1.0, kLasMode);
    const std::vector<IoLightPoint> fromLaz = readAll(laz);
    expectSamePoints(fromLaz, readAll(las));
    ASSERT_EQ(fromLaz.size(), 4u);
    EXPECT_EQ(fromLaz[0].classification, 40 & 31);
    EXPECT_EQ(fromLaz[1].classification, 5);
    EXPECT_EQ(fromLaz[2].classification, 31);
    EXPECT_EQ(fromLaz[3].classification, 31);
}

TEST(LazImporter, RealFilesGiveTheCountsAndBoxesOfTheirHeaders)
{
    PCP_REQUIRE_TEST_DATA(loneStar, "laz/lone-star.laz");
    PCP_REQUIRE_TEST_DATA(simple, "laz/simple.laz");
    for (const std::filesystem::path& file : {loneStar, simple})
    {
        SCOPED_TRACE(file.string());
        const std::string header = readText(file);
        LazImporter importer(toWide(file), 1.0, ColorMode());
        const std::vector<IoLightPoint> points = readAll(importer);
        ASSERT_EQ(points.size(), at<uint32_t>(header, 107));
        for (int axis = 0; axis < 3; ++axis)
        {
            const auto [low, high] = std::minmax_element(
                points.begin(), points.end(),
                [axis](auto& a, auto& b) { return coordinate(a, axis) < coordinate(b, axis); });
            const auto real = [&](const IoLightPoint& p) {
                return coordinate(p, axis) * at<double>(header, 131 + 8 * axis) +
                       at<double>(header, 155 + 8 * axis);
            };
            // Inside the header's box and within 5 mm of it: RiSCAN PRO rounds its box outward.
            const double headerMax = at<double>(header, 179 + 16 * axis);
            const double headerMin = at<double>(header, 187 + 16 * axis);
            EXPECT_TRUE(real(*low) >= headerMin - 1e-9 && real(*low) - headerMin < 0.005) << real(*low);
            EXPECT_TRUE(real(*high) <= headerMax + 1e-9 && headerMax - real(*high) < 0.005) << real(*high);
        }
        EXPECT_FALSE(importer.validTandSize()) << "radii of a file that is not LAZS are no distances";
    }

    // lone-star.laz has point format 1, without colour: the intensity stands in, and the run's colour mode
    // says so, although the data's mode stays 16-bit colour.
    LazImporter colourless(toWide(loneStar), 1.0, kLasMode);
    const std::vector<IoLightPoint> grey = readAll(colourless);
    EXPECT_EQ(colourless.getColorModeInit(), ColorMode(kRgbFromIntensity, kIntensity16Bit));
    EXPECT_FALSE(colourless.getSupportedAttributes().color);
    EXPECT_TRUE(colourless.getSupportedAttributes().intensity);
    EXPECT_TRUE(std::all_of(grey.begin(), grey.end(),
                            [](auto& p)
                            { return p.r == p.intensity && p.g == p.intensity && p.b == p.intensity; }));
    EXPECT_NE(grey.front().intensity, grey.back().intensity);
}

// A local frame asked for of a file without a coordinate system: the probe keeps the file's own grid and says
// why, and the run converts into that grid.
TEST(LazImporter, ProbeAndRunKeepTheFilesOwnGrid)
{
    PCP_REQUIRE_TEST_DATA(simple, "laz/simple.laz");
    pcp_test::TempFolder folder;
    const std::wstring input = toWide(simple);
    LazImporter prober(input, 1.0, kLasMode);
    prober.requestLocalFrame(TopoDef());
    const ProbeResult probe = prober.probe(0.001, {});
    EXPECT_FALSE(probe.topoDef.valid);
    EXPECT_EQ(probe.transfo.scale, (std::array<double, 3>{0.01, 0.01, 0.01}));
    EXPECT_EQ(probe.transfo.offset, (std::array<double, 3>{0.0, 0.0, 0.0}));
    ASSERT_EQ(prober.getWarnings().size(), 1u);
    EXPECT_EQ(prober.getWarnings()[0],
              L"LAZ warning: " + input + L" has no coordinate system, so its points are read unchanged.");

    const std::wstring cache = toWide(folder.path() / "cache");
    std::filesystem::create_directories(toPath(Convertor::getPointFolder(cache)));
    LazImporter converter(input, 1.0, kLasMode);
    double progress = 0.0;
    converter.run(cache, probe.transfo, false, [&](double p) { progress = p; }, {});
    EXPECT_EQ(progress, 1.0);
    IoTransfo stored;
    std::vector<IoLightPoint> converted;
    readPNT(converter.getScanFiles().at(0).pntFile, stored, converted);
    EXPECT_EQ(stored, probe.transfo);
    LazImporter again(input, 1.0, kLasMode);
    expectSamePoints(converted, readAll(again));
}

TEST(LazsRoundTrip, ExportedPointsComeBackWithTheirNormalCodes)
{
    pcp_test::TempFolder folder;
    constexpr int kCount = 70000;
    const std::wstring path = writeLazs(folder, L"rund-往復.laz", kCount);

    LazImporter importer(path, 1.0, ColorMode());
    importer.openGroup();
    EXPECT_TRUE(importer.lazsFile());
    importer.closeGroup();

    const std::vector<IoLightPoint> points = readAll(importer);
    EXPECT_TRUE(importer.validTandSize());
    ASSERT_EQ(points.size(), size_t(kCount));
    const IoTransfo grid = lazsGrid();
    for (int i = 0; i < kCount; ++i)
    {
        const ExportPoint sent = exportPoint(i);
        const IoLightPoint& got = points[i];
        const double shifted[3] = {sent.position.x + 1, sent.position.y + 2, sent.position.z + 3};
        for (int axis = 0; axis < 3; ++axis)
            ASSERT_EQ(coordinate(got, axis),
                      std::round((shifted[axis] - grid.offset[axis]) / grid.scale[axis]))
                << i << " axis " << axis;
        ASSERT_EQ(std::tie(got.r, got.g, got.b, got.intensity),
                  std::tie(sent.r, sent.g, sent.b, sent.intensity))
            << i;
        ASSERT_EQ(encodeNormal({got.nx, got.ny, got.nz}), encodeNormal(sent.normal)) << i;
        ASSERT_EQ(got.classification, 0);
    }

    // The same file under another generating software is an ordinary LAZ file: no normals, and its radii are
    // no distances once a batch was read.
    std::string bytes = readText(path);
    std::memcpy(bytes.data() + 58, "PDAL", 5);
    const std::wstring foreign = folder.write(L"fremd.laz", bytes);
    LazImporter other(foreign, 1.0, ColorMode());
    other.openGroup();
    EXPECT_FALSE(other.lazsFile());
    EXPECT_TRUE(other.validTandSize());
    other.closeGroup();
    const std::vector<IoLightPoint> plain = readAll(other);
    EXPECT_FALSE(other.validTandSize());
    ASSERT_EQ(plain.size(), size_t(kCount));
    EXPECT_TRUE(
        std::all_of(plain.begin(), plain.end(), [](auto& p) { return p.nx == 0 && p.ny == 0 && p.nz == 0; }));

    // A legacy count of 10 beside an extended count of 20: the larger counts.
    const std::wstring twenty = writeLazs(folder, L"zwanzig.laz", 20);
    LazImporter counted(folder.write(L"zehn.laz", with<uint32_t>(readText(twenty), 107, 10)), 1.0,
                        ColorMode());
    EXPECT_EQ(readAll(counted).size(), 20u);
}

TEST(LazHeaderReport, ExactForLazsAndTheArraysOfRealFiles)
{
    pcp_test::TempFolder folder;
    const std::wstring path = writeLazs(folder, L"bericht.laz", 3);
    const std::string bytes = readText(path);
    std::ostringstream report;
    laszHeader(path, report);
    // clang-format off
    const std::string expected =
        "Header Info For File = " + ws2s(path) + "\n"
        "    File Size = " + std::to_string(bytes.size()) + "\n"
        "    Compressed = true\n"
        "    File Source ID = 0\n"
        "    Global Encoding = 0\n"
        "    Project ID - GUID Data 1 = 0\n"
        "    Project ID - GUID Data 2 = 0\n"
        "    Project ID - GUID Data 3 = 0\n"
        "    Project ID - GUID Data 4 = \"\"\n"
        "    Version Major = 1\n"
        "    Version Minor = 4\n"
        "    System Identifier = \"OTHER\"\n"
        "    Generating Software = \"TANDOREL-XYZIRGBS\"\n"
        "    File Creation Day Of Year = " + std::to_string(at<uint16_t>(bytes, 90)) + "\n"
        "    File Creation Year = " + std::to_string(at<uint16_t>(bytes, 92)) + "\n"
        "    Header Size = 375\n"
        "    Offset To Point Data = 375\n"
        "    Number Of Variable Length Records = 0\n"
        "    Point Data Format = 7\n"
        "    Point Data Record Length = 40\n"
        "    (Legacy) Number Of Point Records = 0\n"
        "    (Legacy) Number Of Points By Return [5] = \n"
        "        0 ; 0 ; 0 ; 0 ; 0 ; \n"
        "    X Scale Factor = 0.001\n"
        "    Y Scale Factor = 0.002\n"
        "    Z Scale Factor = 0.0005\n"
        "    X Offset = -100\n"
        "    Y Offset = 50\n"
        "    Z Offset = 0\n"
        "    Max X = -298.98\n"
        "    Min X = -299\n"
        "    Max Y = 42\n"
        "    Min Y = 41.9999\n"
        "    Max Z = 5.004\n"
        "    Min Z = 5\n"
        "    Start Of Waveform Data Packet Record = 0\n"
        "    Start Of First Extended Variable Length Record = 0\n"
        "    Number Of Extended Variable Length Records = 0\n"
        "    (Extended) Number Of Point Records = 3\n"
        "    (Extended) Number Of Points By Return [15] = \n"
        "        3 ; 0 ; 0 ; 0 ; 0 ; 0 ; 0 ; 0 ; \n"
        "        0 ; 0 ; 0 ; 0 ; 0 ; 0 ; 0 ; \n"
        "    User Data In Header Size = 0\n"
        "    User Data After Header Size = 0\n";
    // clang-format on
    EXPECT_EQ(report.str(), expected);

    // A file with GeoTIFF records: each payload in lines of eight bytes indented by twelve, the ASCII record
    // as text as well, and the WKT they give, which the importer takes too.
    PCP_REQUIRE_TEST_DATA(autzen, "laz/autzen_trim.laz");
    const std::string file = readText(autzen);
    std::string firstLine = "            ";
    for (size_t i = 0; i < 8; ++i)
        firstLine += std::to_string(static_cast<uint8_t>(file[227 + 54 + i])) + " ; ";
    std::ostringstream geo;
    laszHeader(toWide(autzen), geo);
    const std::string text = geo.str();
    EXPECT_NE(text.find("        Record ID = 34735\n        Record Length After Header = 184\n"),
              std::string::npos);
    EXPECT_NE(text.find("        Data [184] = \n" + firstLine + "\n"), std::string::npos);
    EXPECT_NE(text.find("        Data (ASCII) = \"PROJCS[\"NAD_1983_HARN_Lambert_Conformal_Conic\""),
              std::string::npos);
    LazImporter importer(toWide(autzen), 1.0, kLasMode);
    importer.openGroup();
    ASSERT_FALSE(importer.wkt().empty());
    EXPECT_NE(text.find("\nDerived WKT = " + importer.wkt() + "\n"), std::string::npos);
    EXPECT_EQ(importer.headerStr(), text);
}

TEST(LazImporter, BrokenFilesFailWithClearMessages)
{
    PCP_REQUIRE_TEST_DATA(autzen, "laz/autzen_trim.laz");
    pcp_test::TempFolder folder;
    const std::string good = readText(autzen);
    const uint32_t pointData = at<uint32_t>(good, 96);
    const int64_t table = at<int64_t>(good, pointData);
    // The message as the log shows it: the fixed text, and the reason on a line of its own.
    const auto firstBatchError = [&](const std::string& bytes, const std::wstring& name)
    {
        LazImporter importer(folder.write(name, bytes), 1.0, kLasMode);
        try
        {
            readAll(importer);
        }
        catch (const std::exception& e)
        {
            return logText(e);
        }
        return std::string("(no exception)");
    };

    const std::string atFirst = "LAZ error: Fail to read point 0 of 110000!\n\tThe file is damaged: ";
    const std::string opening = "LAZ error: Could not create reader stream.";
    const std::string truncated =
        " before its chunk table, which would start at byte " + std::to_string(table) + ": it is truncated.";
    // Cut in the middle of a chunk, inside the count of the chunk table, inside the offset of the table:
    // LASzip would write through a null pointer at the first point of the last two.
    EXPECT_EQ(firstBatchError(good.substr(0, 300000), L"cut.laz"),
              atFirst + "the file ends at byte 300000" + truncated);
    EXPECT_EQ(firstBatchError(good.substr(0, static_cast<size_t>(table) + 6), L"cut-table.laz"),
              atFirst + "the file ends at byte " + std::to_string(table + 6) + truncated);
    EXPECT_EQ(firstBatchError(good.substr(0, pointData + 2), L"cut-offset.laz"),
              atFirst + "the file ends at byte " + std::to_string(pointData + 2) +
                  ", inside the 8 bytes that begin its point data.");

    // Header counts larger than the points: LASzip would go on decoding the chunk table as points, or write
    // past the end of its own table.
    EXPECT_EQ(firstBatchError(with<uint32_t>(good, 107, 110100), L"more.laz"),
              "LAZ error: Fail to read point 110000 of 110100!\n\tThe point data end at byte " +
                  std::to_string(table) + ": the header counts more points than the file holds.");
    EXPECT_EQ(
        firstBatchError(with<uint32_t>(good, static_cast<size_t>(table) + 4, 1), L"fewer.laz"),
        "LAZ error: Fail to read point 50000 of 110000!\n\tIts chunk table covers 50000 points: the header "
        "counts more points than the file holds.");
    EXPECT_EQ(firstBatchError(with<uint32_t>(good, 107, 0), L"none.laz"),
              "LAZ error: Header does not specify (extended) number of point records.");

    std::mt19937 random(11);
    std::string noise(5000, '\0');
    for (char& c : noise)
        c = static_cast<char>(random());
    EXPECT_EQ(firstBatchError(noise, L"noise.laz"),
              opening + "\n\tLASzip: wrong file_signature. not a LAS/LAZ file.");
    EXPECT_EQ(firstBatchError("", L"empty.laz").rfind(opening + "\n\tLASzip: ", 0), 0u);
    // The message alone is the fixed text.
    EXPECT_EQ(errorText([&] { LazImporter(folder.write(L"noise.laz", noise), 1.0, kLasMode).openGroup(); }),
              opening);

    // Sizes that LASzip would trust to allocate, to size or to index its tables.
    EXPECT_EQ(
        firstBatchError(with<uint32_t>(good, static_cast<size_t>(table) + 4, 0xFFFFFFFF), L"chunks.laz"),
        atFirst + "its chunk table lists 4294967295 chunks in " + std::to_string(table - pointData - 8) +
            " bytes of point data.");
    EXPECT_EQ(firstBatchError(with<uint32_t>(good, 100, 4000000000u), L"vlrs.laz"),
              opening + "\n\tThe file is damaged: 4000000000 VLRs do not fit into the " +
                  std::to_string(pointData - 227) + " bytes before the point data.");
    EXPECT_EQ(
        firstBatchError(with<uint16_t>(good, 94, 100), L"header.laz"),
        opening + "\n\tThe file is damaged: the header size 100 is below the 227 bytes of its LAS version.");
    EXPECT_EQ(firstBatchError(with<uint32_t>(good, 96, 0xFFFFFF00), L"offset.laz"),
              opening +
                  "\n\tThe file is damaged: the point data would start at byte 4294967040, outside the file "
                  "of " +
                  std::to_string(good.size()) + " bytes after its 227-byte header.");
}

// Damage anywhere in a small file ends in a complete read or an exception, never in a crash or a hang.
TEST(LazImporter, SurvivesRandomDamage)
{
    PCP_REQUIRE_TEST_DATA(simple, "laz/simple.laz");
    pcp_test::TempFolder folder;
    const std::string good = readText(simple);
    std::mt19937 random(3);
    int failures = 0;
    for (int round = 0; round < 300; ++round)
    {
        std::string bytes = good;
        const int flips = 1 + static_cast<int>(random() % 8);
        for (int i = 0; i < flips; ++i)
            bytes[random() % bytes.size()] = static_cast<char>(random());
        if (round % 3 == 0)
            bytes.resize(random() % bytes.size());
        LazImporter importer(folder.write(L"damaged.laz", bytes), 1.0, kLasMode);
        try
        {
            readAll(importer);
        }
        catch (const std::runtime_error&)
        {
            ++failures;
        }
    }
    EXPECT_GT(failures, 0);
}
