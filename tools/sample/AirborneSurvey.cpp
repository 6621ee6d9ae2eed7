#include "sample/AirborneSurvey.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "sample/LasWriter.h"
#include "sample/SampleRandom.h"
#include "sample/TerrainScene.h"

namespace pcp_sample
{

namespace
{

constexpr double kFlyingHeight = 850.0;  // metres above sea level
constexpr int kStrips = 4;
constexpr double kFirstStrip = 25.0;  // the centre line of the westernmost strip
constexpr double kStripSpacing = 150.0;
constexpr double kHalfSwath = 100.0;  // a quarter of each strip is seen by its neighbour too
constexpr double kPulseRate = 400000.0;
constexpr double kTurnSeconds = 120.0;
constexpr double kStartTime = 345600.0;  // GPS seconds of the week
constexpr double kRangeNoise = 0.025;
constexpr double kGapChance = 0.15;          // a pulse slips through the leaves of a crown
constexpr double kSecondReturnChance = 0.5;  // ... or is split and returns once more from below
constexpr double kCrownDepth = 0.8;          // mean depth of the first return inside a crown
constexpr double kCoarseSpacing = 2.0;
constexpr double kSpare = 1.002;

uint16_t toSixteenBit(double unit)
{
    return uint16_t(std::lround(std::clamp(unit, 0.0, 1.0) * 65535.0));
}

uint8_t lasClass(Surface surface)
{
    switch (surface)
    {
        case Surface::kField:
        case Surface::kRoad:
            return 2;
        case Surface::kCrown:
            return 5;
        case Surface::kTiledRoof:
        case Surface::kFlatRoof:
        case Surface::kWall:
            break;
    }
    return 6;
}

// One flight over the tile after another, with the state that runs on through them.
class Flight
{
public:
    Flight(const TerrainScene& scene, uint64_t seed) : m_scene(scene), m_random(seed) {}

    // Flies every strip once at the given spacing of pulses and of scan lines, with scan lines shifted by
    // `phase` spacings. `emit` takes each return and says whether to go on; returns false when it did not.
    template <typename Emit>
    bool fly(double spacing, double phase, Emit&& emit);

private:
    template <typename Emit>
    bool pulse(const geom::Point3d& aircraft, double x, double y, PulseInfo info, Emit&& emit);
    SampleHit makeReturn(const geom::Point3d& aircraft, const geom::Vector3d& direction,
                         const SurfaceHit& surface, double share, const SurfaceHit* canopy);

    const TerrainScene& m_scene;
    SampleRandom m_random;
    double m_time = kStartTime;
};

// The part of the tile one strip covers, and how its pulses fall at a given spacing.
struct Strip
{
    double centre, west, east;
    int lines, across;

