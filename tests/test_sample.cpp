// The outdoor sample: an airborne survey streamed point by point, and the LAS tile it is written to. The
// survey must give exactly the count asked for, the same every time, with returns where an airborne scanner
// would see them; the tile must read back through the library's own LAS importer as it was written.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <map>
#include <vector>

#include "cachefiles/PntFiles.h"
#include "core/StringConversion.h"
#include "importers/Las.h"
#include "sample/AirborneSurvey.h"
#include "sample/TerrainScene.h"
#include "support/TempFolder.h"

using namespace pc_preprocess;
using pcp_sample::TerrainTilePlace;

namespace
{

struct Return
{
    pcp_sample::SampleHit hit;
    pcp_sample::PulseInfo pulse;
};

std::vector<Return> survey(uint64_t points)
{
    std::vector<Return> returns;
    pcp_sample::surveyTerrainTile(points,
                                  [&](const pcp_sample::SampleHit& hit, const pcp_sample::PulseInfo& pulse) {
                                      returns.push_back({hit, pulse});
                                  });
    return returns;
}

bool sameReturn(const Return& a, const Return& b)
{
    const auto& p = a.pulse;
    const auto& q = b.pulse;
    return a.hit.position == b.hit.position && a.hit.r == b.hit.r && a.hit.g == b.hit.g &&
           a.hit.b == b.hit.b && a.hit.intensity == b.hit.intensity &&
           a.hit.classification == b.hit.classification && p.gpsTime == q.gpsTime &&
           p.returnNumber == q.returnNumber && p.numberOfReturns == q.numberOfReturns &&
           p.scanAngle == q.scanAngle && p.flightLine == q.flightLine;
}

}  // namespace

TEST(TerrainSample, SurveyGivesTheExactCountOfPlausibleAirborneReturns)
{
    for (const uint64_t count : {uint64_t(1), uint64_t(777)})
        EXPECT_EQ(survey(count).size(), count);

    const std::vector<Return> returns = survey(80000);
    ASSERT_EQ(returns.size(), 80000u);
    const std::vector<Return> again = survey(80000);
    ASSERT_EQ(again.size(), returns.size());
    for (size_t i = 0; i < returns.size(); ++i)
        ASSERT_TRUE(sameReturn(returns[i], again[i])) << "return " << i << " differs between two surveys";

    const pcp_sample::TerrainScene scene;
    std::map<int, size_t> classes;
    size_t walls = 0;
    size_t secondReturns = 0;
    double lastTime = 0.0;
    for (const Return& r : returns)
    {
        const double x = r.hit.position.x - TerrainTilePlace::kEast;
        const double y = r.hit.position.y - TerrainTilePlace::kNorth;
        ASSERT_TRUE(x >= 0.0 && x < 500.0 && y >= 0.0 && y < 500.0) << x << " " << y;
        const double aboveGround = r.hit.position.z - scene.groundHeight(x, y);
        const int lasClass = r.hit.classification;
        ++classes[lasClass];
        if (lasClass == 2)
            ASSERT_LT(std::fabs(aboveGround), 0.15) << "a ground return off the ground at " << x << " " << y;
        else if (lasClass == 5)
            ASSERT_GT(aboveGround, 1.0) << "foliage on the ground at " << x << " " << y;
        else if (lasClass == 6)
            walls += std::fabs(r.hit.normal.z) < 0.1;
        ASSERT_TRUE(r.pulse.returnNumber >= 1 && r.pulse.returnNumber <= r.pulse.numberOfReturns &&
                    r.pulse.numberOfReturns <= 2);
        secondReturns += r.pulse.returnNumber == 2;
        ASSERT_GE(r.pulse.gpsTime, lastTime);
        lastTime = r.pulse.gpsTime;
        ASSERT_TRUE(r.pulse.flightLine >= 1 && r.pulse.flightLine <= 4);
    }
    ASSERT_EQ(classes.size(), 3u) << "only ground, high vegetation and buildings";
    EXPECT_GT(classes[2], returns.size() / 2);
    EXPECT_GT(classes[5], returns.size() / 50);
    EXPECT_GT(classes[6], returns.size() / 200);
    // Walls are seen only by the slanted pulses: some, but far fewer than the roofs.
    EXPECT_GT(walls, 0u);
    EXPECT_LT(walls, classes[6] / 5);
    // Pulses split in crowns return from below as well.
    EXPECT_GT(secondReturns, classes[5] / 10);
}

TEST(TerrainSample, TileReadsBackThroughTheLasImporter)
{
    pcp_test::TempFolder folder;
    const std::wstring tile = folder.file(L"terrain-tile.las");
    constexpr uint64_t kPoints = 20000;
    ASSERT_EQ(pcp_sample::writeTerrainTile(ws2s(tile), kPoints), kPoints);
    const std::vector<Return> written = survey(kPoints);

    const ColorMode mode(kRgb16Bit, kIntensity16Bit);
    Las prober(tile, 1.0, mode);
    const ProbeResult probe = prober.probe(1.0, {});
    EXPECT_NE(prober.wkt().find("UTM zone 32N"), std::string::npos) << prober.wkt();
    EXPECT_EQ(probe.transfo.scale[0], 0.01);
    EXPECT_EQ(probe.transfo.offset[0], TerrainTilePlace::kEast);
    EXPECT_EQ(probe.transfo.offset[1], TerrainTilePlace::kNorth);

    const std::wstring cache = toWide(folder.path() / "cache");
    std::filesystem::create_directories(toPath(Convertor::getPointFolder(cache)));
    Las converter(tile, 1.0, mode);
    converter.run(cache, probe.transfo, false, [](double) {}, {});
    ASSERT_EQ(converter.getScanFiles().size(), 1u);
    IoTransfo transfo;
    std::vector<IoLightPoint> points;
    readPNT(converter.getScanFiles()[0].pntFile, transfo, points);
    ASSERT_EQ(points.size(), kPoints);
    for (size_t i = 0; i < kPoints; ++i)
    {
        const pcp_sample::SampleHit& hit = written[i].hit;
        const IoLightPoint& p = points[i];
        ASSERT_EQ(p.x, std::lround((hit.position.x - TerrainTilePlace::kEast) / 0.01)) << "point " << i;
        ASSERT_EQ(p.y, std::lround((hit.position.y - TerrainTilePlace::kNorth) / 0.01)) << "point " << i;
        ASSERT_EQ(p.z, std::lround(hit.position.z / 0.01)) << "point " << i;
        ASSERT_TRUE(p.r == hit.r && p.g == hit.g && p.b == hit.b && p.intensity == hit.intensity &&
                    p.classification == hit.classification)
            << "point " << i;
    }
}
