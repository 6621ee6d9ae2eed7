// The E57 importer: real files of other writers and files of our own test writer, converted the way a host
// drives an importer (probe, then run into a cache folder), the point files read back; the header report;
// and how the reader's failures reach the user.
#include <gtest/gtest.h>

#include <zlib.h>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>

#include <algorithm>
#include <array>
#include <cmath>
#include <filesystem>
#include <numbers>
#include <sstream>
#include <string>
#include <vector>

#include "cachefiles/MetaFile.h"
#include "cachefiles/PntFiles.h"
#include "core/ImporterFactory.h"
#include "core/NodePaths.h"
#include "core/StringConversion.h"
#include "importers/E57.h"
#include "sample/E57Writer.h"
#include "support/ErrorText.h"
#include "support/FileText.h"
#include "support/ImportRun.h"
#include "support/TempFolder.h"
#include "support/TestData.h"

using namespace pc_preprocess;
using pcp_test::errorText;

namespace
{

constexpr double kStep = 0.0001;
const ColorMode kE57Mode(kRgb16Bit, kIntensity16Bit);

// What a host does: probe with one importer, convert with a fresh one in the probed grid.
pcp_test::ImportRun convert(const pcp_test::TempFolder& folder, const std::wstring& file,
                            bool withViews = false)
{
    pcp_test::ImportSettings settings;
    settings.makeViews = withViews;
    return pcp_test::runImport(
        folder, [&](const ColorMode& mode) { return std::make_unique<E57>(file, 1.0, mode); }, kE57Mode,
        kStep, settings);
}

uint64_t skipped(const pcp_test::ImportRun& run)
{
    return static_cast<const E57&>(*run.converter).pointsSkipped();
}

// The first batch of a scan as an importer delivers it, with the normals and classes that the point files
// keep beside the points.
std::vector<IoLightPoint> firstBatch(const std::filesystem::path& file, size_t scan, const IoTransfo& transfo,
                                     bool& normalsAndClasses)
{
    E57 importer(toWide(file), 1.0, kE57Mode);
    importer.openGroup();
    std::vector<IoLightPoint> batch;
    if (!importer.canOpenScan(scan))
        return batch;
    normalsAndClasses = importer.hasNormals() && importer.hasClasses();
    importer.processBatch(batch,
                          Discretization(transfo, std::array<double, 9>{1, 0, 0, 0, 1, 0, 0, 0, 1}.data(),
                                         std::array<double, 3>{0, 0, 0}.data()),
                          false);
    return batch;
}

std::string e57Error(const std::filesystem::path& file, const std::string& text)
{
    return "E57 error: Could not parse " + file.string() + "\n\t" + text;
}

}  // namespace

// The reader's tests show the float and the double cube hold the same points: one of them is enough here.
TEST(E57, ColouredCubeOfAnotherWriterConvertsWithItsLimits)
{
    PCP_REQUIRE_TEST_DATA(file, "e57/ColouredCubeFloat.e57");
    pcp_test::TempFolder folder;
    const pcp_test::ImportRun c = convert(folder, toWide(file));
    EXPECT_EQ(c.probe.colorMode, kE57Mode);
    ASSERT_EQ(c.scans.size(), 1u);
    EXPECT_EQ(c.scans[0].size(), 7680u);
    EXPECT_TRUE(c.warnings.empty());
    EXPECT_TRUE(c.attributes.color);
    EXPECT_FALSE(c.attributes.scanId);
    // Colour limits 0 to 255: each channel lands on a multiple of 257 on the 16-bit scale.
    bool someColour = false;
    for (const IoLightPoint& p : c.scans[0])
    {
        ASSERT_EQ(p.r % 257, 0) << p.r;
        ASSERT_EQ(p.g % 257, 0) << p.g;
        ASSERT_EQ(p.b % 257, 0) << p.b;
        someColour = someColour || p.r != 0 || p.g != 0 || p.b != 0;
    }
    EXPECT_TRUE(someColour);
}

