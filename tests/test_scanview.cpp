// Scan views (panoramas) with their two pictures, normals read back from the pictures, and normals from point
// neighbourhoods. Realistic scans come from the ray-cast sample room, whose true normals are known; pictures
// are decoded here with OpenCV, apart from the library's reader.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <filesystem>
#include <functional>
#include <numbers>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>

#include "cachefiles/MetaFile.h"
#include "core/StringConversion.h"
#include "sample/SampleScene.h"
#include "scanview/Pca.h"
#include "scanview/ScanView.h"
#include "scanview/StructuredNormalCalculator.h"
#include "support/ErrorText.h"
#include "support/FileText.h"
#include "support/TempFolder.h"

using namespace pc_preprocess;
using pcp_test::errorText;
using std::numbers::pi;

namespace
{

constexpr uint64_t kNothingToShow = ~uint64_t(0);
constexpr double kRowStep = pi / 2048;     // polar angle per row of the full grid
constexpr double kColumnStep = pi / 2048;  // azimuth per column

IoTransfo grid(double scale)
{
    IoTransfo transfo;
    transfo.offset = {0.0, 0.0, 0.0};
    transfo.scale = {scale, scale, scale};
    return transfo;
}

IoLightPoint pointAt(const IoTransfo& transfo, const geom::Point3d& p, uint16_t r, uint16_t g, uint16_t b,
                     uint16_t intensity = 1000)
{
    IoLightPoint point;
    point.x = int32_t(std::lround((p.x - transfo.offset[0]) / transfo.scale[0]));
    point.y = int32_t(std::lround((p.y - transfo.offset[1]) / transfo.scale[1]));
    point.z = int32_t(std::lround((p.z - transfo.offset[2]) / transfo.scale[2]));
    point.radius = -1.0f;
    point.r = r;
    point.g = g;
    point.b = b;
    point.intensity = intensity;
    return point;
}

// The point at `distance` from the origin that lands on the corner (row, column) of the full grid.
geom::Point3d onCorner(double row, double column, double distance)
{
    const double polar = row * kRowStep;
    const double azimuth = column * kColumnStep - pi;
    return {distance * std::sin(polar) * std::cos(azimuth), distance * std::sin(polar) * std::sin(azimuth),
            distance * std::cos(polar)};
}

const geom::Point3d kScanner(4.2, 2.7, 1.45);

std::vector<pcp_sample::SampleHit> roomScan(int rows, int columns, double jitter)
{
    return pcp_sample::scanRoom(kScanner, {rows, columns}, jitter);
}

// Inserts the hits that pass `keep` in batches of 65536, as the importers hand them over.
void insertHits(ScanView& view, const std::vector<pcp_sample::SampleHit>& hits, const IoTransfo& transfo,
                const std::function<bool(const pcp_sample::SampleHit&)>& keep = nullptr)
{
    std::vector<IoLightPoint> batch;
    for (size_t i = 0; i <= hits.size(); ++i)
    {
        if (i == hits.size() || batch.size() == 65536)
        {
            view.insert(batch, transfo, {kScanner.x, kScanner.y, kScanner.z}, false);
            batch.clear();
        }
        if (i < hits.size() && (!keep || keep(hits[i])))
            batch.push_back(
                pointAt(transfo, hits[i].position, hits[i].r, hits[i].g, hits[i].b, hits[i].intensity));
    }
}

cv::Mat decodePng(const std::wstring& path)
{
    const std::string bytes = pcp_test::readText(path);
    return cv::imdecode(cv::Mat(1, int(bytes.size()), CV_8U, const_cast<char*>(bytes.data())),
                        cv::IMREAD_UNCHANGED);
}

double degreesBetween(const geom::Vector3d& a, const geom::Vector3d& b)
{
    return std::acos(std::clamp(a.dot(b) / (a.length() * b.length()), -1.0, 1.0)) * 180.0 / pi;
}

using Colour = std::array<uint16_t, 3>;
Colour colour(const ScanView::PixelData& pixel)
{
    return {pixel.red, pixel.green, pixel.blue};
}

// One view for the whole program: it is 320 MiB, and reusing it through resetData is how workers use it too.
ScanView& sharedView()
{
    static ScanView view;
    view.resetData();
    return view;
}

}  // namespace

