#include "importers/Riegl.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <iterator>

#include "core/FileFormat.h"
#include "core/StringConversion.h"
#include "importers/riegl/RdbError.h"
#include "importers/riegl/RdbLibrary.h"
#include "importers/riegl/RdbReader.h"

namespace pc_preprocess
{

namespace
{

// A project file is a few kilobytes per scan position; a larger file is no project file.
constexpr uint64_t kMaxProjectBytes = 64ull << 20;

std::string readProjectFile(const std::filesystem::path& path, uint64_t size)
{
    if (size > kMaxProjectBytes)
        throw std::runtime_error("The project file holds " + std::to_string(size) + " bytes, more than the " +
                                 std::to_string(kMaxProjectBytes) + " a project file can have");
    std::ifstream in(path, std::ios::binary);
    std::string text(static_cast<size_t>(size), '\0');
    if (!in.read(text.data(), static_cast<std::streamsize>(text.size())))
        throw std::runtime_error("The project file could not be read");
    return text;
}

// Amplitudes in dB, from -327.68 up, spread over the 16-bit scale: 0.01 dB a step.
float amplitudeToIntensity(float amplitude)
{
    return (amplitude + 327.68f) * 65535.0f / 655.36f;
}

uint16_t clampedIntensity(float value)
{
    return static_cast<uint16_t>(std::clamp(value, 0.0f, 65535.0f));
}

}  // namespace

Riegl::Riegl(const std::wstring& path, double scale, const ColorMode& colorMode, const std::wstring& library)
    : Convertor(path, scale, colorMode), m_library(library)
{
}

Riegl::~Riegl() = default;

template <typename Step>
auto Riegl::guarded(Step&& step) -> decltype(step())
{
    const std::string prefix = "Riegl error: " + ws2s(m_path) + "\n\t";
    // Errors inside a scan name its file: a project has many.
    const std::string scanFile =
        m_scanOpen ? m_project.scans[m_scanIndex].rdbFile.string() + ": " : std::string();
    try
    {
        return step();
    }
    catch (const riegl::RdbError& e)
    {
        throw std::runtime_error(prefix + scanFile + e.what() + " : " + e.details());
    }
    catch (const std::exception& e)
    {
        throw std::runtime_error(prefix + scanFile + e.what());
    }
    catch (...)
    {
        throw std::runtime_error(prefix + scanFile + "unknown failure");
    }
}

uint64_t Riegl::nrPointsThisScan() const
{
    return m_reader && m_scanOpen ? m_reader->pointCount() : 0;
}

int64_t Riegl::workTotal() const
{
    return std::max<int64_t>(1, static_cast<int64_t>(m_project.scans.size()) * kWorkPerScan);
}

int64_t Riegl::workDone() const
{
    int64_t done = static_cast<int64_t>(m_scanIndex) * kWorkPerScan;
    const uint64_t count = nrPointsThisScan();
    if (count > 0)
        done += static_cast<int64_t>(static_cast<double>(std::min(m_pointsRead, count)) / count * kWorkPerScan);
    return std::min(done, workTotal());
}

SupportedAttributes Riegl::getSupportedAttributes()
{
    SupportedAttributes attributes = m_seen;
    attributes.scanId = m_project.scans.size() > 1;
    return attributes;
}

void Riegl::openGroup()
{
    closeGroup();
    m_project = {};
    m_headerStr.clear();
    m_seen = {};
    m_warnedOutsideGrid = false;
    guarded([&] {
        const std::filesystem::path path = toPath(m_path);
        if (fileFormat(m_path) == kFormatRsp)
        {
            m_project = riegl::parseRieglProject(readProjectFile(path, m_fileSize));
            riegl::locateRdbFiles(m_project, path);
        }
        else
        {
            // An RDB file alone: one scan in the coordinates of its file.
            riegl::RieglScan scan;
            scan.name = path.stem().string();
            scan.rdbFile = path;
            m_project.scans.push_back(std::move(scan));
        }
        auto library = riegl::RdbLibrary::load(ws2s(m_library));
        m_reader = std::make_unique<riegl::RdbReader>(std::move(library), static_cast<uint32_t>(kBatchSize));
    });
}

void Riegl::closeGroup()
{
    closeScan();
    m_reader.reset();
}

bool Riegl::canOpenScan(size_t scan)
{
    closeScan();
    if (scan >= m_project.scans.size() || !m_reader)
        return false;
    m_scanIndex = scan;
    const riegl::RieglScan& record = m_project.scans[scan];
    for (size_t i = 0; i < m_matrix.size(); ++i)
        m_matrix[i] = record.rotation[i] * m_scale;
    for (size_t axis = 0; axis < 3; ++axis)
        m_translation[axis] = record.translation[axis] * m_scale;
    m_scanOpen = true;
    guarded([&] {
        m_reader->open(record.rdbFile.string());
        m_headerStr += m_reader->report();
        const riegl::RdbAttributes& attributes = m_reader->attributes();
        m_hasNormals = attributes.surfaceNormal;
        m_seen.intensity |= attributes.amplitude;
        m_seen.color |= attributes.rgba;
        m_seen.normals |= attributes.surfaceNormal;
        m_pending = m_reader->next();
    });
    return true;
}

void Riegl::closeScan()
{
    if (m_reader)
        m_reader->close();
    m_scanOpen = false;
    m_pending = 0;
    m_pointsRead = 0;
}

void Riegl::processBatch(std::vector<IoLightPoint>& batch, const Discretization& transfo, bool /*probing*/)
{
    // The colour mode of RIEGL input is fixed: the probe's batches are the run's.
    batch.clear();
    const uint32_t count = m_pending;
    for (size_t i = 0; i < count; ++i)
        addPoint(i, batch, transfo);
    m_pointsRead += count;
    m_pending = count == 0 ? 0 : guarded([&] { return m_reader->next(); });
}

void Riegl::addPoint(size_t index, std::vector<IoLightPoint>& batch, const Discretization& transfo)
{
    const riegl::RdbAttributes& attributes = m_reader->attributes();
    const double* xyz = m_reader->xyz().data() + 3 * index;
    IoLightPoint point;
    if (!transfo.apply(xyz[0], xyz[1], xyz[2], point.x, point.y, point.z))
        return warnOutsideGrid();
    m_extents.extend(point);
    point.radius = 0.0f;
    point.scanId = static_cast<uint16_t>(m_scanIndex);
    if (attributes.amplitude)
    {
        const float intensity = amplitudeToIntensity(m_reader->amplitude()[index]);
        m_colorRange.updateIntensity(intensity);
        point.intensity = clampedIntensity(intensity);
    }
    if (attributes.rgba)
    {
        const uint8_t* rgba = m_reader->rgba().data() + 4 * index;
        point.r = static_cast<uint16_t>(rgba[0] << 8);
        point.g = static_cast<uint16_t>(rgba[1] << 8);
        point.b = static_cast<uint16_t>(rgba[2] << 8);
        m_colorRange.updateRgb(point.r, point.g, point.b);
    }
    else
        // Without colour the scan shows its intensity as grey, in the cache and in its panorama, as a scanner's
        // own viewer does; black would hide every point of such a scan from the panorama.
        point.r = point.g = point.b = point.intensity;
    if (attributes.surfaceNormal)
    {
        // The normal is a direction in the scanner's frame: the pose's rotation turns it into the project's,
        // and the length is brought back to 1 whatever scale the pose carries.
        const float* n = m_reader->surfaceNormal().data() + 3 * index;
        const auto& r = m_project.scans[m_scanIndex].rotation;
        const double x = r[0] * n[0] + r[3] * n[1] + r[6] * n[2];
        const double y = r[1] * n[0] + r[4] * n[1] + r[7] * n[2];
        const double z = r[2] * n[0] + r[5] * n[1] + r[8] * n[2];
        const double length = std::sqrt(x * x + y * y + z * z);
        if (length > 0.0 && std::isfinite(length))
        {
            point.nx = static_cast<float>(x / length);
            point.ny = static_cast<float>(y / length);
            point.nz = static_cast<float>(z / length);
        }
    }
    batch.push_back(point);
}

void Riegl::warnOutsideGrid()
{
    if (m_warnedOutsideGrid)
        return;
    m_warnedOutsideGrid = true;
    m_warnings.push_back(s2ws("Riegl warning: " + ws2s(m_path) + "\n\t" +
                              m_project.scans[m_scanIndex].rdbFile.string() +
                              ": a point lies outside the 32-bit integer grid of the cache; such points are "
                              "skipped.\n"));
}

void rieglHeader(const std::wstring& path, const std::wstring& library, std::ostream& out)
{
    Riegl importer(path, 1.0, ColorMode(kRgb16Bit, kIntensity16Bit), library);
    importer.openGroup();
    for (size_t scan = 0; importer.canOpenScan(scan); ++scan)
        importer.closeScan();
    importer.closeGroup();
    out << importer.headerStr();
    for (const std::string& residual : importer.residualFiles())
        out << "Residual pose file (not read) = " << residual << "\n";
}

}  // namespace pc_preprocess