TEST(E57, ScaledIntegerBunnyAndFilesWithoutPoints)
{
    {
        PCP_REQUIRE_TEST_DATA(file, "e57/bunnyInt32.e57");
        pcp_test::TempFolder folder;
        const pcp_test::ImportRun c = convert(folder, toWide(file));
        ASSERT_EQ(c.scans.size(), 1u);
        EXPECT_EQ(c.scans[0].size() + skipped(c), 30571u);
        EXPECT_GT(c.scans[0].size(), 30000u);
        // The bunny is some 15 cm across, in metres: the scaled integers were scaled.
        ExtentsI32 box;
        for (const IoLightPoint& p : c.scans[0])
            box.extend(p);
        const double size =
            std::max({box.maxX() - box.minX(), box.maxY() - box.minY(), box.maxZ() - box.minZ()}) * kStep;
        EXPECT_GT(size, 0.05);
        EXPECT_LT(size, 0.5);
    }
    {
        PCP_REQUIRE_TEST_DATA(file, "e57/empty.e57");
        E57 importer(toWide(file), 1.0, kE57Mode);
        importer.openGroup();
        EXPECT_EQ(importer.nrScans(), 0u);
        EXPECT_FALSE(importer.canOpenScan(0));
    }
    {
        PCP_REQUIRE_TEST_DATA(file, "e57/ZeroPoints.e57");
        E57 importer(toWide(file), 1.0, kE57Mode);
        importer.openGroup();
        ASSERT_TRUE(importer.canOpenScan(0));
        EXPECT_FALSE(importer.remainScanData());
        EXPECT_EQ(importer.nrPointsThisScan(), 1u);
    }
}

TEST(E57, ReaderFailuresReachTheUserWithTheirCode)
{
    {
        // An opening that fails carries the importer's prefix and the path like every other failure.
        PCP_REQUIRE_TEST_DATA(file, "e57/bad-crc.e57");
        const std::string text = errorText([&] { E57(toWide(file), 1.0, kE57Mode).probe(kStep, {}); });
        EXPECT_EQ(text.find(e57Error(
                      file, "Could not open file " + file.string() + "\nE57_ERROR_BAD_CHECKSUM: \n")),
                  0u)
            << text;
    }
    {
        PCP_REQUIRE_TEST_DATA(file, "e57/InvalidCVHeader.e57");
        const std::string text = errorText([&] { E57(toWide(file), 1.0, kE57Mode).probe(kStep, {}); });
        EXPECT_EQ(text.find(e57Error(file, "")), 0u) << text;
        EXPECT_NE(text.find("occured in "), std::string::npos) << text;
    }
    EXPECT_EQ(errorText([] { E57(L"/nonexistent.e57", 1.0, kE57Mode); }),
              "CONVERTOR error: /nonexistent.e57 is not an existing file.");
    PCP_REQUIRE_TEST_DATA(cube, "e57/ColouredCubeFloat.e57");
    EXPECT_EQ(errorText([&] { E57(toWide(cube), 1.0, ColorMode(kRgb8Bit, kIntensity16Bit)); }),
              "E57 error: RGB and Intensity mode should be 16-bit.");
}

TEST(E57, HeaderReportShowsTheTree)
{
    PCP_REQUIRE_TEST_DATA(file, "e57/PinholeImageWithDistortionParameters.e57");
    std::ostringstream report;
    e57Header(toWide(file), report);
    const std::string text = report.str();
    EXPECT_EQ(text.find("Header Info For File = " + file.string() + "\n    File Size = 6144\n"), 0u) << text;
    EXPECT_NE(text.find("formatName : String = \"ASTM E57 3D Imaging Data File\""), std::string::npos)
        << text;
    EXPECT_NE(text.find("images2D : Vector with 3 children"), std::string::npos) << text;
    EXPECT_NE(text.find("pinholeRepresentation : Structure with"), std::string::npos) << text;
    EXPECT_NE(text.find(" : Blob with "), std::string::npos) << text;
}

namespace
{

// A quarter turn about the vertical: (x, y, z) becomes (-y, x, z).
pcp_sample::E57Pose quarterTurnTo(std::array<double, 3> translation)
{
    pcp_sample::E57Pose pose;
    pose.rotation = {std::sqrt(0.5), 0.0, 0.0, std::sqrt(0.5)};
    pose.translation = translation;
    return pose;
}

// The cache integers of a world position.
std::array<int32_t, 3> cacheCell(const IoTransfo& t, double x, double y, double z)
{
    return {int32_t(std::lround((x - t.offset[0]) / t.scale[0])),
            int32_t(std::lround((y - t.offset[1]) / t.scale[1])),
            int32_t(std::lround((z - t.offset[2]) / t.scale[2]))};
}

std::array<int32_t, 3> cellOf(const IoLightPoint& p)
{
    return {p.x, p.y, p.z};
}

}  // namespace