TEST(ScanView, InsertKeepsTheNearestPointOfEachDirection)
{
    ScanView& view = sharedView();
    const IoTransfo transfo = grid(1e-4);
    std::vector<IoLightPoint> batch = {
        pointAt(transfo, onCorner(700, 1000, 8.0), 100, 200, 300),
        pointAt(transfo, onCorner(700, 1000, 5.0), 1, 2, 3),       // nearer: wins
        pointAt(transfo, onCorner(700, 1000, 5.0), 9, 9, 9),       // as near: the first stays
        pointAt(transfo, onCorner(900, 1200, 4.0), 0, 0, 0, 7),    // no colour: the intensity in grey
        pointAt(transfo, onCorner(900, 1300, 4.0), 0, 0, 0, 0),    // no colour, no intensity: left out
        pointAt(transfo, onCorner(1000.4, 3000.4, 6.0), 5, 5, 5),  // rounds to the nearest corner
    };
    view.insert(batch, transfo, {0.0, 0.0, 0.0}, false);

    EXPECT_EQ(view.nrPoints(), 6u);
    EXPECT_NEAR(view.maxDistance(), 8.0, 1e-3);
    const ScanView::PixelData& nearest = view.at(1000, 700);
    EXPECT_NEAR(nearest.distance, 5.0, 1e-3);
    EXPECT_NEAR(nearest.z, onCorner(700, 1000, 5.0).z, 1e-4);  // relative to the scan position
    EXPECT_EQ(colour(nearest), (Colour{1, 2, 3}));
    EXPECT_EQ(colour(view.at(1200, 900)), (Colour{7, 7, 7}));
    EXPECT_FALSE(view.at(1300, 900).hasPoint());
    EXPECT_TRUE(view.at(3000, 1000).hasPoint());

    // The last row and column take what lies beyond them: straight down (but for a hair) and azimuth pi.
    IoTransfo fine = grid(1e-9);
    fine.scale[2] = 1e-3;
    std::vector<IoLightPoint> edges = {pointAt(fine, {1e-9, 0.0, -2.0}, 10, 10, 10)};
    view.insert(edges, fine, {0.0, 0.0, 0.0}, false);
    EXPECT_TRUE(view.at(2048, 2047).hasPoint());
    std::vector<IoLightPoint> back = {pointAt(transfo, {-3.0, 0.0, 0.0}, 20, 20, 20)};
    view.insert(back, transfo, {0.0, 0.0, 0.0}, false);
    EXPECT_TRUE(view.at(4095, 1024).hasPoint());

    // A point straight above the scanner ends what the view takes from its batch, but every point still
    // gets its distance.
    std::vector<IoLightPoint> stopped = {pointAt(transfo, onCorner(300, 300, 2.0), 1, 1, 1),
                                         pointAt(transfo, {0.0, 0.0, 5.0}, 1, 1, 1),
                                         pointAt(transfo, onCorner(400, 400, 3.0), 1, 1, 1)};
    view.insert(stopped, transfo, {0.0, 0.0, 0.0}, false);
    EXPECT_TRUE(view.at(300, 300).hasPoint());
    EXPECT_FALSE(view.at(400, 400).hasPoint());
    EXPECT_NEAR(stopped[2].radius, 3.0, 1e-3);
    EXPECT_EQ(view.nrPoints(), 11u);
}

