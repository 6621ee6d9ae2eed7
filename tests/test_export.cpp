// Exporters and the 16-bit normal codes they carry. PTS files are read back through the PTS importer; LAZ
// files are checked byte by byte against the LAS 1.4 layout, with LASzip only undoing the compression.
#include <gtest/gtest.h>
#include <laszip/laszip_api.h>
#include <sys/resource.h>

#include <array>
#include <cmath>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <numbers>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "core/StringConversion.h"
#include "exporters/LazExporter.h"
#include "exporters/PtsExporter.h"
#include "importers/PtsImporter.h"
#include "scanview/NormalCodes.h"
#include "support/ErrorText.h"
#include "support/FileText.h"
#include "support/TempFolder.h"

using namespace pc_preprocess;
using pcp_test::errorText;
using pcp_test::readText;

namespace
{

constexpr double kRingStep = std::numbers::pi / 226;

geom::Vector3d decoded(uint32_t code)
{
    const uint8_t bytes[2] = {static_cast<uint8_t>(code & 0xFF), static_cast<uint8_t>(code >> 8)};
    return decodeNormal(bytes);
}

double angleBetween(const geom::Vector3d& a, const geom::Vector3d& b)
{
    return std::acos(std::clamp(a.dot(b) / (a.length() * b.length()), -1.0, 1.0));
}

// Hands out `points` in batches of at most `batchSize`.
Exporter::BatchSource batchesOf(const std::vector<ExportPoint>& points, size_t batchSize)
{
    auto next = std::make_shared<size_t>(0);
    return [&points, batchSize, next](std::vector<ExportPoint>& batch)
    {
        for (; *next < points.size() && batch.size() < batchSize; ++*next)
            batch.push_back(points[*next]);
        return !batch.empty();
    };
}

const auto noPoints = [](std::vector<ExportPoint>&) { return false; };

template <typename T>
T at(const std::string& bytes, size_t offset)
{
    T value;
    std::memcpy(&value, bytes.data() + offset, sizeof value);
    return value;
}

IoTransfo millimetres(double ox, double oy, double oz)
{
    IoTransfo grid;
    grid.scale = {0.001, 0.001, 0.001};
    grid.offset = {ox, oy, oz};
    return grid;
}

// Lets files of this process grow to `bytes` only, as a full disk would; writes beyond fail instead of
// raising SIGXFSZ.
class FileSizeLimit
{
public:
    explicit FileSizeLimit(rlim_t bytes)
    {
        getrlimit(RLIMIT_FSIZE, &m_old);
        m_oldHandler = std::signal(SIGXFSZ, SIG_IGN);
        rlimit limit = m_old;
        limit.rlim_cur = bytes;
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FileSizeLimit()
    {
        setrlimit(RLIMIT_FSIZE, &m_old);
        std::signal(SIGXFSZ, m_oldHandler);
    }

private:
    rlimit m_old{};
    void (*m_oldHandler)(int) = nullptr;
};

// The plain LAS file that LASzip makes of a compressed one.
std::string decompressed(const std::wstring& laz)
{
    laszip_POINTER reader = nullptr;
    laszip_POINTER writer = nullptr;
    laszip_create(&reader);
    laszip_create(&writer);
    std::ifstream in(toPath(laz), std::ios::binary);
    std::ostringstream plain;
    laszip_BOOL compressed = 0;
    laszip_header* header = nullptr;
    laszip_point* point = nullptr;
    EXPECT_EQ(laszip_open_reader_stream(reader, in, &compressed), 0);
    laszip_get_header_pointer(reader, &header);
    laszip_get_point_pointer(reader, &point);
    EXPECT_EQ(laszip_set_header(writer, header), 0);
    EXPECT_EQ(laszip_open_writer_stream(writer, plain, 0, 0), 0);
    for (uint64_t i = 0; i < header->extended_number_of_point_records; ++i)
        EXPECT_TRUE(laszip_read_point(reader) == 0 && laszip_set_point(writer, point) == 0 &&
                    laszip_write_point(writer) == 0);
    EXPECT_EQ(laszip_close_writer(writer), 0);
    EXPECT_EQ(laszip_close_reader(reader), 0);
    laszip_destroy(writer);
    laszip_destroy(reader);
    return plain.str();
}

}  // namespace

TEST(NormalCodes, EveryCodeDecodesToAUnitVectorThatEncodesBackToIt)
{
    for (uint32_t code = 0; code < kNormalCodeCount; ++code)
    {
        const geom::Vector3d v = decoded(code);
        ASSERT_NEAR(v.length(), 1.0, 1e-6) << "code " << code;
        ASSERT_EQ(encodeNormal(v), code) << "code " << code;
    }
}

TEST(NormalCodes, PolesEquatorAndVectorsThatAreNoNormals)
{
    EXPECT_EQ(encodeNormal({0, 0, 1}), 0);
    EXPECT_EQ(encodeNormal({0, 0, -1}), kNormalCodeCount - 1);
    EXPECT_NEAR(decoded(kNormalCodeCount - 1).z, -1.0, 1e-7);

    // An azimuth of exactly pi counts as -pi: (-1, 0, 0) is the first direction of the equator's ring, whose
    // 452 directions start half a step after -pi; its last lies just short of pi.
    const geom::Vector3d west = decoded(encodeNormal({-1, 0, 0}));
    EXPECT_NEAR(west.z, 0.0, 1e-7);
    EXPECT_NEAR(std::atan2(west.y, west.x), -std::numbers::pi + std::numbers::pi / 452, 1e-6);
    EXPECT_EQ(encodeNormal({-1, 0, 0}) + 451, encodeNormal({-1, 1e-4, 0}));

    // Not unit vectors, all code 0: zero, too long, too short, not finite.
    for (const geom::Vector3d v :
         {geom::Vector3d(0, 0, 0), geom::Vector3d(0, 1.1, 0.1), geom::Vector3d(0.5, 0.5, 0),
          geom::Vector3d(std::nan(""), 0, 1), geom::Vector3d(INFINITY, 0, 0)})
        EXPECT_EQ(encodeNormal(v), 0) << v.x << " " << v.y << " " << v.z;
    // A vector of length 1.05 is taken as it is: its z lands on a ring nearer to the pole.
    const geom::Vector3d slanted{0.6, 0, 0.8};
    EXPECT_NEAR(angleBetween(decoded(encodeNormal(slanted * 1.05)), slanted),
                std::acos(0.8) - std::acos(0.84), kRingStep);

    for (uint32_t code : {kNormalCodeCount, 65535u})
        EXPECT_EQ(decoded(code), geom::Vector3d(0, 0, 0)) << code;
    EXPECT_EQ(decodeNormal(nullptr), geom::Vector3d(0, 0, 0));
}

TEST(NormalCodes, UnitVectorsComeBackWithinOneRingStep)
{
    std::mt19937 random(7);
    std::normal_distribution<double> gauss;
    for (int i = 0; i < 200000; ++i)
    {
        const geom::Vector3d v = geom::Vector3d(gauss(random), gauss(random), gauss(random)).normal();
        ASSERT_LE(angleBetween(decoded(encodeNormal(v)), v), kRingStep) << v.x << " " << v.y << " " << v.z;
    }
}

TEST(Exporters, RefuseExistingFilesWrongExtensionsAndBadScales)
{
    pcp_test::TempFolder folder;
    const geom::Matrix3d identity;
    for (const std::wstring name : {L"da.pts", L"da.laz"})
    {
        const std::wstring existing = folder.file(name);
        std::ofstream(toPath(existing)) << "keep me";
        const std::string refusal = ws2s(existing) + " already exists.";
        EXPECT_EQ(errorText([&] { PtsExporter exporter(existing, identity); }), "PtsExporter: " + refusal);
        EXPECT_EQ(errorText([&] { LazExporter exporter(existing, identity, millimetres(0, 0, 0)); }),
                  "LazExporter: " + refusal);
        EXPECT_EQ(readText(existing), "keep me");
    }
    for (const std::wstring name : {L"a.PTS", L"a.pts.txt", L"a"})
        EXPECT_EQ(errorText([&] { PtsExporter exporter(folder.file(name), identity); }),
                  "PtsExporter: " + ws2s(folder.file(name)) + " does not have extension .pts.");
    EXPECT_EQ(errorText([&] { LazExporter exporter(folder.file(L"a.LAZ"), identity, millimetres(0, 0, 0)); }),
              "LazExporter: " + ws2s(folder.file(L"a.LAZ")) + " does not have extension .laz.");
    IoTransfo flat = millimetres(0, 0, 0);
    flat.scale[2] = 0.0;
    EXPECT_EQ(errorText([&] { LazExporter exporter(folder.file(L"flat.laz"), identity, flat); }),
              "LazExporter: scale{X,Y,Z} not all positive.");
}

TEST(Exporters, NoPointsGiveACountOfZero)
{
    pcp_test::TempFolder folder;
    EXPECT_EQ(PtsExporter(folder.file(L"leer.pts"), geom::Matrix3d()).run(noPoints), 0u);
    EXPECT_EQ(readText(folder.file(L"leer.pts")), "0" + std::string(19, ' ') + "\n");
    EXPECT_EQ(LazExporter(folder.file(L"leer.laz"), geom::Matrix3d(), millimetres(1, 2, 3)).run(noPoints),
              0u);
    const std::string laz = readText(folder.file(L"leer.laz"));
    EXPECT_EQ(at<uint64_t>(laz, 247), 0u);
    for (size_t offset = 179; offset <= 219; offset += 8)
        EXPECT_EQ(at<double>(laz, offset), 0.0) << offset;
    EXPECT_EQ(decompressed(folder.file(L"leer.laz")).size(), 375u) << "LASzip reads it";
}

TEST(PtsExporter, PointsComeBackThroughThePtsImporter)
{
    pcp_test::TempFolder folder;
    const std::wstring path = folder.file(L"点云.pts");
    std::vector<ExportPoint> points(70000);
    for (int i = 0; i < 70000; ++i)
    {
        points[i].position = {i * 0.125 - 4000.0, std::sin(i) * 50.0, 1234.5678 + i * 1e-3};
        points[i].intensity = static_cast<uint16_t>(i * 7);
        points[i].r = static_cast<uint16_t>(i * 13);
        points[i].g = static_cast<uint16_t>(65535 - i);
        points[i].b = static_cast<uint16_t>(i % 2 == 0 ? 65535 : 255);
    }
    const geom::Matrix3d shift = geom::Matrix3d::translation({1000.0, -20.0, 0.5});
    ASSERT_EQ(PtsExporter(path, shift).run(batchesOf(points, 30000)), points.size());

    // The count on the first line, padded; colour on the 8-bit scale (65535 is 255, 255 is 0).
    std::istringstream text(readText(path));
    std::string line;
    std::getline(text, line);
    EXPECT_EQ(line, "70000" + std::string(15, ' '));
    std::getline(text, line);
    EXPECT_EQ(line, "-3000 -20 1235.0678 0 0 255 255");
    std::getline(text, line);
    EXPECT_EQ(line, "-2999.875 22.0735492 1235.0688 7 0 255 0");

    PtsImporter::Settings settings;
    settings.columnFormat = "XYZIRGB";
    PtsImporter importer(path, 1.0, ColorMode(kRgb8Bit, kIntensity16Bit), settings);
    importer.openGroup();
    ASSERT_TRUE(importer.canOpenScan(0));
    const std::array<double, 9> linear = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    const std::array<double, 3> translation = {0, 0, 0};
    const Discretization grid(millimetres(0, 0, 0), linear.data(), translation.data());
    std::vector<IoLightPoint> batch;
    size_t n = 0;
    while (importer.remainScanData())
    {
        importer.processBatch(batch, grid, false);
        for (const IoLightPoint& q : batch)
        {
            ASSERT_LT(n, points.size());
            // Nine significant digits: the grid cell of the printed value, next to that of the exact one.
            const geom::Point3d expected = shift.transform(points[n].position);
            EXPECT_LE(std::abs(q.x - expected.x * 1000), 0.51) << n;
            EXPECT_LE(std::abs(q.y - expected.y * 1000), 0.51) << n;
            EXPECT_LE(std::abs(q.z - expected.z * 1000), 0.51) << n;
            EXPECT_EQ(std::tie(q.r, q.g, q.b, q.intensity),
                      std::make_tuple(points[n].r & 0xFF00, points[n].g & 0xFF00, points[n].b & 0xFF00,
                                      points[n].intensity))
                << n;
            ++n;
        }
    }
    importer.closeGroup();
    EXPECT_EQ(n, points.size());
}

// The file as any LAS 1.4 reader sees it: header fields at their offsets, and, once LASzip has undone the
// compression, 40-byte records of point format 7 with the normal code in the 4 bytes at the end.
TEST(LazExporter, HeaderAndRecordsFollowTheLas14Layout)
{
    pcp_test::TempFolder folder;
    const std::wstring path = folder.file(L"punkte.laz");
    std::vector<ExportPoint> points(3);
    points[0].position = {1.0, 2.0, 3.0};
    points[1].position = {-4.0016, 5.25, -0.0004};
    points[2].position = {7.5, -8.0, 9.9996};
    for (size_t i = 0; i < points.size(); ++i)
    {
        points[i].intensity = static_cast<uint16_t>(100 + i);
        points[i].r = static_cast<uint16_t>(65535 - i);
        points[i].g = static_cast<uint16_t>(1000 * i);
        points[i].b = 7;
        points[i].normal = decoded(static_cast<uint32_t>(30000 * i + 5));
    }
    const geom::Matrix3d shift = geom::Matrix3d::translation({100.0, 200.0, 0.0});
    ASSERT_EQ(LazExporter(path, shift, millimetres(100, 200, -1)).run(batchesOf(points, 2)), 3u);

    const std::string bytes = readText(path);
    ASSERT_GT(bytes.size(), 375u);
    EXPECT_EQ(bytes.substr(0, 4), "LASF");
    EXPECT_EQ(at<uint16_t>(bytes, 24), 1 + 4 * 256) << "version 1.4";
    EXPECT_EQ(at<uint16_t>(bytes, 94), 375);
    EXPECT_EQ(at<uint8_t>(bytes, 104), 7 | 128) << "compressed point format 7";
    EXPECT_EQ(at<uint16_t>(bytes, 105), 40);
    EXPECT_EQ(at<uint32_t>(bytes, 107), 0u) << "no legacy count for format 7";
    EXPECT_EQ(at<double>(bytes, 131), 0.001);
    EXPECT_EQ(at<double>(bytes, 171), -1.0) << "Z offset";
    // The box of the transformed points: max X, min X, max Y, min Y, max Z, min Z; then the count.
    const std::array<double, 6> box = {107.5, 95.9984, 205.25, 192.0, 9.9996, -0.0004};
    for (size_t i = 0; i < box.size(); ++i)
        EXPECT_DOUBLE_EQ(at<double>(bytes, 179 + 8 * i), box[i]) << i;
    EXPECT_EQ(at<uint64_t>(bytes, 247), 3u);

    const std::string las = decompressed(path);
    const uint32_t firstRecord = at<uint32_t>(las, 96);
    ASSERT_EQ(las.size(), firstRecord + 3 * 40u);
    const std::array<std::array<int32_t, 3>, 3> integers = {
        {{1000, 2000, 4000}, {-4002, 5250, 1000}, {7500, -8000, 11000}}};
    for (size_t i = 0; i < 3; ++i)
    {
        const std::string r = las.substr(firstRecord + 40 * i, 40);
        EXPECT_EQ(std::make_tuple(at<int32_t>(r, 0), at<int32_t>(r, 4), at<int32_t>(r, 8)),
                  std::make_tuple(integers[i][0], integers[i][1], integers[i][2]));
        EXPECT_EQ(at<uint16_t>(r, 12), points[i].intensity);
        // Return 1 of 1; no flags, channel, class, user data, scan angle; point source 1; time 0.
        EXPECT_EQ(r.substr(14, 16), std::string("\x11\0\0\0\0\0\x01\0\0\0\0\0\0\0\0\0", 16)) << i;
        EXPECT_EQ(std::make_tuple(at<uint16_t>(r, 30), at<uint16_t>(r, 32), at<uint16_t>(r, 34)),
                  std::make_tuple(points[i].r, points[i].g, points[i].b));
        EXPECT_EQ(at<uint32_t>(r, 36), 30000 * i + 5) << "normal code";
    }
}

TEST(Exporters, AFullDiskEndsTheExportWithItsMessage)
{
    pcp_test::TempFolder folder;
    std::vector<ExportPoint> points(400000);
    for (size_t i = 0; i < points.size(); ++i)
        points[i].position = {i * 0.37, std::sin(i) * 11.0, i * -0.5};
    const std::wstring pts = folder.file(L"voll.pts");
    const std::wstring laz = folder.file(L"voll.laz");
    std::string ptsError;
    std::string lazError;
    {
        const FileSizeLimit limit(100000);
        PtsExporter ptsExporter(pts, geom::Matrix3d());
        ptsError = errorText([&] { ptsExporter.run(batchesOf(points, 50000)); });
        LazExporter lazExporter(laz, geom::Matrix3d(), millimetres(0, 0, 0));
        lazError = errorText([&] { lazExporter.run(batchesOf(points, 50000)); });
    }
    EXPECT_EQ(ptsError, "PtsExporter::run : Could not (fully) write " + ws2s(pts) + "\nDisk full?");
    EXPECT_EQ(lazError, "LazExporter::run : Could not (fully) write " + ws2s(laz) + "\nDisk full?");
    EXPECT_EQ(std::filesystem::file_size(toPath(pts)), 100000u) << "what was written stays";
}
