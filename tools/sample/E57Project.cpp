#include "sample/E57Project.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <numbers>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>

#include "sample/E57Writer.h"
#include "sample/SampleScene.h"

namespace pcp_sample
{

namespace
{

struct Station
{
    geom::Point3d scanner;
    double headingDegrees;
};

const Station kStations[] = {{{1.6, 1.3, 1.55}, 0.0}, {{4.4, 2.6, 1.45}, 35.0}};

// The scan of one station in the scanner's own frame, as a real scanner records it.
E57Scan stationScan(const Station& station, const ScanGrid& grid, size_t index)
{
    const std::vector<SampleHit> hits = scanRoom(station.scanner, grid);
    const double heading = station.headingDegrees * std::numbers::pi / 180.0;
    const double c = std::cos(heading);
    const double s = std::sin(heading);

    E57Scan scan;
    scan.guid = "room-scan-" + std::to_string(index);
    scan.name = "Station " + std::to_string(index + 1);
    scan.spherical = true;
    scan.coordinateStorage = E57Storage::Float;
    scan.coordinateLimit = 100.0;
    scan.pose = E57Pose{{std::cos(heading / 2), 0.0, 0.0, std::sin(heading / 2)},
                        {station.scanner.x, station.scanner.y, station.scanner.z}};
    scan.rowMaximum = grid.rows - 1;
    scan.columnMaximum = grid.columns - 1;
    E57Points& p = scan.points;
    for (size_t k = 0; k < hits.size(); ++k)
    {
        const SampleHit& hit = hits[k];
        const geom::Vector3d w = hit.position - station.scanner;
        // The scanner's own frame: world = R * local + t, so local = R^T (world - t).
        const double lx = c * w.x + s * w.y;
        const double ly = -s * w.x + c * w.y;
        const double range = w.length();
        const bool hidden = hiddenByTripod(hit, station.scanner);
        p.coordinates[0].push_back(hidden ? 0.0 : range);
        p.coordinates[1].push_back(std::atan2(ly, lx));
        p.coordinates[2].push_back(std::asin(std::clamp(w.z / range, -1.0, 1.0)));
        p.invalidState.push_back(hidden ? 1 : 0);
        p.intensity.push_back(hit.intensity / 65535.0);
        p.color[0].push_back(hit.r >> 8);
        p.color[1].push_back(hit.g >> 8);
        p.color[2].push_back(hit.b >> 8);
        p.columnIndex.push_back(int64_t(k) / grid.rows);
        p.rowIndex.push_back(int64_t(k) % grid.rows);
    }
    return scan;
}

// A spherical camera picture from the scanner's position, axes along the world's: the colour of the room in
// each direction, the floor below the tripod included.
E57Image cameraPicture(const Station& station, const std::string& scanGuid)
{
    constexpr int kWidth = 1024;
    constexpr int kHeight = 512;
    // The grid's columns start at azimuth 0 and its rows at the nadir; the picture's column c looks at
    // azimuth pi - 2 pi c / width and its row r at elevation pi / 2 - pi r / height.
    const std::vector<SampleHit> hits = scanRoom(station.scanner, ScanGrid{kHeight, kWidth}, 0.0);
    cv::Mat picture(kHeight, kWidth, CV_8UC3);
    for (int r = 0; r < kHeight; ++r)
        for (int column = 0; column < kWidth; ++column)
        {
            const int gridColumn = (kWidth / 2 - column + kWidth) % kWidth;
            const SampleHit& hit = hits[size_t(gridColumn) * kHeight + size_t(kHeight - 1 - r)];
            picture.at<cv::Vec3b>(r, column) = cv::Vec3b(hit.b >> 8, hit.g >> 8, hit.r >> 8);
        }
    E57Image image;
    image.name = "Panorama camera at " + scanGuid;
    image.associatedData3DGuid = scanGuid;
    image.projection = E57ImageProjection::Spherical;
    image.width = kWidth;
    image.height = kHeight;
    image.pixelWidth = 2.0 * std::numbers::pi / kWidth;
    image.pixelHeight = std::numbers::pi / kHeight;
    image.pose = E57Pose{{1.0, 0.0, 0.0, 0.0}, {station.scanner.x, station.scanner.y, station.scanner.z}};
    cv::imencode(".jpg", picture, image.picture, {cv::IMWRITE_JPEG_QUALITY, 90});
    return image;
}

}  // namespace

uint64_t writeE57Project(const std::string& path, uint64_t points)
{
    const uint64_t perScan = std::max<uint64_t>(points / 2, 2);
    const int rows = std::max(1, int(std::sqrt(double(perScan) / 2.0)));
    const ScanGrid grid{rows, int(perScan / uint64_t(rows))};
    std::vector<E57Scan> scans;
    std::vector<E57Image> images;
    for (size_t index = 0; index < std::size(kStations); ++index)
    {
        scans.push_back(stationScan(kStations[index], grid, index));
        images.push_back(cameraPicture(kStations[index], scans.back().guid));
    }
    writeE57File(path, scans, images);
    return std::filesystem::file_size(path);
}

}  // namespace pcp_sample
