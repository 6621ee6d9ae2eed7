#pragma once

#include <array>
#include <cstdint>
#include <limits>
#include <vector>

#include "geom/Point3d.h"
#include "geom/Vector3d.h"

namespace pcp_sample
{

// What a ray meets in the outdoor sample.
enum class Surface : uint8_t
{
    kField,  // open ground: meadow, crops, ploughed soil
    kRoad,
    kTiledRoof,
    kFlatRoof,
    kWall,
    kCrown,  // the foliage of a tree
};

// Red, green and blue from 0 to 1.
struct Rgb
{
    double r = 0.0;
    double g = 0.0;
    double b = 0.0;
};

// Where a ray meets a building or a tree crown.
struct SurfaceHit
{
    double t = std::numeric_limits<double>::infinity();  // along the ray, whose direction is a unit vector
    double tExit = 0.0;                                  // crowns: where the ray leaves the foliage again
    geom::Vector3d normal;                               // unit, facing the ray's origin
    Surface surface = Surface::kField;
    uint32_t object = 0;  // the building or the tree

    bool found() const { return t != std::numeric_limits<double>::infinity(); }
};

// The outdoor sample: rolling country of 500 m square in the tile's own frame (x east, y north, z up in
// metres above sea level, the origin at the south-west corner), with fields, a winding road, a village of
// houses with pitched roofs and blocks with flat ones along it, two farm buildings, trees in a row along the
// road, scattered, and in a wood. Made of fixed numbers and a seeded generator: the same scene every time.
class TerrainScene
{
public:
    static constexpr double kSize = 500.0;
    // No roof or crown stands this high above the ground below it.
    static constexpr double kMaxObjectHeight = 40.0;

    TerrainScene();

    double groundHeight(double x, double y) const;
    geom::Vector3d groundNormal(double x, double y) const;
    Surface groundSurface(double x, double y) const;

    // The first building or crown along the ray between tMin and tMax; not found() when there is none.
    SurfaceHit castObjects(const geom::Point3d& origin, const geom::Vector3d& direction, double tMin,
                           double tMax) const;

    // The colour at p of what was hit, as an aerial photograph shows it from above.
    Rgb colour(const SurfaceHit& hit, const geom::Point3d& p) const;
    Rgb groundColour(double x, double y) const;
    // How strongly the surface returns the scanner's infrared light, from 0 to 1.
    static double reflectance(Surface surface);

private:
    // A half-space: the points p with normal . p <= offset.
    struct Plane
    {
        geom::Vector3d normal;
        double offset = 0.0;
    };
    // A building is a convex solid: four walls, a floor below the ground, and one flat roof plane or the two
    // planes of a gable roof.
    struct Building
    {
        std::array<Plane, 7> planes;
        int planeCount = 0;
        Surface roof = Surface::kFlatRoof;
        Rgb roofColour;
        Rgb wallColour;
    };
    // An ellipsoid of foliage; conifers are tall and narrow.
    struct Tree
    {
        geom::Point3d crown;  // centre
        double radius = 0.0;  // across
        double halfHeight = 0.0;
        Rgb colour;
    };
    struct Footprint
    {
        double minX, minY, maxX, maxY;
    };

    static constexpr double kCell = 10.0;  // side of the lookup cells
    static constexpr int kCells = int(kSize / kCell);
    static constexpr int kHeightSamples = int(kSize) + 1;  // one per metre, both ends included

    double roadCentre(double x) const;
    void addBuilding(double x, double y, double heading, double length, double width, double eaves,
                     double ridgeRise, const Rgb& roof, const Rgb& wall);
    void addTree(double x, double y, double crownBase, double radius, double halfHeight, const Rgb& colour);
    // Inside the tile, off the road, and at least `clearance` from every building.
    bool isFree(double x, double y, double clearance) const;
    void index(const Footprint& box, uint32_t object, bool building);
    std::vector<uint32_t>& cell(int cx, int cy, bool building);
    const std::vector<uint32_t>& cell(int cx, int cy, bool building) const;

    std::vector<float> m_heights;  // kHeightSamples x kHeightSamples, row by row from the south
    std::vector<Building> m_buildings;
    std::vector<Footprint> m_footprints;  // of the buildings
    std::vector<Tree> m_trees;
    std::vector<std::vector<uint32_t>> m_cellBuildings;  // kCells x kCells lists of what overlaps each cell
    std::vector<std::vector<uint32_t>> m_cellTrees;
};

}  // namespace pcp_sample