TEST(E57, ScansLandThroughTheirOwnPosesWithNormalsAndClasses)
{
    pcp_test::TempFolder folder;
    pcp_sample::E57Scan plain;
    plain.coordinateStorage = pcp_sample::E57Storage::Double;
    plain.points.coordinates = {{{1.0, 2.5, -3.25}, {0.5, 0.0, 4.0}, {2.0, 2.0, 2.0}}};
    plain.points.intensity = {0.0, 0.5, 1.0};
    pcp_sample::E57Scan turned = plain;
    turned.coordinateStorage = pcp_sample::E57Storage::Float;
    turned.pose = quarterTurnTo({10.0, 20.0, 1.5});
    turned.points.normals = {{{0.0, 1.0, 0.6}, {1.0, 0.0, 0.8}, {0.0, 0.0, 0.0}}};
    turned.points.classification = {2, 6, 7};
    const std::filesystem::path file = folder.path() / "zwei Scans.e57";
    pcp_sample::writeE57File(file, {plain, turned});

    const pcp_test::ImportRun c = convert(folder, toWide(file));
    ASSERT_EQ(c.scans.size(), 2u);
    ASSERT_EQ(c.scans[0].size(), 3u);
    ASSERT_EQ(c.scans[1].size(), 3u);
    const IoTransfo& t = c.probe.transfo;
    const auto& xyz = plain.points.coordinates;
    for (size_t i = 0; i < 3; ++i)
    {
        EXPECT_EQ(cellOf(c.scans[0][i]), cacheCell(t, xyz[0][i], xyz[1][i], xyz[2][i])) << i;
        EXPECT_EQ(cellOf(c.scans[1][i]), cacheCell(t, 10.0 - xyz[1][i], 20.0 + xyz[0][i], 1.5 + xyz[2][i]))
            << i;
        EXPECT_EQ(c.scans[0][i].scanId, 0);
        EXPECT_EQ(c.scans[1][i].scanId, 1);
        // Intensity limits 0 to 1, and grey without colour.
        const auto grey = static_cast<uint16_t>(plain.points.intensity[i] * 65535.0);
        EXPECT_EQ(c.scans[1][i].intensity, grey);
        EXPECT_EQ(c.scans[1][i].r, grey);
        EXPECT_EQ(c.scans[1][i].b, grey);
    }
    EXPECT_TRUE(c.attributes.scanId);
    EXPECT_TRUE(c.attributes.normals);
    EXPECT_TRUE(c.attributes.classification);

    // The second scan's classes are in their side file; its normals and classes come with its points.
    ASSERT_TRUE(std::filesystem::exists(toPath(getClassPathFromPnt(c.files[1].pntFile))));
    bool normalsAndClasses = false;
    const std::vector<IoLightPoint> batch = firstBatch(file, 1, t, normalsAndClasses);
    EXPECT_TRUE(normalsAndClasses);
    ASSERT_EQ(batch.size(), 3u);
    EXPECT_EQ(batch[0].ny, 1.0f);
    EXPECT_EQ(batch[2].nz, 0.0f);
    EXPECT_EQ(batch[1].classification, 6);
}

