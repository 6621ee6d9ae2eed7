#pragma once

#include <array>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "core/Export.h"
#include "core/IoLightPoint.h"
#include "core/IoTransfo.h"
#include "geom/Vector3d.h"

namespace pc_preprocess
{

// The panorama ("bubble") of one scan: an equirectangular grid seen from the scanner's position that keeps,
// for every direction, the nearest point with its colour and position. Exported as a colour view and a normal
// map, both PNG with four 16-bit channels, holes filled.
//
// The grid of 2048 x 4096 pixels (320 MiB) is allocated once and reused through resetData: a worker owns one
// view and lends it to every file it converts. The row stride stays 4096 also after resize, which shrinks the
// grid in place.
class PCP_API ScanView
{
public:
    // The distance of a pixel without a point.
    static constexpr double kEmptyDistance = std::numeric_limits<double>::max();

    struct PixelData
    {
        double distance;  // to the scan position; the largest finite double marks an empty pixel
        double x;         // position relative to the scan position
        double y;
        double z;
        uint16_t red;
        uint16_t green;
        uint16_t blue;
        uint16_t extra;  // travels with the colour: the intensity of the point that left it

        bool hasPoint() const { return distance != kEmptyDistance; }
    };

    static constexpr uint64_t kFullHeight = 2048;
    static constexpr uint64_t kFullWidth = 4096;

    ScanView();

    // Back to the full empty grid, ready for the next scan or image.
    void resetData();

    uint64_t height() const { return m_height; }
    uint64_t width() const { return m_width; }
    double maxDistance() const { return m_maxDistance; }
    // Points offered to insert since the last reset, those that left no pixel included.
    uint64_t nrPoints() const { return m_nrPoints; }
    const PixelData& at(uint64_t column, uint64_t row) const { return m_pixels[row * kFullWidth + column]; }

    // Adds points seen from `position` (real coordinates); their real positions come from `transfo`. Stores
    // each point's distance from the position in its radius. A point straight above or below the position
    // ends the batch. colorOnly paints only pixels the laser left empty, as camera images do.
    void insert(std::vector<IoLightPoint>& points, const IoTransfo& transfo,
                const std::array<double, 3>& position, bool colorOnly);

    // Shrinks the grid by 2^shift in both directions, 0 choosing the coarsest grid at which the points still
    // form a closed surface. Returns the new width, or all ones when nothing can be shown.
    uint64_t resize(uint64_t shift);

    // Write folder/(name + "-" + suffix + ".png") and return that path; mirrored, so that the picture reads
    // as seen from inside the sphere. Throw "pngWrite: Could not write to <path>\nDisk full?".
    std::wstring exportViewPng(const std::wstring& folder, const std::wstring& name,
                               const std::wstring& suffix) const;
    std::wstring exportNormalPng(const std::wstring& folder, const std::wstring& name,
                                 const std::wstring& suffix) const;

    // Area of the unit sphere covered by points: 4 pi for a closed room.
    double filledAreaUnitSphere() const;

private:
    uint64_t m_height = kFullHeight;
    uint64_t m_width = kFullWidth;
    std::vector<PixelData> m_pixels;
    uint64_t m_nrPoints = 0;
    double m_maxDistance = 0.0;
    std::vector<double> m_rowWeights;
};

// A normal map's pixel to its normal and back: each channel is (c + 1) * 32768, in the order z, y, x.
PCP_API std::array<double, 3> color2normal(uint16_t r, uint16_t g, uint16_t b);
PCP_API std::array<uint16_t, 3> normal2color(const geom::Vector3d& normal);

}  // namespace pc_preprocess
