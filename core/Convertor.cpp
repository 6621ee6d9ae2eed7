#include "core/Convertor.h"

#include <proj.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>

#include "cachefiles/MetaFile.h"
#include "cachefiles/PntStreams.h"
#include "cachefiles/SerializedPoints.h"
#include "core/NodePaths.h"
#include "core/StringConversion.h"
#include "scanview/ScanView.h"

namespace pc_preprocess
{

namespace
{

constexpr const char* kCartesianWgs84 = "proj=cart +ellps=WGS84";

std::wstring paddedNumber(size_t number)
{
    wchar_t text[32];
    std::swprintf(text, sizeof text / sizeof text[0], L"%04zu", number);
    return text;
}

std::wstring joined(const std::wstring& folder, const std::wstring& name)
{
    return toWide(toPath(folder) / toPath(name));
}

void requireFolder(const std::wstring& folder)
{
    std::error_code error;
    if (!std::filesystem::is_directory(toPath(folder), error))
        throw std::runtime_error("CONVERTOR error: " + ws2s(folder) + " is not an existing folder.");
}

// The rotation from earth-centred axes to east, north, up at the frame's origin, column-major, and the
// translation that puts the origin at zero.
void localFrameMatrix(const TopoDef& frame, std::array<double, 9>& matrix, std::array<double, 3>& translation)
{
    constexpr double kDegree = 0.017453292519943295;
    const double a = frame.lambda0 * kDegree;
    const double b = frame.phi0 * kDegree;
    const double rows[3][3] = {{-std::sin(a), std::cos(a), 0.0},
                               {-std::sin(b) * std::cos(a), -std::sin(b) * std::sin(a), std::cos(b)},
                               {std::cos(b) * std::cos(a), std::cos(b) * std::sin(a), std::sin(b)}};
    const double origin[3] = {frame.x0, frame.y0, frame.z0};
    for (int r = 0; r < 3; ++r)
    {
        translation[r] = 0.0;
        for (int c = 0; c < 3; ++c)
        {
            matrix[r + 3 * c] = rows[r][c];
            translation[r] -= rows[r][c] * origin[c];
        }
    }
}

}  // namespace

Convertor::Convertor(const std::wstring& path, double scale, const ColorMode& colorModeInit)
    : m_path(path), m_scale(scale), m_colorModeInit(colorModeInit)
{
    std::error_code error;
    const std::filesystem::path file = toPath(path);
    if (!std::filesystem::is_regular_file(file, error))
        throw std::runtime_error("CONVERTOR error: " + ws2s(path) + " is not an existing file.");
    m_fileSize = std::filesystem::file_size(file);
    if (!(scale > 0.0))
        throw std::runtime_error("CONVERTOR error: scale should be positive.");
    m_matrix = {scale, 0.0, 0.0, 0.0, scale, 0.0, 0.0, 0.0, scale};
}

Convertor::~Convertor()
{
    cleanUpProj();
}

std::wstring Convertor::getBubblesFolder(const std::wstring& cacheFolder)
{
    return joined(cacheFolder, L"Bubbles");
}

std::wstring Convertor::getPointFolder(const std::wstring& cacheFolder)
{
    return joined(cacheFolder, L"Data");
}

std::wstring Convertor::baseNameForScanId(const std::wstring& input, const size_t& scan)
{
    return toWide(toPath(input).stem()) + L"-" + paddedNumber(scan);
}

std::wstring Convertor::baseNameForScanIdImageId(const std::wstring& input, const size_t& scan, size_t image)
{
    return baseNameForScanId(input, scan) + L"_image-" + paddedNumber(image);
}

std::array<double, 3> Convertor::imageScanPosition(size_t /*scan*/, size_t /*image*/)
{
    return m_translation;
}

void Convertor::updateScanView2DImages(std::shared_ptr<ScanView> /*view*/,
                                       const std::array<double, 3>& /*position*/,
                                       const IoTransfo& /*transfo*/, size_t /*scan*/, size_t /*image*/)
{
}

ProbeResult Convertor::probe(double scale, const std::function<bool()>& cancel)
{
    m_colorRange.reset();
    std::vector<IoLightPoint> batch;
    batch.reserve(kBatchSize);
    openGroup();
    const uint64_t limit = probeSize();

    // The probe discretises to a step of one unit around the origin: enough to find the first point.
    IoTransfo local;
    local.offset = {0.0, 0.0, 0.0};
    local.scale = {1.0, 1.0, 1.0};

    ProbeResult result;
    bool settled = false;
    uint64_t seen = 0;
    for (size_t scan = 0; seen < limit && canOpenScan(scan); ++scan)
    {
        if (!isCurrentScanValid())
        {
            closeScan();
            continue;
        }
        result.hasScanViews = result.hasScanViews || hasScanViews();
        result.hasClasses = result.hasClasses || hasClasses();
        result.hasNormals = result.hasNormals || hasNormals();
        // Reprojected points arrive in earth-centred metres: the probe takes them as they are.
        if (reprojecting())
        {
            m_matrix = {1.0, 0.0, 0.0, 0.0, 1.0, 0.0, 0.0, 0.0, 1.0};
            m_translation = {0.0, 0.0, 0.0};
        }

        const Discretization discretization(local, m_matrix.data(), m_translation.data());
        m_extents.reset();
        while (remainScanData() && seen < limit)
        {
            if (cancel && cancel())
                throw std::runtime_error("Probe: preprocessing was cancelled.");
            processBatch(batch, discretization, true);
            if (!settled && !batch.empty())
            {
                settleTransfo(result, batch.front(), scale);
                settled = true;
            }
            seen += batch.size();
        }
        closeScan();
    }
    closeGroup();

    if (!settled)
        m_warnings.push_back(L"Probe could not find any points in input data");
    result.colorMode = getColorModeData();
    result.regions = getRegions();
    return result;
}

void Convertor::settleTransfo(ProbeResult& result, const IoLightPoint& first, double scale)
{
    if (reprojecting())
    {
        // The local frame stands on the ellipsoid below the first point, east, north and up from there.
        result.topoDef = projectWGS84(first.x, first.y, first.z);
        if (!result.topoDef.valid)
            throw std::runtime_error("Convertor()::probe: m_wktReproject, but !topoDef.hasGeo.\n");
        localFrameMatrix(result.topoDef, m_matrix, m_translation);
        const double p[3] = {double(first.x), double(first.y), double(first.z)};
        result.transfo.scale = {scale, scale, scale};
        for (int r = 0; r < 3; ++r)
            result.transfo.offset[r] = std::round(m_matrix[r] * p[0] + m_matrix[r + 3] * p[1] +
                                                  m_matrix[r + 6] * p[2] + m_translation[r]);
        return;
    }
    if (isLazs())
    {
        // The file's own grid becomes the cache's: its integers then pass unchanged.
        result.transfo.scale = {m_matrix[0], m_matrix[4], m_matrix[8]};
        result.transfo.offset = m_translation;
        return;
    }
    // The cache is centred on the first point, rounded to one unit.
    result.transfo.scale = {scale, scale, scale};
    result.transfo.offset = {double(first.x), double(first.y), double(first.z)};
}

bool Convertor::reprojecting() const
{
    return m_wktReproject && m_proj != nullptr;
}

void Convertor::run(const std::wstring& cacheFolder, const IoTransfo& transfo, bool makeViews,
                    const std::function<void(double)>& progress, const std::function<bool()>& cancel)
{
    m_cacheFolder = cacheFolder;
    requireFolder(getPointFolder(cacheFolder));
    openGroup();
    if (makeViews)
        requireFolder(getBubblesFolder(cacheFolder));
    m_colorRange.reset();
    std::vector<IoLightPoint> batch;
    batch.reserve(kBatchSize);

    for (size_t scan = 0; canOpenScan(scan); ++scan)
    {
        if (cancel && cancel())
        {
            closeGroup();
            throw std::runtime_error("Cancelled.");
        }
        if (!isCurrentScanValid() || !remainScanData())
            continue;
        reportProgress(progress);
        convertScan(scan, transfo, makeViews && hasScanViews(), batch, progress, cancel);
    }
    closeGroup();
}

void Convertor::convertScan(size_t scan, const IoTransfo& transfo, bool withView,
                            std::vector<IoLightPoint>& batch, const std::function<void(double)>& progress,
                            const std::function<bool()>& cancel)
{
    const std::wstring pointFolder = getPointFolder(m_cacheFolder);
    const std::wstring base = baseNameForScanId(m_path, scan);
    const std::wstring pntFile = joined(pointFolder, base + L"-temp.pnt");

    if (m_wktReproject && m_localFrame.valid)
    {
        // Every input of a run with a local frame must reach it; one left in its own coordinates would land
        // anywhere.
        if (!reprojecting())
            throw std::runtime_error("CONVERTOR error: " + ws2s(m_path) +
                                     " has no coordinate system, so it cannot join the run's local frame.");
        localFrameMatrix(m_localFrame, m_matrix, m_translation);
    }
    const Discretization discretization(transfo, m_matrix.data(), m_translation.data());
    m_extents.reset();
    ScanView* view = withView ? &freshView() : nullptr;
    PntStreams streams(pntFile, hasClasses(), hasNormals(), "Convertor::run : ");
    SerializedPoints::writeHeader(streams.pnt, transfo);
    SerializedPoints buffers(hasClasses(), hasNormals());

    bool cancelled = false;
    while (remainScanData())
    {
        processBatch(batch, discretization, false);
        if (cancel && cancel())
        {
            cancelled = true;
            break;
        }
        reportProgress(progress);
        if (batch.empty())
            continue;
        // The view also stores each point's distance from the scanner in its radius, which the file keeps.
        if (view)
            view->insert(batch, transfo, m_translation, false);
        if (isLgsx())
            continue;
        buffers.add(batch);
        buffers.flush(streams.pnt, streams.classes, streams.normals);
        streams.requireHealthy();
    }

    ScanFiles files;
    files.pntFile = pntFile;
    files.metaFile = joined(pointFolder, base + L"-temp.meta");
    if (view)
        finishScanWithView(scan, base, transfo, files);
    else
        finishScanWithoutView(scan, transfo, files);
    m_scanFiles.push_back(files);
    closeScan();
    streams.close();
    if (cancelled || (cancel && cancel()))
    {
        closeGroup();
        throw std::runtime_error("Cancelled.");
    }
}

ScanView& Convertor::freshView()
{
    if (!m_view)
    {
        m_view = m_viewSource ? m_viewSource() : std::make_shared<ScanView>();
        // A lent view may hold the last scan of another file.
        m_viewUsed = static_cast<bool>(m_viewSource);
    }
    if (m_viewUsed)
        m_view->resetData();
    m_viewUsed = true;
    return *m_view;
}

MetaData Convertor::scanMeta() const
{
    MetaData meta;
    meta.extents = m_extents;
    meta.numPoints = nrPointsThisScan();
    meta.validTandSize = validTandSize();
    return meta;
}

MetaData Convertor::viewMeta(const ScanView& view, const std::array<double, 3>& position,
                             uint64_t width) const
{
    MetaData meta = scanMeta();
    meta.position = position;
    meta.matrix = m_matrix;
    meta.maxDistance = view.maxDistance();
    meta.viewWidth = width;
    if (width != MetaData::kNoViewWidth)
        meta.filledArea = view.filledAreaUnitSphere();
    return meta;
}

void Convertor::finishScanWithView(size_t scan, const std::wstring& base, const IoTransfo& transfo,
                                   ScanFiles& files)
{
    ScanView& view = *m_view;
    updateScanView2DImages(m_view, m_translation, transfo, scan, kAllImages);
    const uint64_t width = view.resize(0);
    const std::wstring bubbles = getBubblesFolder(m_cacheFolder);
    const MetaData meta = viewMeta(view, m_translation, width);
    // A scan whose points cannot form a picture keeps its position but gets no pictures.
    if (width != MetaData::kNoViewWidth)
    {
        files.viewPng = view.exportViewPng(bubbles, base, L"view");
        files.normalPng = view.exportNormalPng(bubbles, base, L"norm");
        files.filledAreaUnitSphere = meta.filledArea;
    }
    writeMetaFile(files.metaFile, meta);
    writeImages(scan, transfo, files);
}

void Convertor::finishScanWithoutView(size_t scan, const IoTransfo& transfo, ScanFiles& files)
{
    // The meta file carries the marks of "no view".
    writeMetaFile(files.metaFile, scanMeta());
    if (numImagesForScan(scan) > 0)
        writeImages(scan, transfo, files);
}

void Convertor::writeImages(size_t scan, const IoTransfo& transfo, ScanFiles& files)
{
    const uint64_t images = numImagesForScan(scan);
    if (images == 0)
        return;
    requireFolder(getBubblesFolder(m_cacheFolder));
    const std::wstring pointFolder = getPointFolder(m_cacheFolder);
    for (size_t image = 0; image < images; ++image)
    {
        // Each image gets an empty view of its own, so that pictures of a file never mix.
        ScanView& view = freshView();
        const std::array<double, 3> position = imageScanPosition(scan, image);
        updateScanView2DImages(m_view, position, transfo, scan, image);
        const uint64_t width = view.resize(0);
        const std::wstring base = baseNameForScanIdImageId(m_path, scan, image);

        ScanImageFiles imageFiles;
        imageFiles.metaFile = joined(pointFolder, base + L"-temp.meta");
        const MetaData meta = viewMeta(view, position, width);
        if (width != MetaData::kNoViewWidth)
            imageFiles.viewPng = view.exportViewPng(getBubblesFolder(m_cacheFolder), base, L"view");
        writeMetaFile(imageFiles.metaFile, meta);
        files.images.push_back(imageFiles);
    }
}

void Convertor::reportProgress(const std::function<void(double)>& progress) const
{
    if (!progress)
        return;
    const int64_t total = workTotal();
    // Not clamped: an importer that counts past its total is a fault that the caller's check must see.
    progress(total > 0 ? double(workDone()) / double(total) : 0.0);
}

void Convertor::initializeProj()
{
    if (m_wkt.empty())
        return;
    cleanUpProj();
    m_projContext = proj_context_create();
    if (m_projContext == nullptr)
        throw std::runtime_error("PROJ cannot create context.\n");
    // PROJ reports to stderr by default; a library inside a host keeps quiet and reports through exceptions.
    proj_log_level(m_projContext, PJ_LOG_NONE);
    const std::string conversion = "\n" + m_wkt + "\n    to\n" + kCartesianWgs84;
    m_proj = proj_create_crs_to_crs(m_projContext, m_wkt.c_str(), kCartesianWgs84, nullptr);
    if (m_proj == nullptr)
        throw std::runtime_error("PROJ cannot create conversion: " + conversion);
    PJ* normalized = proj_normalize_for_visualization(m_projContext, m_proj);
    if (normalized == nullptr)
        throw std::runtime_error("PROJ cannot normalize conversion: " + conversion);
    proj_destroy(m_proj);
    m_proj = normalized;
}

void Convertor::cleanUpProj()
{
    if (m_proj != nullptr)
        proj_destroy(m_proj);
    if (m_projContext != nullptr)
        proj_context_destroy(m_projContext);
    m_proj = nullptr;
    m_projContext = nullptr;
}

}  // namespace pc_preprocess