TEST(E57, SphericalScaledIntegersSkipInvalidAndOriginRecords)
{
    pcp_test::TempFolder folder;
    pcp_sample::E57Scan scan;
    scan.spherical = true;
    scan.coordinateStorage = pcp_sample::E57Storage::ScaledInteger;
    scan.coordinateScale = 0.0001;
    scan.coordinateLimit = 100.0;
    const double pi = std::numbers::pi;
    // Ranges, azimuths, elevations: a valid point, one with a direction only, an invalid one, a return at
    // the origin flagged valid, and one straight up.
    scan.points.coordinates = {
        {{5.0, 3.0, 7.0, 0.0, 2.0}, {pi / 2, 0.1, 0.2, 0.3, 0.0}, {0.0, 0.0, 0.0, 0.0, pi / 2}}};
    scan.points.invalidState = {0, 1, 2, 0, 0};
    const std::filesystem::path file = folder.path() / "sphärisch.e57";
    pcp_sample::writeE57File(file, {scan});

    const pcp_test::ImportRun c = convert(folder, toWide(file));
    ASSERT_EQ(c.scans.size(), 1u);
    ASSERT_EQ(c.scans[0].size(), 2u);
    EXPECT_EQ(skipped(c), 3u);
    const IoTransfo& t = c.probe.transfo;
    // Stored to 0.1 mm, converted to cartesian; the cache grid is 0.1 mm too.
    const double azimuth = std::round((pi / 2) / 0.0001) * 0.0001;
    const double elevation = std::round((pi / 2) / 0.0001) * 0.0001;
    EXPECT_EQ(cellOf(c.scans[0][0]), cacheCell(t, 5.0 * std::cos(azimuth), 5.0 * std::sin(azimuth), 0.0));
    EXPECT_EQ(cellOf(c.scans[0][1]), cacheCell(t, 2.0 * std::cos(elevation), 0.0, 2.0 * std::sin(elevation)));
}

TEST(E57, TrajectoryBesideOneScanIsNoScanAndPathsMayBeAnyUnicode)
{
    pcp_test::TempFolder folder;
    pcp_sample::E57Scan scan;
    scan.points.coordinates = {{{1.0}, {1.0}, {1.0}}};
    pcp_sample::E57Scan trajectory = scan;
    trajectory.name = "Device Trajectory";
    for (const size_t entries : {2, 3})
    {
        std::vector<pcp_sample::E57Scan> scans = {scan, trajectory};
        if (entries == 3)
            scans.push_back(scan);
        const std::filesystem::path file =
            folder.path() / ("Kirche Zürich 教堂 " + std::to_string(entries) + ".e57");
        pcp_sample::writeE57File(file, scans);
        E57 importer(toWide(file), 1.0, kE57Mode);
        importer.openGroup();
        EXPECT_EQ(importer.nrScans(), entries == 2 ? 1u : 3u);
        EXPECT_EQ(importer.hasScanViews(), entries == 3);
    }
}

namespace
{

// A structured scan from `scanner` of the inside of a sphere of 3 m around it, in red, with the cap below 30
// degrees under the horizon missing as a tripod hides it: those records have an invalid state.
pcp_sample::E57Scan sphereScan(const std::string& guid, std::array<double, 3> scanner)
{
    pcp_sample::E57Scan scan;
    scan.guid = guid;
    scan.spherical = true;
    scan.coordinateStorage = pcp_sample::E57Storage::Float;
    scan.pose = pcp_sample::E57Pose{{1.0, 0.0, 0.0, 0.0}, scanner};
    const int rows = 100, columns = 200;
    for (int row = 0; row < rows; ++row)
        for (int column = 0; column < columns; ++column)
        {
            const double elevation = std::numbers::pi * ((row + 0.5) / rows - 0.5);
            const bool hidden = elevation < -std::numbers::pi / 6;
            scan.points.coordinates[0].push_back(hidden ? 0.0 : 3.0);
            scan.points.coordinates[1].push_back(2.0 * std::numbers::pi * (column + 0.5) / columns -
                                                 std::numbers::pi);
            scan.points.coordinates[2].push_back(elevation);
            scan.points.invalidState.push_back(hidden ? 2 : 0);
            scan.points.rowIndex.push_back(row);
            scan.points.columnIndex.push_back(column);
            for (int c = 0; c < 3; ++c)
                scan.points.color[c].push_back(c == 0 ? 255 : 0);
        }
    scan.rowMaximum = rows - 1;
    scan.columnMaximum = columns - 1;
    return scan;
}

std::vector<uint8_t> plainPicture(int width, int height, const cv::Scalar& bgr, const char* extension)
{
    const cv::Mat image(height, width, CV_8UC3, bgr);
    std::vector<uint8_t> bytes;
    cv::imencode(extension, image, bytes);
    return bytes;
}

pcp_sample::E57Image sphericalImage(const std::string& scanGuid, std::vector<uint8_t> picture, int width,
                                    int height)
{
    pcp_sample::E57Image image;
    image.associatedData3DGuid = scanGuid;
    image.projection = pcp_sample::E57ImageProjection::Spherical;
    image.png = true;
    image.width = width;
    image.height = height;
    image.pixelWidth = 2.0 * std::numbers::pi / width;
    image.pixelHeight = std::numbers::pi / height;
    image.picture = std::move(picture);
    image.pose = pcp_sample::E57Pose{{1.0, 0.0, 0.0, 0.0}, {1.0, 1.0, 1.5}};
    return image;
}

}  // namespace