TEST(ScanView, ColourOnlyPaintsWhatTheLaserLeftEmpty)
{
    ScanView& view = sharedView();
    EXPECT_EQ(view.resize(0), kNothingToShow);  // nothing offered yet

    const IoTransfo transfo = grid(1e-4);
    std::vector<IoLightPoint> laser = {pointAt(transfo, onCorner(500, 500, 3.0), 100, 100, 100)};
    view.insert(laser, transfo, {0.0, 0.0, 0.0}, false);
    const double area = view.filledAreaUnitSphere();
    EXPECT_GT(area, 0.0);

    std::vector<IoLightPoint> camera = {pointAt(transfo, onCorner(500, 500, 1.0), 7, 8, 9),
                                        pointAt(transfo, onCorner(600, 600, 1.0), 7, 8, 9),
                                        pointAt(transfo, onCorner(600, 600, 2.0), 4, 5, 6)};
    view.insert(camera, transfo, {0.0, 0.0, 0.0}, true);
    EXPECT_EQ(view.at(500, 500).red, 100);  // the laser's pixel stays
    EXPECT_FALSE(view.at(600, 600).hasPoint());
    EXPECT_EQ(view.at(600, 600).red, 4);  // the later picture paints over the earlier
    EXPECT_EQ(view.filledAreaUnitSphere(), area);
    EXPECT_EQ(view.nrPoints(), 4u);

    view.resetData();
    view.insert(camera, transfo, {0.0, 0.0, 0.0}, true);
    EXPECT_EQ(view.filledAreaUnitSphere(), 0.0);
    EXPECT_EQ(view.resize(0), 4096u);  // points were offered, so the view is shown
}

TEST(ScanView, FullGridCoversTheSphereAndShrinksByNearestPixel)
{
    ScanView& view = sharedView();
    const IoTransfo transfo = grid(1e-7);
    std::vector<IoLightPoint> batch;
    for (int row = 0; row < 2048; ++row)
    {
        batch.clear();
        for (int column = 0; column < 4096; ++column)
        {
            // A quarter pixel off the corner keeps row 0 and column 0 clear of the pole and of -pi.
            const double distance = 50.0 + 0.001 * ((row * 7 + column * 3) % 11);
            batch.push_back(pointAt(transfo, onCorner(row + 0.25, column + 0.25, distance), uint16_t(row),
                                    uint16_t(column), 1));
        }
        view.insert(batch, transfo, {0.0, 0.0, 0.0}, false);
    }
    EXPECT_NEAR(view.filledAreaUnitSphere(), 4.0 * pi, 1e-9);
    EXPECT_EQ(view.resize(0), 4096u);  // closed at full resolution: nothing to reduce
    EXPECT_EQ(view.height(), 2048u);

    // Expected winners of two blocks of the halved grid: the nearest of each 2 x 2 block.
    auto nearestOfBlock = [&](uint64_t row, uint64_t column)
    {
        ScanView::PixelData best = view.at(2 * column, 2 * row);
        for (uint64_t r = 2 * row; r < 2 * row + 2; ++r)
            for (uint64_t c = 2 * column; c < 2 * column + 2; ++c)
                if (view.at(c, r).distance <= best.distance)
                    best = view.at(c, r);
        return best;
    };
    const ScanView::PixelData first = nearestOfBlock(0, 0);
    const ScanView::PixelData inner = nearestOfBlock(700, 1500);
    EXPECT_EQ(view.resize(1), 2048u);
    EXPECT_EQ(view.height(), 1024u);
    EXPECT_EQ(view.at(0, 0).distance, first.distance);
    EXPECT_EQ(view.at(1500, 700).distance, inner.distance);
    EXPECT_EQ(view.at(1500, 700).green, inner.green);
    EXPECT_NEAR(view.filledAreaUnitSphere(), 4.0 * pi, 1e-9);
    EXPECT_EQ(view.resize(8), kNothingToShow);  // 4 rows would be left: refused, nothing changed
    EXPECT_EQ(view.width(), 2048u);

    view.resetData();
    EXPECT_EQ(view.width(), 4096u);
    EXPECT_EQ(view.filledAreaUnitSphere(), 0.0);
}

