#include "importers/E57.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <sstream>

#include "core/StringConversion.h"
#include "core/StringPathConvertor.h"
#include "e57/CompressedVectorReader.h"
#include "e57/E57Exception.h"
#include "e57/ImageFile.h"
#include "importers/e57/PoseAndLimits.h"
#include "importers/e57/ReaderErrors.h"
#include "services/Translate.h"

namespace pc_preprocess
{

namespace
{

constexpr size_t kBufferSize = 65536;
// Many scanners write a missing return as a point at the origin.
constexpr double kZeroPoint = 1e-8;

bool hasAll(const e57::Node& prototype, std::initializer_list<const char*> fields)
{
    return std::all_of(fields.begin(), fields.end(), [&](const char* f) { return prototype.has(f); });
}

// The 16-bit value of a colour or intensity, or -1 when it falls outside [0, 65536).
double scaled16(double value, double offset, double factor)
{
    const double result = (value - offset) * factor;
    return result >= 0.0 && result < 65536.0 ? result : -1.0;
}

}  // namespace

E57::E57(const std::wstring& path, double scale, const ColorMode& colorMode)
    : Convertor(path, scale, colorMode)
{
    if (colorMode.rgb != kRgb16Bit || colorMode.intensity != kIntensity16Bit)
        throw std::runtime_error("E57 error: RGB and Intensity mode should be 16-bit.");
}

E57::~E57() = default;

std::runtime_error E57::error(const std::string& text) const
{
    return std::runtime_error("E57 error: Could not parse " + ws2s(m_path) + "\n\t" + text + "\n");
}

std::runtime_error E57::error(const e57::E57Exception& e) const
{
    return error(describeE57Exception(e));
}

bool E57::hasScanViews() const
{
    return m_nrScans > 1 || m_hasRowIndex || m_hasColumnIndex;
}

SupportedAttributes E57::getSupportedAttributes()
{
    SupportedAttributes attributes;
    attributes.scanId = m_nrScans > 1;
    attributes.classification = m_hasClasses;
    attributes.color = m_hasColor;
    attributes.intensity = m_hasIntensity;
    attributes.normals = m_hasNormals;
    return attributes;
}

void E57::openGroup()
{
    closeGroup();
    m_pointsDelivered = 0;
    m_pointsSkipped = 0;
    m_workDone = 0;
    m_images.clear();

    // The file is opened and its XML parsed once: the header report is written from the open file.
    if (StringPathConvertor(m_path).convertedInputPath().empty())
        throw error("Could not convert path " + ws2s(m_path));
    try
    {
        m_file = std::make_unique<e57::ImageFile>(toPath(m_path));
    }
    catch (const e57::E57Exception& e)
    {
        throw error("Could not open file " + ws2s(m_path) + "\n" + describeE57Exception(e));
    }
    std::ostringstream header;
    e57Header(*m_file, m_path, header);
    m_headerStr = header.str();
    m_extensions = extensionFields(m_file->namespaces());

    try
    {
        const e57::Node& root = m_file->root();
        m_formatName = root.at("formatName").stringValue;
        m_versionMajor = static_cast<int32_t>(root.at("versionMajor").numericValue());
        m_versionMinor = static_cast<int32_t>(root.at("versionMinor").numericValue());
        m_guid = root.at("guid").stringValue;
        if (const e57::Node* version = root.find("e57LibraryVersion"))
            m_e57LibraryVersion = version->stringValue;
        if (const e57::Node* metadata = root.find("coordinateMetadata"))
            m_coordinateMetadata = metadata->stringValue;

        m_nrScans = 0;
        if (const e57::Node* data3D = root.find("data3D"))
        {
            if (!data3D->isVector())
                throw error("Data of incomprehensible type.");
            m_nrScans = data3D->children.size();
            // One real scan and the device's path beside it.
            if (m_nrScans == 2)
            {
                const e57::Node& second = *data3D->children[1];
                const e57::Node* name = second.find("name");
                if (second.isStructure() && name && name->stringValue.find("Trajectory") != std::string::npos)
                    m_nrScans = 1;
            }
        }
    }
    catch (const e57::E57Exception& e)
    {
        throw error(e);
    }
}

bool E57::canOpenScan(size_t index)
{
    closeScan();
    if (index >= m_nrScans)
        return false;
    try
    {
        const e57::Node& scan = *m_file->root().at("data3D").children[index];
        if (!scan.isStructure())
            throw error("Scan nodes should be E57_STRUCTURE.");
        const e57::Node* points = scan.find("points");
        if (!points || points->type != e57::NodeType::CompressedVector || !points->prototype)
            throw error("No points were found in scan " + scan.name);
        m_scanIndex = index;
        m_pointsRemaining = points->recordCount;
        m_nrPointsScan = std::max<uint64_t>(points->recordCount, 1);
        m_workDone = static_cast<uint64_t>(filePos());

        parseHeader(scan, *points->prototype);
        extractFileTransform(scan, m_scale, m_matrix, m_translation);
        extract2DImages(scan);
        prepareBuffers(*points, *points->prototype);
    }
    catch (const e57::E57Exception& e)
    {
        throw error(e);
    }
    catch (const LimitTypeError& e)
    {
        throw error(e.what());
    }
    return true;
}

void E57::parseHeader(const e57::Node& scan, const e57::Node& prototype)
{
    m_cartesian = hasAll(prototype, {"cartesianX", "cartesianY", "cartesianZ"});
    m_hasCartesianInvalid = prototype.has("cartesianInvalidState");
    m_spherical = hasAll(prototype, {"sphericalRange", "sphericalAzimuth", "sphericalElevation"});
    m_hasSphericalInvalid = prototype.has("sphericalInvalidState");
    m_hasRowIndex = prototype.has("rowIndex");
    m_hasColumnIndex = prototype.has("columnIndex");
    m_hasIntensity = prototype.has("intensity");
    m_hasIntensityInvalid = prototype.has("isIntensityInvalid");
    const auto& normals = m_extensions.normals;
    m_hasNormals = !normals[0].empty() &&
                   hasAll(prototype, {normals[0].c_str(), normals[1].c_str(), normals[2].c_str()});
    m_hasClasses = !m_extensions.classification.empty() && prototype.has(m_extensions.classification);
    m_hasColor = hasAll(prototype, {"colorRed", "colorGreen", "colorBlue"});
    m_hasColorInvalid = prototype.has("isColorInvalid");
    if (!m_cartesian && !m_spherical)
        throw error("E57 scans should have at least one of cartesian and spherical coordinates.");
    m_useInvalidState = m_cartesian ? m_hasCartesianInvalid : m_hasSphericalInvalid;

    static const char* const kChannels[3][3] = {{"colorRed", "colorRedMinimum", "colorRedMaximum"},
                                                {"colorGreen", "colorGreenMinimum", "colorGreenMaximum"},
                                                {"colorBlue", "colorBlueMinimum", "colorBlueMaximum"}};
    for (size_t c = 0; c < 3; ++c)
    {
        const ValueRange range =
            valueRange(scan, prototype, "colorLimits", kChannels[c][1], kChannels[c][2], kChannels[c][0]);
        m_colorOffset[c] = m_hasColor ? range.offset : std::numeric_limits<double>::max();
        m_colorFactor[c] = m_hasColor ? range.factor : -1.0;
    }
    const ValueRange intensity =
        valueRange(scan, prototype, "intensityLimits", "intensityMinimum", "intensityMaximum", "intensity");
    m_intensityOffset = m_hasIntensity ? intensity.offset : std::numeric_limits<double>::max();
    m_intensityFactor = m_hasIntensity ? intensity.factor : -1.0;
}

void E57::prepareBuffers(const e57::Node& points, const e57::Node& prototype)
{
    std::vector<e57::SourceDestBuffer> sources;
    const auto doubles = [&](const std::string& field, std::vector<double>& values)
    {
        values.assign(kBufferSize, 0.0);
        const e57::Node& node = prototype.at(field);
        sources.push_back(
            e57::SourceDestBuffer::doubles(field, values, node.type == e57::NodeType::ScaledInteger));
    };
    const auto bytes = [&](const std::string& field, std::vector<uint8_t>& values)
    {
        values.assign(kBufferSize, 0);
        sources.push_back(e57::SourceDestBuffer::bytes(field, values));
    };
    Buffers& b = m_buffers;
    if (m_cartesian)
    {
        doubles("cartesianX", b.coordinates[0]);
        doubles("cartesianY", b.coordinates[1]);
        doubles("cartesianZ", b.coordinates[2]);
        if (m_hasCartesianInvalid)
            bytes("cartesianInvalidState", b.invalidState);
    }
    else
    {
        doubles("sphericalRange", b.coordinates[0]);
        doubles("sphericalAzimuth", b.coordinates[1]);
        doubles("sphericalElevation", b.coordinates[2]);
        if (m_hasSphericalInvalid)
            bytes("sphericalInvalidState", b.invalidState);
    }
    if (m_hasNormals)
    {
        for (size_t axis = 0; axis < 3; ++axis)
            doubles(m_extensions.normals[axis], b.normals[axis]);
    }
    if (m_hasIntensity)
        doubles("intensity", b.intensity);
    if (m_hasIntensityInvalid)
        bytes("isIntensityInvalid", b.intensityInvalid);
    if (m_hasColor)
    {
        doubles("colorRed", b.color[0]);
        doubles("colorGreen", b.color[1]);
        doubles("colorBlue", b.color[2]);
    }
    if (m_hasColorInvalid)
        bytes("isColorInvalid", b.colorInvalid);
    if (m_hasClasses)
        bytes(m_extensions.classification, b.classification);
    m_reader = std::make_unique<e57::CompressedVectorReader>(*m_file, points, std::move(sources));
}

void E57::processBatch(std::vector<IoLightPoint>& batch, const Discretization& transfo, bool /*probing*/)
{
    batch.clear();
    size_t records = 0;
    try
    {
        records = m_reader->read();
    }
    catch (const e57::E57Exception&)
    {
        throw error("Could not read points from the file. File might be corrupted.");
    }
    if (records > kBufferSize || records > m_buffers.coordinates[0].size())
        throw error("Read more than array sizes: memory overflow.");
    if (records == 0)
    {
        // A section that holds fewer records than it announced ends the scan here.
        m_pointsRemaining = 0;
        m_workDone = static_cast<uint64_t>(filePos());
        return;
    }

    m_intensityOutOfRange = false;
    m_colorOutOfRange = false;
    const Buffers& b = m_buffers;
    for (size_t i = 0; i < records; ++i)
    {
        // Any state but 0 is invalid, also 1, which keeps a direction without a range.
        if (m_useInvalidState && b.invalidState[i] != 0)
        {
            ++m_pointsSkipped;
            continue;
        }
        double x = b.coordinates[0][i];
        double y = b.coordinates[1][i];
        double z = b.coordinates[2][i];
        if (!m_cartesian)
        {
            const double range = x;
            const double azimuth = y;
            const double elevation = z;
            x = std::cos(azimuth) * std::cos(elevation) * range;
            y = std::sin(azimuth) * std::cos(elevation) * range;
            z = std::sin(elevation) * range;
        }
        IoLightPoint point;
        if ((std::abs(x) < kZeroPoint && std::abs(y) < kZeroPoint && std::abs(z) < kZeroPoint) ||
            !transfo.apply(x, y, z, point.x, point.y, point.z))
        {
            ++m_pointsSkipped;
            continue;
        }
        m_extents.extend(point);
        point.radius = 0.0f;
        point.scanId = static_cast<uint16_t>(m_scanIndex);
        fillColour(i, point);
        m_colorRange.updateAll(point.r, point.g, point.b, point.intensity);
        if (m_hasNormals)
        {
            point.nx = static_cast<float>(b.normals[0][i]);
            point.ny = static_cast<float>(b.normals[1][i]);
            point.nz = static_cast<float>(b.normals[2][i]);
        }
        if (m_hasClasses)
            point.classification = b.classification[i];
        batch.push_back(point);
        ++m_pointsDelivered;
    }
    if (m_intensityOutOfRange)
        m_warnings.push_back(
            s2ws(translate("\t Out of range intensity value detected for one or more points")));
    if (m_colorOutOfRange)
        m_warnings.push_back(
            s2ws(translate("\t Out of range R, G and/or B values detected for one or more points")));
    m_pointsRemaining -= std::min<uint64_t>(records, m_pointsRemaining);
    m_workDone = static_cast<uint64_t>(filePos());
}

void E57::fillColour(size_t i, IoLightPoint& point)
{
    const Buffers& b = m_buffers;
    bool intensityUsable = m_hasIntensity && !(m_hasIntensityInvalid && b.intensityInvalid[i] != 0);
    point.intensity = 0;
    if (intensityUsable)
    {
        const double value = scaled16(b.intensity[i], m_intensityOffset, m_intensityFactor);
        if (value < 0.0)
            m_intensityOutOfRange = true;
        else
            point.intensity = static_cast<uint16_t>(value);
    }
    const bool colorUsable = m_hasColor && !(m_hasColorInvalid && b.colorInvalid[i] != 0);
    if (colorUsable)
    {
        double rgb[3];
        for (size_t c = 0; c < 3; ++c)
            rgb[c] = scaled16(b.color[c][i], m_colorOffset[c], m_colorFactor[c]);
        if (rgb[0] < 0.0 || rgb[1] < 0.0 || rgb[2] < 0.0)
        {
            m_colorOutOfRange = true;
            point.r = point.g = point.b = 0;
        }
        else
        {
            point.r = static_cast<uint16_t>(rgb[0]);
            point.g = static_cast<uint16_t>(rgb[1]);
            point.b = static_cast<uint16_t>(rgb[2]);
        }
        return;
    }
    // Without colour the point is grey in its intensity.
    point.r = point.g = point.b = intensityUsable ? point.intensity : uint16_t{0};
}

double E57::filePos() const
{
    if (m_nrScans == 0)
        return 0.0;
    return (double(m_scanIndex + 1) - double(m_pointsRemaining) / double(m_nrPointsScan)) *
           double(m_fileSize) / double(m_nrScans);
}

void E57::closeScan()
{
    m_reader.reset();
    m_pointsRemaining = 0;
}

void E57::closeGroup()
{
    closeScan();
    m_file.reset();
    m_scanIndex = kNoScan;
}

uint64_t E57::numImagesForScan(size_t scan) const
{
    const auto found = m_images.find(scan);
    return found == m_images.end() ? 0 : found->second.size();
}

std::array<double, 3> E57::imageScanPosition(size_t scan, size_t image)
{
    const auto found = m_images.find(scan);
    if (found == m_images.end() || image >= found->second.size())
        return {0.0, 0.0, 0.0};
    return found->second[image].translation;
}

}  // namespace pc_preprocess