TEST(E57, CameraImagesAreKeptBesideThePanoramasAndPaintWhatTheLaserLeftEmpty)
{
    pcp_test::TempFolder folder;
    // Scan 0 with a spherical camera all around, in blue; scan 1 with a pinhole camera looking down, in
    // green; an image for no scan, which a file of several scans ignores.
    const pcp_sample::E57Image spherical =
        sphericalImage("scan-a", plainPicture(512, 256, cv::Scalar(255, 0, 0), ".png"), 512, 256);
    pcp_sample::E57Image pinhole;
    pinhole.associatedData3DGuid = "scan-b";
    pinhole.projection = pcp_sample::E57ImageProjection::Pinhole;
    pinhole.width = 256;
    pinhole.height = 256;
    pinhole.pixelWidth = 1e-5;
    pinhole.pixelHeight = 1e-5;
    pinhole.focalLength = 128 * 1e-5 / 1.8;  // the edge of the picture at 61 degrees from the axis
    pinhole.principalPointX = 128;
    pinhole.principalPointY = 128;
    pinhole.picture = plainPicture(256, 256, cv::Scalar(0, 255, 0), ".jpg");
    pinhole.pose = pcp_sample::E57Pose{{1.0, 0.0, 0.0, 0.0}, {6.0, 1.0, 1.5}};
    pcp_sample::E57Image orphan = pinhole;
    orphan.associatedData3DGuid.clear();
    const std::filesystem::path file = folder.path() / "project.e57";
    pcp_sample::writeE57File(file,
                             {sphereScan("scan-a", {1.0, 1.0, 1.5}), sphereScan("scan-b", {6.0, 1.0, 1.5})},
                             {spherical, pinhole, orphan});

    const pcp_test::ImportRun c = convert(folder, toWide(file), true);
    ASSERT_EQ(c.files.size(), 2u);
    const std::filesystem::path images = folder.path() / "cache" / "Bubbles" / "2DImages";
    const auto bytesOf = [](const std::vector<uint8_t>& picture)
    { return std::string(picture.begin(), picture.end()); };
    EXPECT_EQ(pcp_test::readText(images / "project-0000" / "image_0.png"), bytesOf(spherical.picture));
    EXPECT_EQ(pcp_test::readText(images / "project-0001" / "image_1.jpg"), bytesOf(pinhole.picture));
    EXPECT_FALSE(std::filesystem::exists(images / "project-0000" / "image_2.jpg"));
    EXPECT_FALSE(std::filesystem::exists(images / "project-0001" / "image_2.jpg"));

    // Each scan's panorama: the laser's red above, the camera's colour in the cap the tripod hid.
    const cv::Scalar expectedCap[] = {cv::Scalar(65025, 0, 0), cv::Scalar(0, 65025, 0)};
    for (size_t s = 0; s < 2; ++s)
    {
        SCOPED_TRACE(s);
        const MetaData meta = readMetaFile(c.files[s].metaFile);
        EXPECT_NEAR(meta.position[0], s == 0 ? 1.0 : 6.0, 1e-9);
        const cv::Mat view = cv::imread(toPath(c.files[s].viewPng).string(), cv::IMREAD_UNCHANGED);
        ASSERT_FALSE(view.empty());
        const auto top = view.at<cv::Vec4w>(view.rows / 4, view.cols / 3);
        EXPECT_EQ(top[2], 65535);
        EXPECT_EQ(top[1], 0);
        const auto cap = view.at<cv::Vec4w>(view.rows - 3, view.cols / 3);
        for (int channel = 0; channel < 3; ++channel)
            EXPECT_NEAR(cap[channel], expectedCap[s][channel], 3 * 255) << channel;
        ASSERT_EQ(c.files[s].images.size(), 1u);
    }
}

