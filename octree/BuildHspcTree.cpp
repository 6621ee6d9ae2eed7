#include "octree/BuildHspcTree.h"

#include <filesystem>
#include <set>
#include <stdexcept>
#include <system_error>

#include "cachefiles/PntFiles.h"
#include "cachefiles/PntFormat.h"
#include "core/ExportPoint.h"
#include "core/NodePaths.h"
#include "core/StringConversion.h"
#include "exporters/HspcExporter.h"
#include "octree/ScanFileRemoval.h"
#include "scanview/StructuredNormalCalculator.h"
#include "services/IntervalWriter.h"
#include "services/Logger.h"

namespace pc_preprocess
{

namespace
{

namespace fs = std::filesystem;

constexpr const char* kPackSuffix = ".hspc.pack";

// Hands out the scans' points in order, a block of their file at a time, and deletes each scan's files once
// it has been read to its end.
class ScanPointSource
{
public:
    ScanPointSource(const std::vector<ScanFiles>& scans, bool normalsFromScans,
                    const StructuredNormalCalculator& calculator)
        : m_scans(scans), m_normalsFromMaps(!normalsFromScans && calculator.isActivated()), m_calculator(calculator)
    {
    }

    bool next(std::vector<ExportPoint>& batch)
    {
        batch.clear();
        while (batch.empty() && m_scan < m_scans.size())
        {
            if (!m_stream)
                open();
            if (!m_stream->next(m_points))
            {
                m_stream.reset();
                deleteScanFiles(m_scans[m_scan]);
                ++m_scan;
                continue;
            }
            batch.reserve(m_points.size());
            for (const IoLightPoint& p : m_points)
            {
                batch.push_back(exportPointOf(p, m_transfo, m_withClasses));
                // The scan's index is what the calculator knows it by.
                if (m_normalsFromMaps)
                    batch.back().normal =
                        m_calculator.getNormalAndSize(batch.back().position, static_cast<uint16_t>(m_scan)).first;
            }
        }
        return !batch.empty();
    }

private:
    void open()
    {
        const std::wstring& pnt = m_scans[m_scan].pntFile;
        std::error_code error;
        m_withClasses = fs::exists(toPath(getClassPathFromPnt(pnt)), error);
        m_stream = std::make_unique<PntPointStream>(pnt, true);
        m_transfo = m_stream->info().transfo;
    }

    const std::vector<ScanFiles>& m_scans;
    const bool m_normalsFromMaps;
    const StructuredNormalCalculator& m_calculator;
    size_t m_scan = 0;
    std::unique_ptr<PntPointStream> m_stream;
    IoTransfo m_transfo;
    bool m_withClasses = false;
    std::vector<IoLightPoint> m_points;
};

// What a conversion writes into a folder that holds other files too (the cache's log, key and side files):
// the folders that appeared while it ran (node folders, its scratch folder) and its own files. A failed
// conversion takes them away again. Other files that appear meanwhile are not its own: the host's cancel
// file among them, which must outlive the conversion that it stopped.
class DataSetRollback
{
public:
    DataSetRollback(fs::path folder, std::set<fs::path> dataSetFiles)
        : m_folder(std::move(folder)), m_dataSetFiles(std::move(dataSetFiles))
    {
        for (const fs::directory_entry& entry : fs::directory_iterator(m_folder))
            m_before.insert(entry.path().filename());
    }
    ~DataSetRollback()
    {
        if (m_kept)
            return;
        std::error_code error;
        std::vector<fs::path> written;
        for (fs::directory_iterator it(m_folder, error), end; !error && it != end; it.increment(error))
        {
            const fs::path name = it->path().filename();
            std::error_code typeError;
            if (m_before.count(name) == 0 && (it->is_directory(typeError) || m_dataSetFiles.count(name) > 0))
                written.push_back(it->path());
        }
        for (const fs::path& path : written)
            fs::remove_all(path, error);
    }
    DataSetRollback(const DataSetRollback&) = delete;
    DataSetRollback& operator=(const DataSetRollback&) = delete;

    void keep() { m_kept = true; }

private:
    fs::path m_folder;
    std::set<fs::path> m_dataSetFiles;
    std::set<fs::path> m_before;
    bool m_kept = false;
};

bool endsWith(const std::string& text, const std::string& suffix)
{
    return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

}  // namespace

void buildHspcTree(const std::vector<ScanFiles>& scans, const CacheFiles& cacheFiles,
                   const SupportedAttributes& attributes, bool normalsFromScans, const IoTransfo& transfo,
                   const std::string& wkt, geom::UnitsValue units, const StructuredNormalCalculator& calculator,
                   uint64_t threads, const std::shared_ptr<Logger>& logger, const std::function<bool()>& cancel)
{
    const fs::path treeFile = toPath(cacheFiles.getTreeFile());
    const fs::path outputFolder = treeFile.parent_path();
    const std::string treeName = treeFile.filename().string();

    HspcExporter exporter(toWide(outputFolder), geom::Matrix3d::identity(), transfo, true, logger);
    exporter.setSupportedAttributes(attributes);
    exporter.setWkt(wkt);
    exporter.setSourceUnits(units);
    exporter.setThreads(static_cast<uint32_t>(threads));
    exporter.setCancelPredicate(cancel);
    if (endsWith(treeName, kPackSuffix))
        exporter.setPackArchiveName(treeName.substr(0, treeName.size() - std::string(kPackSuffix).size()));

    uint64_t points = 0;
    for (const ScanFiles& scan : scans)
        points += numPointsPNT(fs::file_size(toPath(scan.pntFile)), true);
    exporter.setExpectedPointCount(points);

    ScanPointSource source(scans, normalsFromScans, calculator);
    DataSetRollback rollback(outputFolder, {treeName, "tree.hspc", "queryTree.hspc", "hspcInfo.json"});
    const IntervalWriter progressRepeat(logger);
    exporter.run([&source](std::vector<ExportPoint>& batch) { return source.next(batch); });
    // A cancel that came too late to stop the conversion still ends the run: the data set goes again.
    if (cancel && cancel())
        throw std::runtime_error("Preprocessing cancelled by user.");
    rollback.keep();
}

}  // namespace pc_preprocess