TEST(ScanView, FilledAreaOfRoomScans)
{
    // A grid of a micrometre keeps the directions of the few points next to the poles; on a coarser grid
    // they scatter over the columns and leave the polar rows, which weigh much, half empty.
    const IoTransfo transfo = grid(1e-6);
    const auto hits = roomScan(600, 1200, 0.002);

    // Sparser than the full grid: the search settles on the coarsest grid that is still closed.
    ScanView& view = sharedView();
    insertHits(view, hits, transfo);
    EXPECT_LT(view.filledAreaUnitSphere(), 4.0 * pi * 0.5);
    const uint64_t width = view.resize(0);
    EXPECT_LT(width, 4096u);
    EXPECT_GE(width, 512u);
    EXPECT_EQ(view.height() * 2, width);
    EXPECT_NEAR(view.filledAreaUnitSphere(), 4.0 * pi, 4.0 * pi * 0.01);

    // The half on one side of a vertical plane through the scanner covers half the sphere.
    view.resetData();
    insertHits(view, hits, transfo, [](const pcp_sample::SampleHit& h) { return h.position.y > kScanner.y; });
    view.resize(0);
    EXPECT_NEAR(view.filledAreaUnitSphere(), 2.0 * pi, 2.0 * pi * 0.02);

    // Below the scanner: the row table weighs bands half a radian off their rows, so the lower half of the
    // sphere counts 1 - sin(0.5) of a hemisphere.
    view.resetData();
    insertHits(view, hits, transfo, [](const pcp_sample::SampleHit& h) { return h.position.z < kScanner.z; });
    view.resize(0);
    EXPECT_NEAR(view.filledAreaUnitSphere(), 2.0 * pi * (1.0 - std::sin(0.5)), 0.05);
}

TEST(ScanView, ViewPictureIsMirroredWithNearnessAndFilledHoles)
{
    pcp_test::TempFolder folder;
    const std::wstring bubbles = pc_preprocess::toWide(folder.path());
    ScanView& view = sharedView();
    const IoTransfo transfo = grid(1e-6);
    std::vector<IoLightPoint> batch = {pointAt(transfo, onCorner(1000, 1000, 4.0), 1000, 2000, 3000),
                                       pointAt(transfo, onCorner(1000, 1019, 9.0), 4000, 5000, 6000),
                                       pointAt(transfo, onCorner(1500, 3000, 16.0), 7000, 8000, 9000)};
    view.insert(batch, transfo, {0.0, 0.0, 0.0}, false);
    // A camera colour in an empty place: alpha 0, but a colour, so no hole.
    std::vector<IoLightPoint> camera = {pointAt(transfo, onCorner(300, 2000, 2.0), 111, 222, 333)};
    view.insert(camera, transfo, {0.0, 0.0, 0.0}, true);

    const std::wstring path = view.exportViewPng(bubbles, L"scan-0003", L"view");
    EXPECT_EQ(path, bubbles + L"/scan-0003-view.png");
    const cv::Mat image = decodePng(path);
    ASSERT_EQ(image.type(), CV_16UC4);
    ASSERT_EQ(image.rows, 2048);
    ASSERT_EQ(image.cols, 4096);
    auto pixel = [&](int row, int gridColumn) { return image.at<cv::Vec4w>(row, 4095 - gridColumn); };

    // Colour in blue, green, red order; alpha from the square root of the distance against the farthest.
    EXPECT_EQ(pixel(1000, 1000), cv::Vec4w(3000, 2000, 1000, uint16_t((1.0 - 2.0 / 4.0) * 65535)));
    EXPECT_EQ(pixel(1000, 1019)[3], uint16_t((1.0 - 3.0 / 4.0) * 65535));
    EXPECT_EQ(pixel(1500, 3000), cv::Vec4w(9000, 8000, 7000, 0));       // the farthest point is transparent
    EXPECT_EQ(image.at<cv::Vec4w>(1000, 1000), cv::Vec4w(0, 0, 0, 0));  // not mirrored: nothing there

    // Holes nearer than 10 pixels take the nearest source in their window; 10 or more stay open.
    EXPECT_EQ(pixel(1000, 1009), pixel(1000, 1000));
    EXPECT_EQ(pixel(1000, 1010), pixel(1000, 1019));
    EXPECT_EQ(pixel(1009, 1002), pixel(1000, 1000));  // about 9.4 away
    EXPECT_EQ(pixel(1010, 1000), cv::Vec4w(0, 0, 0, 0));
    EXPECT_EQ(pixel(1000, 990), cv::Vec4w(0, 0, 0, 0));
    EXPECT_EQ(pixel(1500, 3009), pixel(1500, 3000));  // a transparent point is a source too
    EXPECT_EQ(pixel(300, 2000), cv::Vec4w(333, 222, 111, 0));
    EXPECT_EQ(pixel(304, 2003), pixel(300, 2000));

    const std::wstring missing = bubbles + L"/not-there";
    EXPECT_EQ(errorText([&] { view.exportViewPng(missing, L"scan", L"view"); }),
              "pngWrite: Could not write to " + ws2s(missing) + "/scan-view.png\nDisk full?");
}

