#include "sample/TerrainScene.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "sample/SampleRandom.h"

namespace pcp_sample
{

namespace
{

// Hills of a few hundred metres with smaller swells on them, falling gently to the north.
double terrainFunction(double x, double y)
{
    return 305.0 + 0.018 * x - 0.012 * y + 9.0 * std::sin(x / 70.0 + 0.4) * std::cos(y / 85.0 - 0.9) +
           4.0 * std::sin((x - 2.0 * y) / 55.0) + 1.2 * std::sin(x / 17.0) * std::cos(y / 23.0);
}

constexpr double kRoadHalfWidth = 3.5;
constexpr double kTrunkToRoad = 1.5;  // crowns may reach over the road, trunks stand beside it
constexpr double kFieldAngle = 12.0 * std::numbers::pi / 180.0;  // the field boundaries run askew
constexpr double kFieldLength = 70.0;
constexpr double kFieldWidth = 45.0;

// A well mixed number from two integers: the same cell always gets the same value.
uint64_t mixCell(int64_t a, int64_t b)
{
    uint64_t z = uint64_t(a) * 0x9E3779B97F4A7C15ull ^ (uint64_t(b) + 0x632BE59BD9B4E019ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
}

Rgb scaled(const Rgb& c, double factor)
{
    return {c.r * factor, c.g * factor, c.b * factor};
}

// The roofs, walls and crowns the village and the country are made of.
const Rgb kRedTiles{0.60, 0.26, 0.17};
const Rgb kSlate{0.33, 0.31, 0.32};
const Rgb kGravelRoof{0.50, 0.50, 0.49};
const Rgb kDarkRoof{0.28, 0.28, 0.30};
const Rgb kPlaster{0.86, 0.80, 0.68};
const Rgb kWhiteWall{0.90, 0.90, 0.87};
const Rgb kBrick{0.60, 0.35, 0.25};
const Rgb kSheetMetal{0.60, 0.62, 0.63};
const Rgb kCrops[] = {{0.32, 0.45, 0.20}, {0.75, 0.68, 0.40}, {0.45, 0.33, 0.22}, {0.40, 0.52, 0.26}};

}  // namespace

TerrainScene::TerrainScene()
    : m_heights(size_t(kHeightSamples) * kHeightSamples),
      m_cellBuildings(size_t(kCells) * kCells),
      m_cellTrees(size_t(kCells) * kCells)
{
    for (int row = 0; row < kHeightSamples; ++row)
        for (int column = 0; column < kHeightSamples; ++column)
            m_heights[size_t(row) * kHeightSamples + column] = float(terrainFunction(column, row));

    // The village: houses and blocks along the road, their long sides facing it.
    struct AlongRoad
    {
        double x;
        int side;  // 1 north of the road, -1 south
        double length, width, eaves, ridgeRise;
        Rgb roof, wall;
    };
    const AlongRoad village[] = {
        {100, 1, 12, 9, 5.5, 4.0, kRedTiles, kPlaster},
        {125, -1, 11, 8.5, 5.0, 3.8, kSlate, kWhiteWall},
        {150, 1, 14, 10, 6.0, 4.5, kRedTiles, kBrick},
        {185, -1, 40, 24, 10.0, 0.0, kGravelRoof, kWhiteWall},
        {215, 1, 28, 14, 7.0, 5.0, kSlate, kSheetMetal},
        {245, -1, 12, 9, 5.5, 4.0, kRedTiles, kPlaster},
        {270, 1, 60, 30, 8.0, 0.0, kDarkRoof, kSheetMetal},
        {300, -1, 10, 8, 5.0, 3.5, kRedTiles, kBrick},
    };
    for (const AlongRoad& house : village)
    {
        const double slope = (roadCentre(house.x + 1.0) - roadCentre(house.x - 1.0)) / 2.0;
        const double heading = std::atan(slope);
        const double setback = 8.0 + house.width / 2.0;
        addBuilding(house.x - house.side * setback * std::sin(heading),
                    roadCentre(house.x) + house.side * setback * std::cos(heading), heading, house.length,
                    house.width, house.eaves, house.ridgeRise, house.roof, house.wall);
    }
    // A farm out in the fields: a barn and a flat shed.
    addBuilding(420.0, 400.0, 30.0 * std::numbers::pi / 180.0, 25.0, 12.0, 6.0, 4.0, kRedTiles, kBrick);
    addBuilding(60.0, 430.0, -8.0 * std::numbers::pi / 180.0, 15.0, 10.0, 4.0, 0.0, kDarkRoof, kSheetMetal);

    // Each draw in a statement of its own: the order of a call's arguments is up to the compiler, and the
    // scene must not be.
    SampleRandom random(71);
    auto deciduous = [&](double x, double y)
    {
        const double radius = random.between(2.5, 4.5);
        const double halfHeight = radius * random.between(0.8, 1.1);
        const double crownBase = random.between(3.0, 6.0);
        const Rgb leaves{random.between(0.25, 0.35), random.between(0.38, 0.50), random.between(0.15, 0.22)};
        addTree(x, y, crownBase, radius, halfHeight, leaves);
    };
    auto conifer = [&](double x, double y)
    {
        const double radius = random.between(1.5, 2.5);
        const double halfHeight = random.between(4.0, 7.0);
        const double crownBase = random.between(2.0, 5.0);
        const Rgb needles{random.between(0.12, 0.18), random.between(0.25, 0.32), random.between(0.12, 0.16)};
        addTree(x, y, crownBase, radius, halfHeight, needles);
    };
    // A wood of mixed trees south of the road and a copse in the north-west, on jittered grids with gaps.
    struct Wood
    {
        double x, y, radiusX, radiusY, conifers;
    };
    const Wood woods[] = {{380.0, 100.0, 110.0, 75.0, 0.6}, {90.0, 370.0, 45.0, 35.0, 0.2}};
    auto nearWood = [&](double x, double y)  // within the woods' outlines enlarged by a tenth
    {
        for (const Wood& wood : woods)
        {
            const double dx = (x - wood.x) / wood.radiusX;
            const double dy = (y - wood.y) / wood.radiusY;
            if (dx * dx + dy * dy < 1.2)
                return true;
        }
        return false;
    };
    for (const Wood& wood : woods)
        for (double y = wood.y - wood.radiusY; y <= wood.y + wood.radiusY; y += 4.5)
            for (double x = wood.x - wood.radiusX; x <= wood.x + wood.radiusX; x += 4.5)
            {
                const double tx = x + random.between(-1.5, 1.5);
                const double ty = y + random.between(-1.5, 1.5);
                const double dx = (tx - wood.x) / wood.radiusX;
                const double dy = (ty - wood.y) / wood.radiusY;
                if (dx * dx + dy * dy > 1.0 || random.unit() < 0.1 || !isFree(tx, ty, 3.0))
                    continue;
                if (random.unit() < wood.conifers)
                    conifer(tx, ty);
                else
                    deciduous(tx, ty);
            }
    // A row along the south side of the road, broken where a house stands.
    for (double x = 5.0; x < kSize; x += 14.0)
        if (isFree(x, roadCentre(x) - 7.0, 5.5))
            deciduous(x, roadCentre(x) - 7.0);
    // Single trees in the fields and gardens.
    for (int placed = 0, tries = 0; placed < 120 && tries < 2000; ++tries)
    {
        const double x = random.between(5.0, kSize - 5.0);
        const double y = random.between(5.0, kSize - 5.0);
        if (nearWood(x, y) || !isFree(x, y, 6.0))
            continue;
        if (random.unit() < 0.3)
            conifer(x, y);
        else
            deciduous(x, y);
        ++placed;
    }
}

double TerrainScene::roadCentre(double x) const
{
    return 240.0 + 70.0 * std::sin(x / 110.0 + 0.5);
}

double TerrainScene::groundHeight(double x, double y) const
{
    const double cx = std::clamp(x, 0.0, kSize - 1e-9);
    const double cy = std::clamp(y, 0.0, kSize - 1e-9);
    const int column = int(cx);
    const int row = int(cy);
    const double fx = cx - column;
    const double fy = cy - row;
    const float* south = &m_heights[size_t(row) * kHeightSamples + column];
    const float* north = south + kHeightSamples;
    return (1.0 - fy) * ((1.0 - fx) * south[0] + fx * south[1]) +
           fy * ((1.0 - fx) * north[0] + fx * north[1]);
}

geom::Vector3d TerrainScene::groundNormal(double x, double y) const
{
    const double dx = groundHeight(x + 0.5, y) - groundHeight(x - 0.5, y);
    const double dy = groundHeight(x, y + 0.5) - groundHeight(x, y - 0.5);
    return geom::Vector3d(-dx, -dy, 1.0).normal();
}

Surface TerrainScene::groundSurface(double x, double y) const
{
    return std::fabs(y - roadCentre(x)) < kRoadHalfWidth ? Surface::kRoad : Surface::kField;
}

Rgb TerrainScene::groundColour(double x, double y) const
{
    if (groundSurface(x, y) == Surface::kRoad)
    {
        // Asphalt with a dashed centre line.
        const bool marking = std::fabs(y - roadCentre(x)) < 0.08 && std::fmod(x, 6.0) < 3.0;
        return marking ? Rgb{0.90, 0.90, 0.85} : Rgb{0.30, 0.30, 0.32};
    }
    // Fields in a skewed grid, each with its own crop, sown in rows a few decimetres apart.
    const double u = x * std::cos(kFieldAngle) + y * std::sin(kFieldAngle);
    const double v = -x * std::sin(kFieldAngle) + y * std::cos(kFieldAngle);
    const uint64_t field =
        mixCell(int64_t(std::floor(u / kFieldLength)), int64_t(std::floor(v / kFieldWidth)));
    const Rgb crop = kCrops[field % std::size(kCrops)];
    const double row = v / 0.75 - std::floor(v / 0.75);  // 0 to 1 across each row of the crop
    return scaled(crop, 0.94 + 0.24 * std::fabs(row - 0.5));
}

double TerrainScene::reflectance(Surface surface)
{
    switch (surface)
    {
        case Surface::kField:
            return 0.45;
        case Surface::kRoad:
            return 0.12;
        case Surface::kTiledRoof:
            return 0.30;
        case Surface::kFlatRoof:
            return 0.22;
        case Surface::kWall:
            return 0.40;
        case Surface::kCrown:
            return 0.55;
    }
    return 0.3;
}

Rgb TerrainScene::colour(const SurfaceHit& hit, const geom::Point3d& p) const
{
    switch (hit.surface)
    {
        case Surface::kTiledRoof:
        case Surface::kFlatRoof:
            return m_buildings[hit.object].roofColour;
        case Surface::kWall:
            return m_buildings[hit.object].wallColour;
        case Surface::kCrown:
        {
            // Sunlit above, shaded below.
            const Tree& tree = m_trees[hit.object];
            return scaled(tree.colour, 0.8 + 0.2 * (p.z - tree.crown.z) / tree.halfHeight);
        }
        case Surface::kField:
        case Surface::kRoad:
            break;
    }
    return groundColour(p.x, p.y);
}

void TerrainScene::addBuilding(double x, double y, double heading, double length, double width, double eaves,
                               double ridgeRise, const Rgb& roof, const Rgb& wall)
{
    const geom::Vector3d u(std::cos(heading), std::sin(heading), 0.0);  // along the ridge
    const geom::Vector3d v(-std::sin(heading), std::cos(heading), 0.0);
    const geom::Point3d centre(x, y, 0.0);
    const geom::Vector3d c = centre - geom::Point3d();
    Footprint box{kSize, kSize, 0.0, 0.0};
    double lowestCorner = groundHeight(x, y);
    for (const double a : {-0.5, 0.5})
        for (const double b : {-0.5, 0.5})
        {
            const geom::Point3d corner = centre + u * (a * length) + v * (b * width);
            box = {std::min(box.minX, corner.x), std::min(box.minY, corner.y), std::max(box.maxX, corner.x),
                   std::max(box.maxY, corner.y)};
            lowestCorner = std::min(lowestCorner, groundHeight(corner.x, corner.y));
        }

    Building building;
    auto add = [&](const geom::Vector3d& normal, double offset)
    {
        const double length = normal.length();
        building.planes[size_t(building.planeCount++)] = {normal * (1.0 / length), offset / length};
    };
    add(u, u.dot(c) + length / 2.0);
    add(-u, -u.dot(c) + length / 2.0);
    add(v, v.dot(c) + width / 2.0);
    add(-v, -v.dot(c) + width / 2.0);
    add({0.0, 0.0, -1.0}, -(lowestCorner - 0.5));  // the walls go into the ground on a slope
    const double eaveHeight = groundHeight(x, y) + eaves;
    if (ridgeRise <= 0.0)
        add({0.0, 0.0, 1.0}, eaveHeight);
    else
    {
        // Each roof face: z <= eaves + pitch * (width / 2 -+ v . (p - centre)).
        const double pitch = ridgeRise / (width / 2.0);
        add(v * pitch + geom::Vector3d(0.0, 0.0, 1.0), eaveHeight + pitch * (width / 2.0 + v.dot(c)));
        add(v * -pitch + geom::Vector3d(0.0, 0.0, 1.0), eaveHeight + pitch * (width / 2.0 - v.dot(c)));
    }
    building.roof = ridgeRise <= 0.0 ? Surface::kFlatRoof : Surface::kTiledRoof;
    building.roofColour = roof;
    building.wallColour = wall;
    index(box, uint32_t(m_buildings.size()), true);
    m_buildings.push_back(building);
    m_footprints.push_back(box);
}

void TerrainScene::addTree(double x, double y, double crownBase, double radius, double halfHeight,
                           const Rgb& colour)
{
    const Tree tree{{x, y, groundHeight(x, y) + crownBase + halfHeight}, radius, halfHeight, colour};
    index({x - radius, y - radius, x + radius, y + radius}, uint32_t(m_trees.size()), false);
    m_trees.push_back(tree);
}

bool TerrainScene::isFree(double x, double y, double clearance) const
{
    if (x < 0.0 || y < 0.0 || x >= kSize || y >= kSize)
        return false;
    if (std::fabs(y - roadCentre(x)) < kRoadHalfWidth + kTrunkToRoad)
        return false;
    for (const Footprint& box : m_footprints)
        if (x > box.minX - clearance && x < box.maxX + clearance && y > box.minY - clearance &&
            y < box.maxY + clearance)
            return false;
    return true;
}

void TerrainScene::index(const Footprint& box, uint32_t object, bool building)
{
    const int x0 = std::clamp(int(std::floor(box.minX / kCell)), 0, kCells - 1);
    const int x1 = std::clamp(int(std::floor(box.maxX / kCell)), 0, kCells - 1);
    const int y0 = std::clamp(int(std::floor(box.minY / kCell)), 0, kCells - 1);
    const int y1 = std::clamp(int(std::floor(box.maxY / kCell)), 0, kCells - 1);
    for (int cy = y0; cy <= y1; ++cy)
        for (int cx = x0; cx <= x1; ++cx)
            cell(cx, cy, building).push_back(object);
}

std::vector<uint32_t>& TerrainScene::cell(int cx, int cy, bool building)
{
    return (building ? m_cellBuildings : m_cellTrees)[size_t(cy) * kCells + cx];
}

const std::vector<uint32_t>& TerrainScene::cell(int cx, int cy, bool building) const
{
    return (building ? m_cellBuildings : m_cellTrees)[size_t(cy) * kCells + cx];
}

SurfaceHit TerrainScene::castObjects(const geom::Point3d& origin, const geom::Vector3d& direction,
                                     double tMin, double tMax) const
{
    // Only the stretch of the ray low enough to touch a roof or a crown can meet one: its cells are searched.
    const geom::Point3d end = origin + direction * tMax;
    double tTop = tMin;
    if (direction.z < 0.0)
    {
        const double top = groundHeight(end.x, end.y) + kMaxObjectHeight;
        tTop = std::max(tMin, (top - origin.z) / direction.z);
    }
    const geom::Point3d start = origin + direction * std::min(tTop, tMax);
    const int x0 = std::clamp(int(std::floor(std::min(start.x, end.x) / kCell)), 0, kCells - 1);
    const int x1 = std::clamp(int(std::floor(std::max(start.x, end.x) / kCell)), 0, kCells - 1);
    const int y0 = std::clamp(int(std::floor(std::min(start.y, end.y) / kCell)), 0, kCells - 1);
    const int y1 = std::clamp(int(std::floor(std::max(start.y, end.y) / kCell)), 0, kCells - 1);

    SurfaceHit best;
    best.t = tMax;
    bool found = false;
    const geom::Vector3d o = origin - geom::Point3d();
    for (int cy = y0; cy <= y1; ++cy)
        for (int cx = x0; cx <= x1; ++cx)
        {
            // Buildings: where the ray enters the convex solid, by the last of its half-spaces it enters.
            for (const uint32_t index : cell(cx, cy, true))
            {
                const Building& building = m_buildings[index];
                double enter = tMin;
                double leave = best.t;
                int through = -1;
                for (int i = 0; i < building.planeCount && enter <= leave; ++i)
                {
                    const Plane& plane = building.planes[size_t(i)];
                    const double towards = plane.normal.dot(direction);
                    const double room = plane.offset - plane.normal.dot(o);
                    if (towards == 0.0)
                    {
                        if (room < 0.0)
                            enter = leave + 1.0;  // parallel and outside: no hit
                        continue;
                    }
                    const double t = room / towards;
                    if (towards < 0.0 && t > enter)
                    {
                        enter = t;
                        through = i;
                    }
                    else if (towards > 0.0)
                        leave = std::min(leave, t);
                }
                if (through < 0 || enter > leave || enter >= best.t)
                    continue;  // missed, or started inside, or behind what is already found
                const Plane& face = building.planes[size_t(through)];
                best.t = enter;
                best.normal = face.normal;
                best.surface = std::fabs(face.normal.z) < 0.1 ? Surface::kWall : building.roof;
                best.object = index;
                found = true;
            }
            // Crowns: the ray against each ellipsoid, scaled to a unit sphere.
            for (const uint32_t index : cell(cx, cy, false))
            {
                const Tree& tree = m_trees[index];
                const geom::Vector3d scale(1.0 / tree.radius, 1.0 / tree.radius, 1.0 / tree.halfHeight);
                const geom::Vector3d rel = origin - tree.crown;
                const geom::Vector3d p(rel.x * scale.x, rel.y * scale.y, rel.z * scale.z);
                const geom::Vector3d d(direction.x * scale.x, direction.y * scale.y, direction.z * scale.z);
                const double a = d.dot(d);
                const double b = p.dot(d);
                const double c = p.dot(p) - 1.0;
                const double discriminant = b * b - a * c;
                if (discriminant <= 0.0)
                    continue;
                const double root = std::sqrt(discriminant);
                const double leave = (-b + root) / a;
                const double enter = std::max((-b - root) / a, tMin);  // a ray may start inside a crown
                if (leave <= tMin || enter >= best.t)
                    continue;
                const geom::Vector3d at = rel + direction * enter;
                best.t = enter;
                best.tExit = leave;
                best.normal = geom::Vector3d(at.x * scale.x * scale.x, at.y * scale.y * scale.y,
                                             at.z * scale.z * scale.z)
                                  .normal();
                best.surface = Surface::kCrown;
                best.object = index;
                found = true;
            }
        }
    if (!found)
        return SurfaceHit{};
    return best;
}

}  // namespace pcp_sample
