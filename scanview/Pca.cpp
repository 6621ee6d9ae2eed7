#include "scanview/Pca.h"

#include <algorithm>
#include <cmath>
#include <optional>

#include <Eigen/Eigenvalues>

namespace pc_preprocess_matrixtools
{

namespace
{

constexpr size_t kFewestPoints = 3;
constexpr double kFlatness = 0.09;

struct Spread
{
    std::array<double, 3> values;           // ascending
    std::array<geom::Vector3d, 3> vectors;  // unit, in the order of the values
};

// The eigen decomposition of a covariance matrix. The solver works on the matrix divided by its largest
// entry, so that tiny and huge neighbourhoods are solved alike, and the values are scaled back. Values that
// are only the solver's rounding noise next to the largest become 0: a line or a point must not turn into a
// plane because noise gave its zero spreads a sign. Nothing for a zero or non-finite matrix.
std::optional<Spread> decompose(const Eigen::Matrix3d& covariance)
{
    const double largest = covariance.cwiseAbs().maxCoeff();
    if (!(largest > 0.0) || !std::isfinite(largest))
        return std::nullopt;
    const Eigen::SelfAdjointEigenSolver<Eigen::Matrix3d> solver(covariance / largest);
    if (solver.info() != Eigen::Success)
        return std::nullopt;
    Spread spread;
    const double noise = 1e-12 * std::fabs(solver.eigenvalues()(2));
    for (int i = 0; i < 3; ++i)
    {
        const double value = solver.eigenvalues()(i);
        spread.values[i] = std::fabs(value) <= noise ? 0.0 : value * largest;
        const auto v = solver.eigenvectors().col(i);
        spread.vectors[i] = geom::Vector3d(v(0), v(1), v(2));
    }
    return spread;
}

geom::Vector3d flatNormal(const std::optional<Spread>& spread)
{
    if (spread && kFlatness * spread->values[1] > spread->values[0])
        return spread->vectors[0];
    return {};
}

// The covariance of the points around their mean, taken in two passes so that points far from the origin
// lose no precision.
Eigen::Matrix3d covarianceOf(const std::vector<geom::Point3d>& points)
{
    Eigen::Vector3d mean = Eigen::Vector3d::Zero();
    for (const geom::Point3d& p : points)
        mean += Eigen::Vector3d(p.x, p.y, p.z);
    mean /= static_cast<double>(points.size());
    Eigen::Matrix3d covariance = Eigen::Matrix3d::Zero();
    for (const geom::Point3d& p : points)
    {
        const Eigen::Vector3d d = Eigen::Vector3d(p.x, p.y, p.z) - mean;
        covariance.noalias() += d * d.transpose();
    }
    return covariance / static_cast<double>(points.size());
}

}  // namespace

geom::Vector3d computeNormal(const std::vector<geom::Point3d>& points)
{
    if (points.size() < kFewestPoints)
        return {};
    return flatNormal(decompose(covarianceOf(points)));
}

std::pair<geom::Vector3d, double> computeNormalAndCurvature(const std::vector<geom::Point3d>& points)
{
    if (points.size() < kFewestPoints)
        return {{}, 0.0};
    const std::optional<Spread> spread = decompose(covarianceOf(points));
    if (!spread)
        return {{}, 0.0};
    const double total = spread->values[0] + spread->values[1] + spread->values[2];
    return {spread->vectors[0], spread->values[0] / total};
}

geom::Vector3d principalComponentAnalysis(const std::array<double, 6>& products,
                                          const std::array<double, 3>& sums, uint32_t count)
{
    if (count < kFewestPoints)
        return {};
    const double n = count;
    const Eigen::Vector3d mean(sums[0] / n, sums[1] / n, sums[2] / n);
    Eigen::Matrix3d covariance;
    covariance << products[0] / n, products[1] / n, products[2] / n,  //
        products[1] / n, products[3] / n, products[4] / n,            //
        products[2] / n, products[4] / n, products[5] / n;
    covariance -= mean * mean.transpose();
    return flatNormal(decompose(covariance));
}

}  // namespace pc_preprocess_matrixtools
