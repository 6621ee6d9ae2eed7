#include "scanview/StructuredNormalCalculator.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <numbers>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>

#include "cachefiles/FileDescriptor.h"
#include "cachefiles/MappedFile.h"
#include "cachefiles/MetaFile.h"
#include "core/StringConversion.h"
#include "scanview/ScanView.h"

namespace pc_preprocess
{

namespace
{

struct ScanRecord
{
    geom::Point3d position;
    cv::Mat normals;  // four 16-bit channels, mirrored as exported; empty when the scan has none
};

// The decoded normal map, or an empty matrix when the file cannot be read or holds something else. The bytes
// are read here rather than by the decoder from a path, so that any file name works.
cv::Mat readNormalMap(const std::wstring& path)
{
    try
    {
        const MappedFile file = MappedFile::openReadOnly(toPath(path));
        const std::span<const uint8_t> bytes = file.bytes();
        if (bytes.empty() || bytes.size() > size_t(INT_MAX))
            return {};
        const cv::Mat encoded(1, static_cast<int>(bytes.size()), CV_8U, const_cast<uint8_t*>(bytes.data()));
        cv::Mat decoded = cv::imdecode(encoded, cv::IMREAD_UNCHANGED);
        if (decoded.dims > 2 || decoded.type() != CV_16UC4)
            return {};
        return decoded;
    }
    catch (const FileError&)
    {
        return {};
    }
    catch (const cv::Exception&)
    {
        return {};
    }
}

}  // namespace

struct StructuredNormalCalculator::Implementation
{
    bool activated = false;
    bool hasNormalImages = false;
    bool useNormals = false;
    std::map<uint64_t, ScanRecord> scans;
};

StructuredNormalCalculator::StructuredNormalCalculator(const std::vector<ScanFiles>& scans, bool load,
                                                       bool disable, bool useNormals)
    : m_implementation(std::make_unique<Implementation>())
{
    Implementation& self = *m_implementation;
    self.hasNormalImages = !disable && std::any_of(scans.begin(), scans.end(),
                                                   [](const ScanFiles& s) { return !s.normalPng.empty(); });
    if (!load || !self.hasNormalImages || !useNormals)
        return;
    self.activated = true;
    self.useNormals = useNormals;
    for (size_t id = 0; id < scans.size(); ++id)
    {
        if (scans[id].normalPng.empty())
            continue;
        const MetaData meta = readMetaFile(scans[id].metaFile);
        self.scans[id] = {{meta.position[0], meta.position[1], meta.position[2]},
                          readNormalMap(scans[id].normalPng)};
    }
}

StructuredNormalCalculator::StructuredNormalCalculator(
    const std::map<uint64_t, std::pair<geom::Point3d, std::wstring>>& scans, bool useNormals)
    : m_implementation(std::make_unique<Implementation>())
{
    Implementation& self = *m_implementation;
    self.activated = true;
    self.useNormals = useNormals;
    for (const auto& [id, scan] : scans)
    {
        if (scan.second.empty())
            continue;
        self.hasNormalImages = true;
        self.scans[id] = {scan.first, readNormalMap(scan.second)};
    }
}

StructuredNormalCalculator::~StructuredNormalCalculator() = default;
StructuredNormalCalculator::StructuredNormalCalculator(StructuredNormalCalculator&&) noexcept = default;
StructuredNormalCalculator& StructuredNormalCalculator::operator=(StructuredNormalCalculator&&) noexcept =
    default;

bool StructuredNormalCalculator::isActivated() const
{
    return m_implementation->activated;
}

std::pair<geom::Vector3d, double> StructuredNormalCalculator::getNormalAndSize(const geom::Point3d& point,
                                                                               uint16_t scanId) const
{
    const Implementation& self = *m_implementation;
    if (!self.activated || !self.hasNormalImages)
        return {{}, 0.0};
    const auto found = self.scans.find(scanId);
    if (found == self.scans.end() || found->second.normals.empty())
        return {{}, 0.0};
    const ScanRecord& scan = found->second;
    const geom::Vector3d d = point - scan.position;
    const double size = d.length();
    if (!self.useNormals)
        return {{}, size};

    // The mapping of ScanView::insert, on the grid the map was exported at.
    const int height = scan.normals.rows;
    const int width = scan.normals.cols;
    const double row = std::round(std::acos(std::clamp(d.z / size, -1.0, 1.0)) / std::numbers::pi * height);
    const double column =
        std::round((std::atan2(d.y, d.x) + std::numbers::pi) / (2.0 * std::numbers::pi) * width);
    // A point at the scan position has no direction.
    if (!(row >= 0.0 && column >= 0.0))
        return {{}, 0.0};
    const int r = std::min(static_cast<int>(std::min(row, double(height))), height - 1);
    const int c = std::min(static_cast<int>(std::min(column, double(width))), width - 1);
    // The map is mirrored: grid column c is picture column width - 1 - c.
    const cv::Vec4w& pixel = scan.normals.ptr<cv::Vec4w>(r)[width - 1 - c];
    const std::array<double, 3> n = color2normal(pixel[2], pixel[1], pixel[0]);
    const geom::Vector3d normal(n[0], n[1], n[2]);
    // Holes and transparent filler decode far from unit length.
    const double length = normal.length();
    if (length > 0.9000000001 && length < 1.0999999999)
        return {normal, size};
    return {{}, 0.0};
}

}  // namespace pc_preprocess