TEST(ScanView, NormalMapGivesBackTheNormalsOfTheRoom)
{
    pcp_test::TempFolder folder;
    const std::wstring bubbles = pc_preprocess::toWide(folder.path());
    const IoTransfo transfo = grid(1e-6);
    const auto hits = roomScan(800, 1600, 0.0005);
    ScanView& view = sharedView();
    insertHits(view, hits, transfo);
    const uint64_t width = view.resize(0);

    ScanFiles scan;
    scan.viewPng = view.exportViewPng(bubbles, L"room-0000", L"view");
    scan.normalPng = view.exportNormalPng(bubbles, L"room-0000", L"norm");
    scan.metaFile = folder.file(L"room-0000-temp.meta");
    MetaData meta;
    meta.position = {kScanner.x, kScanner.y, kScanner.z};
    meta.viewWidth = width;
    writeMetaFile(scan.metaFile, meta);
    const cv::Mat normals = decodePng(scan.normalPng);
    ASSERT_EQ(normals.type(), CV_16UC4);
    EXPECT_EQ(uint64_t(normals.cols), width);
    EXPECT_EQ(uint64_t(normals.rows), width / 2);

    const StructuredNormalCalculator calculator({scan}, true, false, true);
    ASSERT_TRUE(calculator.isActivated());
    size_t answered = 0;
    std::vector<double> errors;  // in degrees, on the room's walls, floor and ceiling
    for (const pcp_sample::SampleHit& hit : hits)
    {
        const auto [normal, size] = calculator.getNormalAndSize(hit.position, 0);
        if (size == 0.0)
            continue;
        ++answered;
        ASSERT_NEAR(size, hit.distance, 1e-3);
        ASSERT_NEAR(normal.length(), 1.0, 0.1);
        // Next to the poles the neighbours along a row lie too close together for the range noise.
        const double across = std::hypot(hit.position.x - kScanner.x, hit.position.y - kScanner.y);
        if (hit.classification != 1 && across > 1.0)
            errors.push_back(degreesBetween(normal, hit.normal));
    }
    EXPECT_GT(answered, hits.size() * 95 / 100);
    // Edges and corners of the room and the furniture blur a few.
    ASSERT_GT(errors.size(), hits.size() / 3);
    std::sort(errors.begin(), errors.end());
    EXPECT_LT(errors[errors.size() / 2], 1.5);
    EXPECT_LT(errors[errors.size() * 9 / 10], 3.0);
    EXPECT_EQ(calculator.getNormalAndSize(hits[0].position, 1).second, 0.0);  // no such scan

    // Sizes alone from the map constructor; no calculator without a map or when disabled.
    const StructuredNormalCalculator sizesOnly({{0, {kScanner, scan.normalPng}}}, false);
    const auto [none, size] = sizesOnly.getNormalAndSize(hits[5].position, 0);
    EXPECT_EQ(none.length(), 0.0);
    EXPECT_NEAR(size, hits[5].distance, 1e-9);
    EXPECT_FALSE(StructuredNormalCalculator({scan}, true, true, true).isActivated());
    EXPECT_FALSE(StructuredNormalCalculator({scan}, false, false, true).isActivated());
    ScanFiles withoutMap = scan;
    withoutMap.normalPng.clear();
    EXPECT_FALSE(StructuredNormalCalculator({withoutMap}, true, false, true).isActivated());
}

