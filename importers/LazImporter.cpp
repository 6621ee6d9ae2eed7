#include "importers/LazImporter.h"

#include <laszip/laszip_api.h>
#include <proj.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <sstream>
#include <stdexcept>

#include "core/ErrorWithReason.h"
#include "core/StringConversion.h"
#include "importers/laz/LazReader.h"
#include "importers/laz/LazsLayout.h"
#include "scanview/NormalCodes.h"

namespace pc_preprocess
{

namespace
{

// The highest point format this importer reads.
constexpr unsigned kLastPointFormat = 10;
// The first of the LAS 1.4 formats, whose records hold the class in a byte of its own.
constexpr unsigned kFirstExtendedFormat = 6;

bool formatHasColor(unsigned format)
{
    return format == 2 || format == 3 || format == 5 || format == 7 || format == 8 || format == 10;
}

bool fieldEquals(const char* field, size_t size, const char* text)
{
    return std::string(field, strnlen(field, size)) == text;
}

// Smallest and largest of 16-bit values.
struct Range16
{
    uint16_t min = UINT16_MAX;
    uint16_t max = 0;

    void add(uint16_t value)
    {
        min = std::min(min, value);
        max = std::max(max, value);
    }
};

// Written by LazExporter; see LazsLayout.h. Through LASzip's header the file shows no records at all.
bool isLazsHeader(const laszip_header& h)
{
    return fieldEquals(h.generating_software, sizeof h.generating_software, laz::kLazsGeneratingSoftware) &&
           fieldEquals(h.system_identifier, sizeof h.system_identifier, laz::kLazsSystemIdentifier) &&
           h.version_major == 1 && h.version_minor == laz::kLazsVersionMinor &&
           h.header_size == laz::kLazsHeaderSize && h.offset_to_point_data == laz::kLazsHeaderSize &&
           h.point_data_format == laz::kLazsPointFormat &&
           h.point_data_record_length == laz::kLazsRecordLength;
}

}  // namespace

LazImporter::LazImporter(const std::wstring& path, double scale, const ColorMode& colorMode)
    : LasFamilyImporter(path, scale, colorMode)
{
}

LazImporter::~LazImporter() = default;

SupportedAttributes LazImporter::getSupportedAttributes()
{
    SupportedAttributes attributes;
    attributes.classification = true;
    attributes.intensity = true;
    attributes.color = m_hasColor;
    attributes.normals = m_hasNormals;
    return attributes;
}

void LazImporter::openGroup()
{
    closeGroup();
    // The report opens the file on its own, so that the log has it even when opening for reading fails.
    std::ostringstream report;
    laszHeader(m_path, report);
    m_headerStr = report.str();

    m_reader = std::make_unique<laz::LazReader>(toPath(m_path));
    const laszip_header& header = m_reader->header();
    m_compressed = m_reader->isCompressed() ? 1 : 0;
    const std::array<double, 3> lasScale = {header.x_scale_factor, header.y_scale_factor,
                                            header.z_scale_factor};
    const std::array<double, 3> lasOffset = {header.x_offset, header.y_offset, header.z_offset};

    m_nrPoints = std::max<uint64_t>(header.number_of_point_records, header.extended_number_of_point_records);
    if (m_nrPoints == 0)
        throw std::runtime_error("LAZ error: Header does not specify (extended) number of point records.");
    if (header.point_data_format > kLastPointFormat)
        throw std::runtime_error("LAZ error: only formats up to and including number " +
                                 std::to_string(kLastPointFormat) + " currently supported.");
    m_hasColor = formatHasColor(header.point_data_format);
    // Every LAS format stores 16-bit numbers; a format without colour has its intensity stand in.
    m_colorModeInit = ColorMode(m_hasColor ? kRgb16Bit : kRgbFromIntensity, kIntensity16Bit);

    m_wkt.clear();
    if (header.number_of_variable_length_records > 0)
        m_wkt = m_reader->wkt();

    if (m_wktReproject && !m_wkt.empty())
    {
        // The base class puts the local frame into m_matrix and m_translation: points leave PROJ in
        // earth-centred metres, not on the file's grid.
        m_lasScale = lasScale;
        m_lasOffset = lasOffset;
        initializeProj();
    }
    else
    {
        if (m_wktReproject)
            m_warnings.push_back(L"LAZ warning: " + m_path +
                                 L" has no coordinate system, so its points are read unchanged.");
        useFileGrid(lasScale, lasOffset);
    }

    m_pointsRemaining = m_nrPoints;
    m_pointsDone = 0;
    m_lazsFile = isLazsHeader(header);
    m_hasNormals = m_lazsFile;
}

void LazImporter::closeGroup()
{
    cleanUpProj();
    std::unique_ptr<laz::LazReader> reader = std::move(m_reader);
    m_lazsFile = false;
    // Nothing more can be read from a closed file.
    m_pointsRemaining = 0;
    if (reader != nullptr)
        reader->close();
}

void LazImporter::processBatch(std::vector<IoLightPoint>& batch, const Discretization& transfo,
                               bool /*probing*/)
{
    batch.clear();
    const uint64_t count = std::min<uint64_t>(m_pointsRemaining, kBatchSize);
    m_validSize = m_validSize && m_lazsFile;
    if (m_reader == nullptr || count == 0)
        return;
    const bool projecting = m_proj != nullptr;
    // Without reprojection each axis is computed from its own coordinate alone.
    if (!projecting && !transfo.isDiagonal)
        throw std::runtime_error("Discretization should be diagonal for LAS.\n");
    const laszip_point& p = m_reader->point();
    const bool extendedClasses = m_reader->header().point_data_format >= kFirstExtendedFormat;
    if (m_lazsFile && (p.num_extra_bytes != laz::kLazsExtraBytes || p.extra_bytes == nullptr))
        throw std::runtime_error("LAZ error: m_pPoint does not provide for extra bytes");

    // The ranges are kept in integers per batch and passed on once: the loop runs for every point.
    Range16 colour;
    Range16 intensity;
    for (uint64_t i = 0; i < count; ++i)
    {
        if (!m_reader->readPoint())
            readFailed(i);
        IoLightPoint point;
        if (transfo.isIdentity && !projecting)
        {
            // The file's grid is the cache's: its integers stand as they are.
            point.x = p.X;
            point.y = p.Y;
            point.z = p.Z;
        }
        else if (!(projecting ? reproject(transfo, m_pointsDone + i, point)
                              : transfo.apply(p.X, p.Y, p.Z, point.x, point.y, point.z)))
        {
            warnOutsideGrid();
            continue;
        }
        m_extents.extend(point);
        point.radius = 0.0f;
        point.intensity = p.intensity;
        intensity.add(p.intensity);
        if (m_hasColor)
        {
            point.r = p.rgb[0];
            point.g = p.rgb[1];
            point.b = p.rgb[2];
            colour.add(point.r);
            colour.add(point.g);
            colour.add(point.b);
        }
        else
        {
            point.r = point.g = point.b = p.intensity;
            colour.add(p.intensity);
        }
        // From format 6 on the class has a byte of its own; LASzip's legacy field holds only the classes
        // below 32 and reads 0 for the others. The cache keeps the low 5 bits, as Las does.
        point.classification = (extendedClasses ? p.extended_classification : p.classification) & 0x1F;
        if (m_lazsFile)
        {
            const geom::Vector3d normal = decodeNormal(p.extra_bytes);
            point.nx = static_cast<float>(normal.x);
            point.ny = static_cast<float>(normal.y);
            point.nz = static_cast<float>(normal.z);
        }
        batch.push_back(point);
    }
    if (!batch.empty())
    {
        m_colorRange.updateRgb(colour.min);
        m_colorRange.updateRgb(colour.max);
        m_colorRange.updateIntensity(intensity.min);
        m_colorRange.updateIntensity(intensity.max);
    }
    m_pointsRemaining -= count;
    m_pointsDone += count;
}

bool LazImporter::reproject(const Discretization& transfo, uint64_t index, IoLightPoint& point)
{
    const laszip_point& p = m_reader->point();
    const PJ_COORD real =
        proj_coord(p.X * m_lasScale[0] + m_lasOffset[0], p.Y * m_lasScale[1] + m_lasOffset[1],
                   p.Z * m_lasScale[2] + m_lasOffset[2], 0.0);
    const PJ_COORD earth = proj_trans(m_proj, PJ_FWD, real);
    if (earth.xyz.x == HUGE_VAL || !std::isfinite(earth.xyz.x) || !std::isfinite(earth.xyz.y) ||
        !std::isfinite(earth.xyz.z))
    {
        const int error = proj_errno(m_proj);
        proj_errno_reset(m_proj);
        const char* reason = error != 0 ? proj_context_errno_string(m_projContext, error) : nullptr;
        throw std::runtime_error("LAZ error: Could not reproject point " + std::to_string(index) + " of " +
                                 std::to_string(m_nrPoints) + " of " + ws2s(m_path) + " (" +
                                 std::to_string(real.xyz.x) + ", " + std::to_string(real.xyz.y) + ", " +
                                 std::to_string(real.xyz.z) + ")" +
                                 (reason != nullptr ? ": " + std::string(reason) : "") + ".");
    }
    return transfo.apply(earth.xyz.x, earth.xyz.y, earth.xyz.z, point.x, point.y, point.z);
}

void LazImporter::warnOutsideGrid()
{
    if (m_warnedOutsideGrid)
        return;
    m_warnedOutsideGrid = true;
    m_warnings.push_back(L"LAZ warning: points of " + m_path +
                         L" lie outside the cache's 32-bit integer grid and were left out.");
}

void LazImporter::readFailed(size_t pointsOfBatch)
{
    // The scan ends here; the points of the batch go with the exception.
    m_pointsRemaining = 0;
    m_pointsDone += pointsOfBatch;
    throw ErrorWithReason("LAZ error: Fail to read point " + std::to_string(m_pointsDone) + " of " +
                              std::to_string(m_nrPoints) + "!",
                          m_reader->readFailure());
}

}  // namespace pc_preprocess