namespace
{

// Replaces every `from` in `text` by `to`.
void replaceAll(std::string& text, const std::string& from, const std::string& to)
{
    for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
        text.replace(at, from.size(), to);
}

pcp_sample::E57Scan scanWithNormals()
{
    pcp_sample::E57Scan scan;
    scan.points.coordinates = {{{1.0, 2.0, 3.0}, {0.5, 0.25, 4.0}, {2.0, 2.0, 2.0}}};
    scan.points.normals = {{{0.0, 1.0, 0.6}, {1.0, 0.0, 0.8}, {0.0, 0.0, 0.0}}};
    scan.points.classification = {2, 6, 7};
    return scan;
}

}  // namespace

// What other writers put into real files: String fields in a record, the normals' namespace bound to a prefix
// of their own, numbers in their own locale or compiler's spelling where nothing reads them, a later minor
// version. Each file reads whole.
TEST(E57, FilesOfOtherWritersReadWhole)
{
    pcp_test::TempFolder folder;
    const auto check =
        [&](const std::string& name, pcp_sample::E57Scan scan, const pcp_sample::E57WriteOptions& options)
    {
        SCOPED_TRACE(name);
        const std::filesystem::path file = folder.path() / (name + ".e57");
        pcp_sample::writeE57File(file, {scan}, {}, options);
        const pcp_test::ImportRun c = convert(folder, toWide(file));
        ASSERT_EQ(c.scans.size(), 1u);
        ASSERT_EQ(c.scans[0].size(), 3u);
        EXPECT_TRUE(c.attributes.normals);
        EXPECT_TRUE(c.attributes.classification);
        for (size_t i = 0; i < 3; ++i)
        {
            EXPECT_EQ(cellOf(c.scans[0][i]),
                      cacheCell(c.probe.transfo, scan.points.coordinates[0][i], scan.points.coordinates[1][i],
                                scan.points.coordinates[2][i]));
            EXPECT_EQ(c.scans[0][i].classification, scan.points.classification[i]);
        }
        bool normalsAndClasses = false;
        const std::vector<IoLightPoint> batch = firstBatch(file, 0, c.probe.transfo, normalsAndClasses);
        EXPECT_TRUE(normalsAndClasses);
        ASSERT_EQ(batch.size(), 3u);
        EXPECT_EQ(batch[0].ny, 1.0f);
        EXPECT_EQ(batch[1].nx, 1.0f);
        EXPECT_EQ(batch[2].ny, 0.8f);
    };

    pcp_sample::E57Scan labelled = scanWithNormals();
    labelled.points.labels = {"first", std::string(300, 'c'), ""};
    check("labels", labelled, {});

    pcp_sample::E57WriteOptions foreignPrefix;
    foreignPrefix.editXml = [](std::string& xml)
    {
        replaceAll(xml, "xmlns:nor=", "xmlns:sn=");
        replaceAll(xml, "nor:normal", "sn:normal");
        replaceAll(xml, "xmlns:class=", "xmlns:c=");
        replaceAll(xml, "class:classification", "c:classification");
    };
    check("foreign prefix", scanWithNormals(), foreignPrefix);

    pcp_sample::E57WriteOptions oddNumbers;
    oddNumbers.editXml = [](std::string& xml)
    {
        replaceAll(xml, "<name type=\"String\">",
                   "<temperature type=\"Float\">1.#INF</temperature>"
                   "<relativeHumidity type=\"Float\">-nan(ind)</relativeHumidity>"
                   "<atmosphericPressure type=\"Float\" minimum=\"1,5\">101325</atmosphericPressure>"
                   "<name type=\"String\">");
        replaceAll(xml, "<e57LibraryVersion",
                   "<sensorCount type=\"Integer\">1,5</sensorCount><e57LibraryVersion");
    };
    pcp_sample::E57Scan named = scanWithNormals();
    named.name = "Station 1";
    check("odd numbers", named, oddNumbers);
    std::ostringstream report;
    e57Header(toWide(folder.path() / "odd numbers.e57"), report);
    EXPECT_NE(
        report.str().find("temperature : Float in range [-1.79769e+308 : 1.79769e+308] = 0 (not a number: "
                          "value \"1.#INF\")\n"),
        std::string::npos)
        << report.str();

    pcp_sample::E57WriteOptions minorVersion;
    minorVersion.versionMinor = 1;
    check("version 1.1", scanWithNormals(), minorVersion);
}