    Strip(int strip, double spacing)
        : centre(kFirstStrip + strip * kStripSpacing),
          west(std::max(0.0, centre - kHalfSwath)),
          east(std::min(TerrainScene::kSize, centre + kHalfSwath)),
          lines(std::max(1, int(TerrainScene::kSize / spacing))),
          across(std::max(1, int((east - west) / spacing)))
    {
    }
};

double pulsesPerFlight(double spacing)
{
    double pulses = 0.0;
    for (int strip = 0; strip < kStrips; ++strip)
    {
        const Strip covered(strip, spacing);
        pulses += double(covered.lines) * covered.across;
    }
    return pulses;
}

template <typename Emit>
bool Flight::fly(double spacing, double phase, Emit&& emit)
{
    for (int strip = 0; strip < kStrips; ++strip)
    {
        const auto [centre, west, east, lines, across] = Strip(strip, spacing);
        const bool northwards = strip % 2 == 0;
        for (int line = 0; line < lines; ++line)
        {
            const double along = std::fmod((line + 0.5 + phase) * spacing, TerrainScene::kSize);
            const double y = northwards ? along : TerrainScene::kSize - along;
            const geom::Point3d aircraft(centre, y, kFlyingHeight);
            const bool eastwards = line % 2 == 0;  // the mirror sweeps to and fro
            for (int k = 0; k < across; ++k)
            {
                const int column = eastwards ? k : across - 1 - k;
                const double x = std::clamp(west + (column + 0.5 + m_random.between(-0.2, 0.2)) * spacing,
                                            0.0, std::nextafter(TerrainScene::kSize, 0.0));
                const double yHit = std::clamp(y + m_random.between(-0.2, 0.2) * spacing, 0.0,
                                               std::nextafter(TerrainScene::kSize, 0.0));
                PulseInfo info;
                info.gpsTime = m_time;
                // Left of the flight direction is west when flying north, east when flying south.
                const double angle = std::atan2(x - centre, kFlyingHeight - m_scene.groundHeight(x, yHit));
                info.scanAngle =
                    int8_t(std::lround(angle * 180.0 / std::numbers::pi * (northwards ? 1 : -1)));
                info.scanDirection = eastwards == northwards;
                info.edgeOfFlightLine = k + 1 == across;
                info.flightLine = uint16_t(strip + 1);
                m_time += 1.0 / kPulseRate;
                if (!pulse(aircraft, x, yHit, info, emit))
                    return false;
            }
        }
        m_time += kTurnSeconds;
    }
    return true;
}

template <typename Emit>
bool Flight::pulse(const geom::Point3d& aircraft, double x, double y, PulseInfo info, Emit&& emit)
{
    const geom::Point3d target(x, y, m_scene.groundHeight(x, y));
    const double tGround = target.distanceTo(aircraft);
    const geom::Vector3d direction = (target - aircraft) * (1.0 / tGround);
    SurfaceHit ground;
    ground.t = tGround;
    ground.normal = m_scene.groundNormal(x, y);
    ground.surface = m_scene.groundSurface(x, y);

    SurfaceHit first = m_scene.castObjects(aircraft, direction, 0.0, tGround);
    for (int passed = 0; first.found() && first.surface == Surface::kCrown && passed < 3; ++passed)
    {
        if (m_random.unit() >= kGapChance)
            break;
        first = m_scene.castObjects(aircraft, direction, first.tExit, tGround);
    }
    if (!first.found())
        first = ground;

    SurfaceHit returns[2] = {first, {}};
    info.numberOfReturns = 1;
    if (first.surface == Surface::kCrown)
    {
        // The foliage returns from some way inside the crown; a split pulse goes on to what lies below.
        const double depth = std::min(m_random.exponential(kCrownDepth), 0.85 * (first.tExit - first.t));
        returns[0].t += depth;
        if (m_random.unit() < kSecondReturnChance)
        {
            returns[1] = m_scene.castObjects(aircraft, direction, first.tExit, tGround);
            if (!returns[1].found())
                returns[1] = ground;
            info.numberOfReturns = 2;
        }
    }
    for (int r = 0; r < info.numberOfReturns; ++r)
    {
        const double share = info.numberOfReturns == 1 ? 1.0 : (r == 0 ? 0.6 : 0.4);
        SampleHit hit = makeReturn(aircraft, direction, returns[r], share, r == 1 ? &first : nullptr);
        // Slanted pulses can meet a roof or a crown beyond the tile's edge: that return belongs to the
        // neighbouring tile.
        if (hit.position.x < 0.0 || hit.position.y < 0.0 || hit.position.x >= TerrainScene::kSize ||
            hit.position.y >= TerrainScene::kSize)
            continue;
        hit.position = hit.position + geom::Vector3d(TerrainTilePlace::kEast, TerrainTilePlace::kNorth, 0.0);
        info.returnNumber = uint8_t(r + 1);
        if (!emit(hit, info))
            return false;
    }
    return true;
}

SampleHit Flight::makeReturn(const geom::Point3d& aircraft, const geom::Vector3d& direction,
                             const SurfaceHit& surface, double share, const SurfaceHit* canopy)
{
    SampleHit hit;
    hit.distance = surface.t + m_random.normal(kRangeNoise);
    hit.position = aircraft + direction * hit.distance;
    hit.normal = surface.normal;
    hit.classification = lasClass(surface.surface);
    // The colours come from an aerial photograph, which shows the canopy over what lies below it.
    const Rgb colour = canopy ? m_scene.colour(*canopy, aircraft + direction * canopy->t)
                              : m_scene.colour(surface, hit.position);
    const double shade = (canopy ? 0.7 : 1.0) * (1.0 + m_random.normal(0.04));
    hit.r = toSixteenBit(colour.r * shade);
    hit.g = toSixteenBit(colour.g * shade);
    hit.b = toSixteenBit(colour.b * shade);
    const double incidence = std::fabs(direction.dot(surface.normal));
    const double echo = TerrainScene::reflectance(surface.surface) * (0.3 + 0.7 * incidence) * share;
    hit.intensity = toSixteenBit(echo * (1.0 + m_random.normal(0.08)));
    return hit;
}

}  // namespace

void surveyTerrainTile(uint64_t points, const ReturnSink& sink)
{
    if (points == 0)
        return;
    const TerrainScene scene;
    // A coarse flight tells how many returns a pulse brings on this tile, and so the spacing of pulses that
    // yields the count, with a little to spare: the last strip may end a few lines early. Should the estimate
    // fall short instead, the next flight fills in between the lines until the count is reached.
    uint64_t coarse = 0;
    Flight(scene, 7).fly(kCoarseSpacing, 0.0,
                         [&](const SampleHit&, const PulseInfo&)
                         {
                             ++coarse;
                             return true;
                         });
    const double pulsesWanted = double(points) * kSpare * pulsesPerFlight(kCoarseSpacing) / double(coarse);
    double spacing = kCoarseSpacing * std::sqrt(pulsesPerFlight(kCoarseSpacing) / pulsesWanted);
    for (int refine = 0; refine < 4; ++refine)  // the whole lines and columns make the count a staircase
        spacing *= std::sqrt(pulsesPerFlight(spacing) / pulsesWanted);

    Flight flight(scene, 20261121);
    uint64_t emitted = 0;
    for (int pass = 0; emitted < points; ++pass)
        flight.fly(spacing, pass % 2 * 0.5,
                   [&](const SampleHit& hit, const PulseInfo& info)
                   {
                       sink(hit, info);
                       return ++emitted < points;
                   });
}

uint64_t writeTerrainTile(const std::string& path, uint64_t points)
{
    LasGrid grid;
    grid.scale = 0.01;  // the centimetre grid airborne surveys deliver
    grid.offset[0] = TerrainTilePlace::kEast;
    grid.offset[1] = TerrainTilePlace::kNorth;
    grid.epsg = TerrainTilePlace::kEpsg;
    grid.projectionName = "WGS 84 / UTM zone 32N";
    LasTileWriter writer(path, grid);
    surveyTerrainTile(points, [&](const SampleHit& hit, const PulseInfo& pulse) { writer.add(hit, pulse); });
    writer.close();
    return writer.count();
}

}  // namespace pcp_sample
