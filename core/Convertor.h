#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "core/ColorMode.h"
#include "core/Export.h"
#include "core/ExtentsI32.h"
#include "core/FileColorRange.h"
#include "core/IoLightPoint.h"
#include "core/IoTransfo.h"
#include "core/MetaData.h"
#include "core/PcRegion.h"
#include "core/ProbeResult.h"
#include "core/ScanFiles.h"
#include "core/SupportedAttributes.h"
#include "scanview/TopoDef.h"

// PROJ's handle types, as its header declares them; the header itself stays out of every importer.
typedef struct pj_ctx PJ_CONTEXT;
typedef struct PJconsts PJ;

namespace pc_preprocess
{

class ScanView;

// The base of every importer. It turns one input file, which may hold many scans, into per-scan point files
// in the cache's "Data" folder. The base class owns the control flow: the probe pass that proposes the
// cache's transform and colour mode, the conversion pass with its batch loop, cancel checks, progress, file
// names and the writing of point and meta files. An importer answers the questions below and fills batches.
//
// One object serves one file on one thread, for one probe or one run.
class PCP_API Convertor
{
public:
    // Throws unless the path is an existing regular file and the scale positive.
    Convertor(const std::wstring& path, double scale, const ColorMode& colorModeInit);
    virtual ~Convertor();
    Convertor(const Convertor&) = delete;
    Convertor& operator=(const Convertor&) = delete;

    // Reads up to probeSize() points, writes nothing, and proposes the cache's transform and colour mode.
    ProbeResult probe(double scale, const std::function<bool()>& cancel);

    // Converts every valid scan into "<stem>-<scan>-temp.pnt" with its side and meta files in the point
    // folder of cacheFolder. progress receives the fraction of work done; a true cancel ends the run with
    // "Cancelled.".
    virtual void run(const std::wstring& cacheFolder, const IoTransfo& transfo, bool makeViews,
                     const std::function<void(double)>& progress, const std::function<bool()>& cancel);

    // Asks for reprojection into the local frame `frame`; the probe of such an importer proposes the frame.
    void requestLocalFrame(const TopoDef& frame)
    {
        m_wktReproject = true;
        m_localFrame = frame;
    }

    // Where the conversion takes its panorama grid from: a worker that converts many files lends one view to
    // each (the grid takes 320 MiB). Without a source the importer makes its own when a scan needs one.
    void useScanViews(std::function<std::shared_ptr<ScanView>()> source) { m_viewSource = std::move(source); }

    const std::vector<ScanFiles>& getScanFiles() const { return m_scanFiles; }
    // The measured colour mode equals the one the caller gave.
    bool verifyColorMode() const { return getColorModeData() == getColorModeInit(); }
    const ColorMode& getColorModeInit() const { return m_colorModeInit; }
    const std::string& wkt() const { return m_wkt; }
    const std::string& headerStr() const { return m_headerStr; }
    bool hasWarnings() const { return !m_warnings.empty(); }
    const std::vector<std::wstring>& getWarnings() const { return m_warnings; }
    void clearWarnings() { m_warnings.clear(); }

    static std::wstring getBubblesFolder(const std::wstring& cacheFolder);
    static std::wstring getPointFolder(const std::wstring& cacheFolder);
    // The input's stem, "-" and the scan number with at least four digits: "cloud-0003".
    static std::wstring baseNameForScanId(const std::wstring& input, const size_t& scan);
    // baseNameForScanId, "_image-" and the image number padded alike: "cloud-0003_image-0012".
    static std::wstring baseNameForScanIdImageId(const std::wstring& input, const size_t& scan, size_t image);

    // --- What an importer answers. ---

