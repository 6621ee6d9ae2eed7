#include "scanview/ScanView.h"

#include <sys/mman.h>

#include <algorithm>
#include <cmath>
#include <numbers>

#include "scanview/BitShift.h"

namespace pc_preprocess
{

namespace
{

constexpr ScanView::PixelData kEmptyPixel{ScanView::kEmptyDistance, 0.0, 0.0, 0.0, 0, 0, 0, 0};
constexpr uint64_t kNothingToShow = ~uint64_t(0);

// The share of the unit sphere's height (2 in all) that each row stands for. Band i lies between the polar
// angles (i - 1) * step + 0.5 and i * step + 0.5, shifted by half a radian rather than by half a row, and the
// last row takes the rest down to the pole. Filled areas measured with exactly this table go into the meta
// files and from there into the point sizes of the tree, so the table must not drift towards exact bands.
void buildRowWeights(std::vector<double>& weights)
{
    constexpr double kRowAngle = std::numbers::pi / ScanView::kFullHeight;
    const auto c = [](uint64_t row) { return std::cos(row * kRowAngle + 0.5); };
    weights.resize(ScanView::kFullHeight);
    weights[0] = 1.0 - c(0);
    for (uint64_t row = 1; row < ScanView::kFullHeight; ++row)
        weights[row] = c(row - 1) - c(row);
    weights[ScanView::kFullHeight - 1] += c(ScanView::kFullHeight - 1) + 1.0;
}

// A hint only: where the system has no large pages to give, the grid works as it is.
void adviseLargePages(void* data, size_t bytes)
{
    constexpr uintptr_t kLargePage = uintptr_t(2) << 20;
    const uintptr_t begin = (reinterpret_cast<uintptr_t>(data) + kLargePage - 1) & ~(kLargePage - 1);
    const uintptr_t end = (reinterpret_cast<uintptr_t>(data) + bytes) & ~(kLargePage - 1);
    if (end > begin)
        madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
}

}  // namespace

ScanView::ScanView()
{
    // Scans arrive column by column, each point a whole grid row away from the one before: on small pages
    // nearly every insert would miss the address cache. Large pages are asked for before the grid is touched.
    m_pixels.reserve(kFullHeight * kFullWidth);
    adviseLargePages(m_pixels.data(), m_pixels.capacity() * sizeof(PixelData));
    m_pixels.assign(kFullHeight * kFullWidth, kEmptyPixel);
    buildRowWeights(m_rowWeights);
}

void ScanView::resetData()
{
    m_height = kFullHeight;
    m_width = kFullWidth;
    m_nrPoints = 0;
    m_maxDistance = 0.0;
    std::fill(m_pixels.begin(), m_pixels.end(), kEmptyPixel);
    // resize shrinks the table in place, so its capacity is still there.
    if (m_rowWeights.size() != kFullHeight)
        buildRowWeights(m_rowWeights);
}

void ScanView::insert(std::vector<IoLightPoint>& points, const IoTransfo& transfo,
                      const std::array<double, 3>& position, bool colorOnly)
{
    m_nrPoints += points.size();
    const double height = static_cast<double>(m_height);
    const double width = static_cast<double>(m_width);
    bool batchEnded = false;
    for (IoLightPoint& point : points)
    {
        const double dx = transfo.offset[0] + point.x * transfo.scale[0] - position[0];
        const double dy = transfo.offset[1] + point.y * transfo.scale[1] - position[1];
        const double dz = transfo.offset[2] + point.z * transfo.scale[2] - position[2];
        const double distance = std::sqrt(dx * dx + dy * dy + dz * dz);
        // The caller writes the batch out with this distance, so every point gets it, also those that the
        // panorama no longer takes.
        point.radius = static_cast<float>(distance);
        if (batchEnded)
            continue;
        // Straight above or below the scanner the azimuth means nothing. Such a point ends what the panorama
        // takes from this batch.
        if (std::fabs(dx) < 1e-10 && std::fabs(dy) < 1e-10)
        {
            batchEnded = true;
            continue;
        }
        if (!std::isfinite(distance))
            continue;

        const double azimuth = std::atan2(dy, dx);
        const double polar = std::acos(std::clamp(dz / distance, -1.0, 1.0));
        m_maxDistance = std::max(m_maxDistance, distance);
        // Rows and columns address pixel corners: row 0 holds only the half band around the pole.
        const uint64_t row =
            std::min(static_cast<uint64_t>(std::round(height * polar / std::numbers::pi)), m_height - 1);
        const uint64_t column =
            std::min(static_cast<uint64_t>(
                         std::round(width * (azimuth + std::numbers::pi) / (2.0 * std::numbers::pi))),
                     m_width - 1);
        PixelData& pixel = m_pixels[row * kFullWidth + column];

        if (colorOnly)
        {
            // Camera images colour only what the laser left empty; a later image paints over an earlier one.
            if (pixel.hasPoint())
                continue;
            pixel.red = point.r;
            pixel.green = point.g;
            pixel.blue = point.b;
            pixel.extra = point.intensity;
            continue;
        }

        // The nearest point wins; of two at the same distance the first stays.
        if (!(pixel.distance > distance))
            continue;
        uint16_t red = point.r;
        uint16_t green = point.g;
        uint16_t blue = point.b;
        if ((red | green | blue) == 0)
        {
            // A scan without colour shows its intensity in grey; a point without either shows nothing.
            if (point.intensity == 0)
                continue;
            red = green = blue = point.intensity;
        }
        pixel = {distance, dx, dy, dz, red, green, blue, point.intensity};
    }
}

uint64_t ScanView::resize(uint64_t shift)
{
    if (m_nrPoints == 0)
        return kNothingToShow;
    if (shift == 0)
        shift = determineBitShift(*this);
    if (shift == 0)
        return m_width;
    // The grid must keep more than four rows; the bound on the shift also keeps the factor from overflowing.
    if (shift >= 32 || (uint64_t(4) << shift) >= m_height)
        return kNothingToShow;
    const uint64_t factor = uint64_t(1) << shift;

    const uint64_t newHeight = m_height / factor;
    const uint64_t newWidth = m_width / factor;
    // Each new pixel lands at or before the first pixel of its block, at the fixed stride, so no block is
    // overwritten before it has been read.
    for (uint64_t newRow = 0; newRow < newHeight; ++newRow)
        for (uint64_t newColumn = 0; newColumn < newWidth; ++newColumn)
        {
            PixelData best = kEmptyPixel;
            for (uint64_t row = newRow * factor; row < (newRow + 1) * factor; ++row)
            {
                const PixelData* block = &m_pixels[row * kFullWidth + newColumn * factor];
                // The nearest point wins, of equals the later one. A block without points keeps a colour
                // that a camera painted into it, wherever in the block that colour lies.
                for (uint64_t column = 0; column < factor; ++column)
                {
                    const PixelData& pixel = block[column];
                    const bool painted = (pixel.red | pixel.green | pixel.blue) != 0;
                    if (pixel.hasPoint() ? pixel.distance <= best.distance : !best.hasPoint() && painted)
                        best = pixel;
                }
            }
            m_pixels[newRow * kFullWidth + newColumn] = best;
        }

    for (uint64_t newRow = 0; newRow < newHeight; ++newRow)
    {
        double weight = 0.0;
        for (uint64_t row = newRow * factor; row < (newRow + 1) * factor; ++row)
            weight += m_rowWeights[row];
        m_rowWeights[newRow] = weight;
    }
    m_rowWeights.resize(newHeight);

    m_height = newHeight;
    m_width = newWidth;
    return m_width;
}

double ScanView::filledAreaUnitSphere() const
{
    double weightedPixels = 0.0;
    for (uint64_t row = 0; row < m_height; ++row)
    {
        const PixelData* line = &m_pixels[row * kFullWidth];
        const auto filled =
            std::count_if(line, line + m_width, [](const PixelData& p) { return p.hasPoint(); });
        weightedPixels += static_cast<double>(filled) * m_rowWeights[row];
    }
    return weightedPixels * (2.0 * std::numbers::pi / static_cast<double>(m_width));
}

}  // namespace pc_preprocess