TEST(E57, NeededNumbersAndOtherMajorVersionsFailWithTheirPlace)
{
    pcp_test::TempFolder folder;
    pcp_sample::E57Scan scan = scanWithNormals();
    scan.pose = quarterTurnTo({10.0, 20.0, 1.5});
    const std::filesystem::path file = folder.path() / "komma.e57";
    pcp_sample::E57WriteOptions comma;
    comma.editXml = [](std::string& xml)
    { replaceAll(xml, "<x type=\"Float\">10<", "<x type=\"Float\">10,0<"); };
    pcp_sample::writeE57File(file, {scan}, {}, comma);
    const std::string text = errorText([&] { E57(toWide(file), 1.0, kE57Mode).probe(kStep, {}); });
    EXPECT_EQ(text.find(e57Error(file,
                                 "E57_ERROR_BAD_XML_FORMAT: \n/data3D/0/pose/translation/x: value "
                                 "\"10,0\" is not a number")),
              0u)
        << text;

    // A file whose binding of the usual prefix names another extension has no normals.
    const std::filesystem::path other = folder.path() / "other extension.e57";
    pcp_sample::E57WriteOptions otherUri;
    otherUri.editXml = [](std::string& xml)
    { replaceAll(xml, "E57_NOR_surface_normals", "E57_VENDOR_noise"); };
    pcp_sample::writeE57File(other, {scanWithNormals()}, {}, otherUri);
    E57 importer(toWide(other), 1.0, kE57Mode);
    importer.openGroup();
    ASSERT_TRUE(importer.canOpenScan(0));
    EXPECT_FALSE(importer.hasNormals());
    EXPECT_TRUE(importer.hasClasses());

    const std::filesystem::path future = folder.path() / "version 2.e57";
    pcp_sample::E57WriteOptions version2;
    version2.versionMajor = 2;
    pcp_sample::writeE57File(future, {scanWithNormals()}, {}, version2);
    const std::string refused = errorText([&] { E57(toWide(future), 1.0, kE57Mode).probe(kStep, {}); });
    EXPECT_EQ(refused.find(e57Error(
                  future, "Could not open file " + future.string() + "\nE57_ERROR_UNKNOWN_FILE_VERSION: \n")),
              0u)
        << refused;
    EXPECT_NE(refused.find("has format version 2.0; only files of version 1 (1.0, 1.1, ...) can be read"),
              std::string::npos)
        << refused;
}

namespace
{

void putBigEndian(std::vector<uint8_t>& bytes, size_t at, uint32_t value)
{
    for (int i = 0; i < 4; ++i)
        bytes[at + i] = static_cast<uint8_t>(value >> (24 - 8 * i));
}

// A small PNG whose header, checksum and all, claims another size: a tiny file for a huge picture.
std::vector<uint8_t> pngClaiming(uint32_t width, uint32_t height)
{
    std::vector<uint8_t> png = plainPicture(8, 8, cv::Scalar(0, 0, 255), ".png");
    putBigEndian(png, 16, width);
    putBigEndian(png, 20, height);
    putBigEndian(png, 29, uint32_t(crc32(0, png.data() + 12, 17)));  // PNG chunks use zlib's CRC-32
    return png;
}

// A PNG whose image data is damaged; its chunk's checksum no longer matches.
std::vector<uint8_t> corruptPng()
{
    std::vector<uint8_t> png = plainPicture(64, 64, cv::Scalar(0, 0, 255), ".png");
    for (size_t i = 41; i + 12 < png.size(); ++i)
        png[i] ^= 0x5A;
    return png;
}

}  // namespace

