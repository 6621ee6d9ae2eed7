#include "cachefiles/RealPoints.h"

#include <stdexcept>

namespace pc_preprocess
{

namespace
{

// Throws message unless there are n points, and three colours and one intensity and radius per point.
void checkArraySizes(uint64_t n, const std::vector<geom::Point3d>& points, const std::vector<float>& colours,
                     const std::vector<float>& intensities, const std::vector<float>& radii,
                     const std::string& message)
{
    if (points.size() != n || colours.size() / 3 != n || colours.size() % 3 != 0 || intensities.size() != n ||
        radii.size() != n)
        throw std::runtime_error(message);
}

}  // namespace

void decodeIntoArrays(const NodeBytes& node, const std::string& sizeMessage,
                      std::vector<geom::Point3d>& points, std::vector<float>& colours,
                      std::vector<float>& intensities, std::vector<float>& radii)
{
    checkArraySizes(node.numPoints, points, colours, intensities, radii, sizeMessage);
    forEachPoint(node, RealArraysFromGridPoints(node.header.transfo, points, colours, intensities, radii));
}

void checkArraysForWriting(const IoTransfo& transfo, const std::vector<geom::Point3d>& points,
                           const std::vector<float>& colours, const std::vector<float>& intensities,
                           const std::vector<float>& radii, const std::string& writerPrefix)
{
    checkArraySizes(points.size(), points, colours, intensities, radii,
                    writerPrefix + ": sizes of vector<OdGePoint3d> and vector<float> incompatible.");
    if (!transfo.hasPositiveScale())
        throw std::runtime_error(writerPrefix + ": transfo has non-positive scale factors.");
}

}  // namespace pc_preprocess
