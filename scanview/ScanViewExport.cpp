// The two pictures of a scan view: the colour view and the normal map. Both are written mirrored, column c of
// the grid going to column width - 1 - c, so that they read as seen from inside the sphere, with the nearness
// of each point in alpha, and with their small holes filled.
#include <algorithm>
#include <cmath>

#include <opencv2/core.hpp>

#include "core/StringConversion.h"
#include "scanview/HoleFilling.h"
#include "scanview/PngWrite.h"
#include "scanview/ScanView.h"

namespace pc_preprocess
{

namespace
{

// Alpha encodes nearness: opaque at the scanner, transparent at the farthest point. A point at distance 0
// gets 0 as well, since it says nothing about a surface.
uint16_t nearness(double distance, double rootOfMaxDistance)
{
    if (distance == 0.0)
        return 0;
    const double alpha = std::trunc((1.0 - std::sqrt(distance) / rootOfMaxDistance) * 65535.0);
    return static_cast<uint16_t>(std::clamp(alpha, 0.0, 65535.0));
}

std::wstring picturePath(const std::wstring& folder, const std::wstring& name, const std::wstring& suffix)
{
    return toWide(toPath(folder) / toPath(name + L"-" + suffix + L".png"));
}

geom::Vector3d positionOf(const ScanView::PixelData& pixel)
{
    return {pixel.x, pixel.y, pixel.z};
}

// A neighbour difference that runs almost along the line of sight sees the surface too flatly for a normal:
// less than a tenth of its length is left across the line of sight.
bool grazing(const geom::Vector3d& difference, const geom::Vector3d& lineOfSight)
{
    const geom::Vector3d across = difference - lineOfSight * difference.dot(lineOfSight);
    return across.dot(across) <= 0.01 * difference.dot(difference);
}

}  // namespace

std::wstring ScanView::exportViewPng(const std::wstring& folder, const std::wstring& name,
                                     const std::wstring& suffix) const
{
    const int rows = static_cast<int>(m_height);
    const int columns = static_cast<int>(m_width);
    cv::Mat image(rows, columns, CV_16UC4);
    const double root = std::sqrt(m_maxDistance);
    for (int row = 0; row < rows; ++row)
    {
        cv::Vec4w* out = image.ptr<cv::Vec4w>(row);
        for (int column = 0; column < columns; ++column)
        {
            const PixelData& pixel = at(column, row);
            const uint16_t alpha = pixel.hasPoint() ? nearness(pixel.distance, root) : 0;
            out[columns - 1 - column] = cv::Vec4w(pixel.blue, pixel.green, pixel.red, alpha);
        }
    }
    fillHoles(image);
    const std::wstring path = picturePath(folder, name, suffix);
    pngWrite(path, image);
    return path;
}

std::wstring ScanView::exportNormalPng(const std::wstring& folder, const std::wstring& name,
                                       const std::wstring& suffix) const
{
    const int rows = static_cast<int>(m_height);
    const int columns = static_cast<int>(m_width);
    // Pixels without a normal stay transparent black, which is what hole filling looks for.
    cv::Mat image = cv::Mat::zeros(rows, columns, CV_16UC4);
    const double root = std::sqrt(m_maxDistance);
    // The neighbours three pixels on give a baseline long enough that range noise does not swamp the normal.
    constexpr int kStep = 3;
    for (int row = 0; row + kStep < rows; ++row)
    {
        cv::Vec4w* out = image.ptr<cv::Vec4w>(row);
        for (int column = 0; column < columns; ++column)
        {
            const PixelData& a = at(column, row);
            const PixelData& b = at((column + kStep) % columns, row);
            const PixelData& c = at(column, row + kStep);
            if (!a.hasPoint() || !b.hasPoint() || !c.hasPoint() || a.distance == 0.0)
                continue;
            const geom::Vector3d lineOfSight = positionOf(a) * (1.0 / a.distance);
            const geom::Vector3d ab = positionOf(b) - positionOf(a);
            const geom::Vector3d ac = positionOf(c) - positionOf(a);
            if (grazing(ab, lineOfSight) || grazing(ac, lineOfSight))
                continue;
            // Along the row the azimuth grows and down the column the polar angle, so this cross product
            // faces the scanner.
            const geom::Vector3d cross = ab.cross(ac);
            const double length = cross.length();
            const geom::Vector3d normal = length > 0.0 ? cross * (1.0 / length) : cross;
            const std::array<uint16_t, 3> colour = normal2color(normal);
            out[columns - 1 - column] =
                cv::Vec4w(colour[0], colour[1], colour[2], nearness(a.distance, root));
        }
    }
    fillHoles(image);
    const std::wstring path = picturePath(folder, name, suffix);
    pngWrite(path, image);
    return path;
}

std::array<double, 3> color2normal(uint16_t r, uint16_t g, uint16_t b)
{
    constexpr double kStep = 1.0 / 32768.0;
    return {r * kStep - 1.0, g * kStep - 1.0, b * kStep - 1.0};
}

std::array<uint16_t, 3> normal2color(const geom::Vector3d& normal)
{
    const auto channel = [](double c)
    {
        const double value = std::min(65535.0, (c + 1.0) * 32768.0);
        return static_cast<uint16_t>(value > 0.0 ? std::trunc(value) : 0.0);
    };
    return {channel(normal.z), channel(normal.y), channel(normal.x)};
}

}  // namespace pc_preprocess
