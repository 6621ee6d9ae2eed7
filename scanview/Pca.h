#pragma once

#include <array>
#include <cstdint>
#include <utility>
#include <vector>

#include "core/Export.h"
#include "geom/Point3d.h"
#include "geom/Vector3d.h"

// Surface normals of point neighbourhoods by principal component analysis: the direction in which the points
// spread least. The sign is the eigen solver's; nothing here orients a normal towards a viewpoint.
namespace pc_preprocess_matrixtools
{

// The normal of a flat neighbourhood, or the zero vector for fewer than 3 points and for neighbourhoods that
// are not flat enough: the smallest spread must stay below 0.09 times the middle one, which also rules out
// points on a line.
PCP_API geom::Vector3d computeNormal(const std::vector<geom::Point3d>& points);

// The direction of least spread, without the flatness test, and the surface variation: the smallest
// eigenvalue over the sum of all three, 0 on a plane and 1/3 for points spread evenly in space. The zero
// vector and 0 for fewer than 3 points or points that all coincide.
PCP_API std::pair<geom::Vector3d, double> computeNormalAndCurvature(const std::vector<geom::Point3d>& points);

// computeNormal from running sums over count points: products holds the sums of xx, xy, xz, yy, yz and zz,
// sums those of x, y and z. The covariance is the difference of two large terms, so the coordinates should
// be taken relative to a point near the neighbourhood.
PCP_API geom::Vector3d principalComponentAnalysis(const std::array<double, 6>& products,
                                                  const std::array<double, 3>& sums, uint32_t count);

}  // namespace pc_preprocess_matrixtools