    // Points the probe looks at.
    virtual uint64_t probeSize() const = 0;
    // After canOpenScan: whether the current scan brings normals, classes.
    virtual bool hasNormals() const { return m_hasNormals; }
    virtual bool hasClasses() const { return m_hasClasses; }
    // Integer coordinates with the file's own scale and offset, which the cache then keeps (LAS, LAZ).
    virtual bool isLazs() const = 0;
    // The radius of the points is a usable scanner distance.
    virtual bool validTandSize() const = 0;
    // Points of the current scan, when the format tells.
    virtual uint64_t nrPointsThisScan() const { return 0; }
    // Batches serve the panorama only and are not written.
    virtual bool isLgsx() const { return false; }
    // Work done and its total, in the importer's unit; progress is their quotient.
    virtual int64_t workDone() const { return 0; }
    virtual int64_t workTotal() const { return static_cast<int64_t>(m_fileSize); }
    // After canOpenScan: this scan can give a panorama.
    virtual bool hasScanViews() const = 0;
    // The colour mode as measured.
    virtual ColorMode getColorModeData() const = 0;
    virtual SupportedAttributes getSupportedAttributes() = 0;
    // Opens the file and reads its headers; may throw.
    virtual void openGroup() = 0;
    // Makes `scan` current and sets m_matrix, m_translation, m_hasNormals, m_hasClasses; false ends the
    // scans.
    virtual bool canOpenScan(size_t scan) = 0;
    // False skips the scan: no files, nothing counted.
    virtual bool isCurrentScanValid() { return true; }
    virtual bool remainScanData() = 0;
    // Clears batch and appends the next points of the scan, at most 65536: positions through transfo, colour
    // and intensity on the 16-bit scale (unless probing, when only m_colorRange counts), radius, scanId and,
    // where the scan has them, class and normal. Widens m_extents and m_colorRange; advances workDone().
    virtual void processBatch(std::vector<IoLightPoint>& batch, const Discretization& transfo,
                              bool probing) = 0;
    virtual void closeScan() = 0;
    // Closes the file; also called on cancel.
    virtual void closeGroup() = 0;
    virtual std::vector<pointcloud_def::PcRegion> getRegions() { return {}; }
    virtual uint64_t numImagesForScan(size_t /*scan*/) const { return 0; }
    virtual std::array<double, 3> imageScanPosition(size_t scan, size_t image);
    // Paints images into a panorama; image all ones means every image of the scan.
    virtual void updateScanView2DImages(std::shared_ptr<ScanView> view, const std::array<double, 3>& position,
                                        const IoTransfo& transfo, size_t scan, size_t image);

    // The most points in one batch, and so in one write of the conversion loop.
    static constexpr size_t kBatchSize = 65536;
    // The image number that stands for all images of a scan, when they paint the scan's own panorama.
    static constexpr size_t kAllImages = ~size_t(0);

protected:
    // Connects m_wkt to earth-centred WGS84 through PROJ; nothing without a WKT.
    void initializeProj();
    void cleanUpProj();

    std::wstring m_path;
    double m_scale;
    ColorMode m_colorModeInit;
    std::wstring m_cacheFolder;
    bool m_hasNormals = false;
    bool m_hasClasses = false;
    uint64_t m_fileSize = 0;
    ExtentsI32 m_extents;
    FileColorRange m_colorRange;
    std::vector<ScanFiles> m_scanFiles;
    std::vector<std::wstring> m_warnings;
    std::string m_headerStr;
    // The current scan's map from raw coordinates to the world: linear part column-major (row r is m[r],
    // m[r + 3], m[r + 6]) and translation, which is also the scan position for the panorama.
    std::array<double, 9> m_matrix{};
    std::array<double, 3> m_translation{};
    std::string m_wkt;
    // Georeferenced input is to be carried through PROJ into the local east-north-up frame of m_localFrame
    // (the probe settles that frame on the first point). Importers that cannot reproject ignore it.
    bool m_wktReproject = false;
    TopoDef m_localFrame;
    PJ_CONTEXT* m_projContext = nullptr;
    PJ* m_proj = nullptr;

private:
    // The view for the next scan or image, emptied.
    ScanView& freshView();
    // Panoramas of a scan and of its images, their pictures, and the scan's meta file.
    void finishScanWithView(size_t scan, const std::wstring& base, const IoTransfo& transfo,
                            ScanFiles& files);
    void finishScanWithoutView(size_t scan, const IoTransfo& transfo, ScanFiles& files);
    void writeImages(size_t scan, const IoTransfo& transfo, ScanFiles& files);
    MetaData scanMeta() const;
    // The meta file of a scan or image seen through `view` from `position`, at the view's resized width.
    MetaData viewMeta(const ScanView& view, const std::array<double, 3>& position, uint64_t width) const;

    std::function<std::shared_ptr<ScanView>()> m_viewSource;
    std::shared_ptr<ScanView> m_view;
    bool m_viewUsed = false;

    void settleTransfo(ProbeResult& result, const IoLightPoint& first, double scale);
    // Reprojection asked for and possible: the importer opened a PROJ transformation for its coordinate
    // system.
    bool reprojecting() const;
    void convertScan(size_t scan, const IoTransfo& transfo, bool withView, std::vector<IoLightPoint>& batch,
                     const std::function<void(double)>& progress, const std::function<bool()>& cancel);
    void reportProgress(const std::function<void(double)>& progress) const;
};

}  // namespace pc_preprocess