// Images that cannot be used are left out, each with a warning that names the file, the scan and the image;
// the scan and its good images go on. Two pictures of the whole sphere, each more than a batch of pixels:
// the later one paints over the earlier one.
TEST(E57, CameraImagesThatCannotBeUsedAreLeftOutAndTheLaterImageWins)
{
    pcp_test::TempFolder folder;
    std::vector<pcp_sample::E57Image> images = {
        sphericalImage("scan-a", pngClaiming(40000, 40000), 40000, 40000),
        sphericalImage("scan-a", pngClaiming(12000, 12000), 12000, 12000),
        sphericalImage("scan-a", corruptPng(), 64, 64),
        sphericalImage("scan-a", plainPicture(600, 300, cv::Scalar(255, 0, 0), ".png"), 600, 300),
        sphericalImage("scan-a", plainPicture(600, 300, cv::Scalar(0, 255, 0), ".png"), 600, 300),
        sphericalImage("scan-a", plainPicture(64, 64, cv::Scalar(0, 0, 255), ".png"), 64, 64),
    };
    for (size_t i = 0; i < images.size(); ++i)
        images[i].name = "camera " + std::to_string(i);
    pcp_sample::E57WriteOptions options;
    options.editXml = [](std::string& xml)
    {
        // The last image's description holds a number in a writer's locale.
        const size_t last = xml.rfind("<pixelWidth type=\"Float\">");
        xml.replace(xml.find('<', last + 10), 0, ",5");
    };
    const std::filesystem::path file = folder.path() / "cameras.e57";
    pcp_sample::writeE57File(file, {sphereScan("scan-a", {1.0, 1.0, 1.5})}, images, options);

    const pcp_test::ImportRun c = convert(folder, toWide(file), true);
    ASSERT_EQ(c.files.size(), 1u);
    EXPECT_EQ(c.scans[0].size(), 13400u);  // the points below the tripod's cap are invalid
    std::vector<std::string> warnings;
    for (const std::wstring& warning : c.warnings)
        warnings.push_back(ws2s(warning));
    ASSERT_EQ(warnings.size(), 4u) << ::testing::PrintToString(warnings);
    // The description is read as the scan opens, the pictures are painted as it ends.
    const std::string reasons[] = {
        "/images2D/5/sphericalRepresentation/pixelWidth: value \"0.09817477042468103,5\" is not a number",
        "image_0.png: its header declares 40000 x 40000 pixels, more than the limit of 100000000",
        "image_1.png: its header declares 12000 x 12000 pixels, more than the limit of 100000000",
        "image_2.png: cannot be decoded"};
    const size_t imageOf[] = {5, 0, 1, 2};
    for (size_t w = 0; w < 4; ++w)
    {
        const std::string& warning = warnings[w];
        EXPECT_NE(
            warning.find("Image " + std::to_string(imageOf[w]) + " \"camera " + std::to_string(imageOf[w]) +
                         "\" of scan 0 in " + file.string() + " is left out: "),
            std::string::npos)
            << warning;
        EXPECT_NE(warning.find(reasons[w]), std::string::npos) << warning;
    }

    // The cap that the laser left empty is green, the colour of the later picture.
    const cv::Mat view = cv::imread(toPath(c.files[0].viewPng).string(), cv::IMREAD_UNCHANGED);
    ASSERT_FALSE(view.empty());
    const auto cap = view.at<cv::Vec4w>(view.rows - 3, view.cols / 3);
    EXPECT_EQ(cap[0], 0);
    EXPECT_EQ(cap[1], 65025);
    EXPECT_EQ(cap[2], 0);
}

// The host bounds the pictures per input; the importer factory hands the bound to the E57 importer.
TEST(E57, HostSetsTheLargestPictureOfAnInput)
{
    pcp_test::TempFolder folder;
    const std::filesystem::path file = folder.path() / "one camera.e57";
    pcp_sample::writeE57File(
        file, {sphereScan("scan-a", {1.0, 1.0, 1.5})},
        {sphericalImage("scan-a", plainPicture(64, 64, cv::Scalar(255, 0, 0), ".png"), 64, 64)});
    InputFileData input(toWide(file), 1.0);
    input.maxImagePixels = 4095;
    const std::shared_ptr<Convertor> importer = createImporter(input);
    const ProbeResult probe = importer->probe(kStep, {});
    const std::wstring cache = toWide(folder.path() / "cache");
    std::filesystem::create_directories(toPath(Convertor::getPointFolder(cache)));
    std::filesystem::create_directories(toPath(Convertor::getBubblesFolder(cache)));
    importer->run(cache, probe.transfo, false, {}, {});
    ASSERT_EQ(importer->getWarnings().size(), 1u);
    EXPECT_NE(ws2s(importer->getWarnings()[0]).find("declares 64 x 64 pixels, more than the limit of 4095"),
              std::string::npos)
        << ws2s(importer->getWarnings()[0]);
    ASSERT_EQ(importer->getScanFiles().size(), 1u);
}