TEST(ScanView, NormalColoursRoundTrip)
{
    const std::array<uint16_t, 3> up = normal2color({0.0, 0.0, 1.0});
    EXPECT_EQ(up, (std::array<uint16_t, 3>{65535, 32768, 32768}));  // z, y, x
    EXPECT_EQ(normal2color({-1.0, 0.0, 0.0})[2], 0);
    const geom::Vector3d n = geom::Vector3d(0.3, -0.5, 0.7).normal();
    const std::array<uint16_t, 3> c = normal2color(n);
    const std::array<double, 3> back = color2normal(c[2], c[1], c[0]);
    EXPECT_NEAR(back[0], n.x, 1e-4);
    EXPECT_NEAR(back[1], n.y, 1e-4);
    EXPECT_NEAR(back[2], n.z, 1e-4);
}

TEST(Pca, NormalsOfNeighbourhoods)
{
    using namespace pc_preprocess_matrixtools;
    // A tilted plane far from the origin, sampled unevenly.
    const geom::Vector3d normal = geom::Vector3d(1.0, -2.0, 3.0).normal();
    const geom::Vector3d u = normal.cross({0.0, 0.0, 1.0}).normal();
    const geom::Vector3d v = normal.cross(u);
    const geom::Point3d origin(51234.5, -8123.25, 310.0);
    std::vector<geom::Point3d> plane;
    std::array<double, 6> products{};
    std::array<double, 3> sums{};
    for (int i = 0; i < 40; ++i)
    {
        const geom::Point3d p = origin + u * std::sin(i * 1.7) * 0.3 + v * std::cos(i * 0.9) * 0.2;
        plane.push_back(p);
        const geom::Vector3d local = p - origin;
        sums = {sums[0] + local.x, sums[1] + local.y, sums[2] + local.z};
        products = {products[0] + local.x * local.x, products[1] + local.x * local.y,
                    products[2] + local.x * local.z, products[3] + local.y * local.y,
                    products[4] + local.y * local.z, products[5] + local.z * local.z};
    }
    EXPECT_NEAR(std::fabs(computeNormal(plane).dot(normal)), 1.0, 1e-9);
    EXPECT_NEAR(std::fabs(principalComponentAnalysis(products, sums, 40).dot(normal)), 1.0, 1e-9);
    const auto [flat, curvature] = computeNormalAndCurvature(plane);
    EXPECT_NEAR(std::fabs(flat.dot(normal)), 1.0, 1e-9);
    EXPECT_NEAR(curvature, 0.0, 1e-12);

    // Too few points, points on a line, and a lump that is no surface give no normal.
    EXPECT_EQ(computeNormal({plane[0], plane[1]}).length(), 0.0);
    EXPECT_EQ(principalComponentAnalysis(products, sums, 2).length(), 0.0);
    const geom::Vector3d along(0.3, 0.4, -1.2);
    EXPECT_EQ(computeNormal({origin, origin + along, origin + along * 2.5}).length(), 0.0);
    std::vector<geom::Point3d> cube;
    for (int corner = 0; corner < 8; ++corner)
        cube.push_back({double(corner & 1), double((corner >> 1) & 1), double((corner >> 2) & 1)});
    EXPECT_EQ(computeNormal(cube).length(), 0.0);
    const auto [some, spread] = computeNormalAndCurvature(cube);
    EXPECT_NEAR(some.length(), 1.0, 1e-12);
    EXPECT_NEAR(spread, 1.0 / 3.0, 1e-12);
    EXPECT_EQ(computeNormalAndCurvature({origin, origin, origin}).second, 0.0);
}
