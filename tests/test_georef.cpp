// The geographic origin of a cache: computed through PROJ, kept in a small JSON file, and the local frame
// that georeferenced inputs are carried into.
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <limits>
#include <numbers>

#include "cachefiles/CacheFiles.h"
#include "cachefiles/PntFiles.h"
#include "core/LibAccessor.h"
#include "core/StringConversion.h"
#include "scanview/TopoDef.h"
#include "services/Logger.h"
#include "support/ErrorText.h"
#include "support/FileText.h"
#include "support/TempFolder.h"
#include "support/TestData.h"

using namespace pc_preprocess;

namespace
{

double distance(double ax, double ay, double az, double bx, double by, double bz)
{
    return std::sqrt((ax - bx) * (ax - bx) + (ay - by) * (ay - by) + (az - bz) * (az - bz));
}

// A convert-only run into a fresh cache folder that carries its inputs into a local frame.
struct LocalFrameRun
{
    explicit LocalFrameRun(const pcp_test::TempFolder& temp)
        : folder(temp.path() / "cache"), files(toWide(folder), L"cache", false, false)
    {
        std::filesystem::create_directory(folder);
        logger = std::make_shared<Logger>(files.getLogFile(), false, false);
        accessor.reprojectToLocalFrame(true);
    }

    std::vector<ScanFiles> convert(const std::vector<InputFileData>& inputs)
    {
        return accessor.runFull(toWide(folder), inputs, files, L"site", 0.001, 1, false, false, false, logger,
                                true);
    }

    std::filesystem::path folder;
    CacheFiles files;
    std::shared_ptr<Logger> logger;
    LibAccessor accessor;
};

}  // namespace

TEST(TopoDef, OriginsFromGeographicAndEarthCentredPoints)
{
    // On the equator at the prime meridian the ellipsoid's surface is one semi-major axis out along X.
    const TopoDef equator = computeWGS84(0.0, 0.0);
    ASSERT_TRUE(equator.valid);
    EXPECT_NEAR(equator.x0, 6378137.0, 1e-6);
    EXPECT_NEAR(equator.y0, 0.0, 1e-6);
    EXPECT_NEAR(equator.z0, 0.0, 1e-6);
    // At the pole, the semi-minor axis along Z.
    const TopoDef pole = computeWGS84(180.0, 90.0);
    ASSERT_TRUE(pole.valid);
    EXPECT_NEAR(pole.z0, 6356752.314245, 1e-3);
    EXPECT_FALSE(computeWGS84(180.1, 0.0).valid);
    EXPECT_FALSE(computeWGS84(0.0, -90.5).valid);

    // A point 250 m above Oregon comes back as its foot on the ellipsoid, 250 m below it.
    const TopoDef ground = computeWGS84(-123.0, 44.0);
    const double up[3] = {std::cos(44.0 * std::numbers::pi / 180) * std::cos(-123.0 * std::numbers::pi / 180),
                          std::cos(44.0 * std::numbers::pi / 180) * std::sin(-123.0 * std::numbers::pi / 180),
                          std::sin(44.0 * std::numbers::pi / 180)};
    const TopoDef foot =
        projectWGS84(ground.x0 + 250 * up[0], ground.y0 + 250 * up[1], ground.z0 + 250 * up[2]);
    ASSERT_TRUE(foot.valid);
    EXPECT_NEAR(foot.lambda0, -123.0, 1e-9);
    EXPECT_NEAR(foot.phi0, 44.0, 1e-9);
    EXPECT_NEAR(distance(foot.x0, foot.y0, foot.z0, ground.x0, ground.y0, ground.z0), 0.0, 1e-6);
    EXPECT_FALSE(projectWGS84(0.0, 0.0, 0.0).valid);
}

TEST(TopoDef, FileRoundTripAndRefusals)
{
    pcp_test::TempFolder folder;
    const std::wstring path = folder.file(L"topö.json");
    const TopoDef written = computeWGS84(8.5417, 47.3769);
    writeTopoDef(path, written);
    const TopoDef read = readTopoDef(path);
    ASSERT_TRUE(read.valid);
    EXPECT_EQ(read.lambda0, written.lambda0);
    EXPECT_EQ(read.phi0, written.phi0);
    EXPECT_EQ(read.x0, written.x0);
    EXPECT_EQ(read.z0, written.z0);

    // Missing, broken or foreign files give no georeference, never an error.
    EXPECT_FALSE(readTopoDef(folder.file(L"missing.json")).valid);
    EXPECT_EQ(readTopoDef(folder.file(L"missing.json")).x0, std::numeric_limits<double>::max());
    const std::wstring broken = folder.file(L"broken.json");
    std::ofstream(toPath(broken)) << "{\"proj=topocentric +ellps=WGS84\": {\"lambda0\": 1,";
    EXPECT_FALSE(readTopoDef(broken).valid);
    const std::wstring raised = folder.file(L"raised.json");
    std::ofstream(toPath(raised))
        << R"({"proj=topocentric +ellps=WGS84": {"lambda0": 8, "phi0": 47, "height0": 5,
        "x0": 1, "y0": 2, "z0": 3}})";
    EXPECT_FALSE(readTopoDef(raised).valid);

    const std::wstring unwritable = folder.file(L"no-such-folder/topo.json");
    EXPECT_THROW(writeTopoDef(unwritable, written), std::runtime_error);
}

TEST(TopoDef, RunCarriesGeoreferencedInputIntoALocalFrame)
{
    PCP_REQUIRE_TEST_DATA(laz, "laz/autzen_trim.laz");
    pcp_test::TempFolder temp;
    LocalFrameRun run(temp);
    const auto scans = run.convert({InputFileData(toWide(laz), 1.0)});
    const std::filesystem::path cache = run.folder;
    ASSERT_EQ(scans.size(), 1u);
    // Autzen stadium lies in Eugene, Oregon.
    const TopoDef frame = readTopoDef(toWide(cache / kTopoDefFileName));
    ASSERT_TRUE(frame.valid);
    EXPECT_NEAR(frame.lambda0, -123.07, 0.05);
    EXPECT_NEAR(frame.phi0, 44.05, 0.05);
    // East and north now count in metres from the frame's origin at the first point: the site is a few
    // hundred metres across.
    IoTransfo transfo;
    std::vector<IoLightPoint> points;
    readPNT(scans[0].pntFile, transfo, points);
    ASSERT_EQ(points.size(), 110000u);
    for (const IoLightPoint& p : points)
    {
        ASSERT_LT(std::fabs(p.x * transfo.scale[0] + transfo.offset[0]), 1000.0);
        ASSERT_LT(std::fabs(p.y * transfo.scale[1] + transfo.offset[1]), 1000.0);
    }
}

TEST(TopoDef, InputWithoutCoordinateSystemCannotJoinALocalFrame)
{
    PCP_REQUIRE_TEST_DATA(laz, "laz/autzen_trim.laz");
    PCP_REQUIRE_TEST_DATA(plain, "laz/lone-star.laz");  // a terrestrial scan without a coordinate system
    pcp_test::TempFolder temp;
    LocalFrameRun run(temp);
    EXPECT_EQ(pcp_test::errorText(
                  [&] {
                      run.convert({InputFileData(toWide(laz), 1.0), InputFileData(toWide(plain), 1.0)});
                  }),
              "Preprocessing failed: see " + ws2s(run.files.getLogFile()));
    EXPECT_NE(pcp_test::readText(run.files.getLogFile()).find("has no coordinate system, so it cannot join"),
              std::string::npos);
}
