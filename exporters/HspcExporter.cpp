#include "exporters/HspcExporter.h"

#include <filesystem>
#include <mutex>
#include <stdexcept>
#include <system_error>

#include "core/StringConversion.h"
#include "core/Units.h"
#include "exporters/ConversionCancelWatch.h"
#include "hspc/convert/Converter.h"
#include "hspc/format/Config.h"
#include "importers/TandToHspcImporter.h"
#include "services/Logger.h"

namespace pc_preprocess
{

namespace
{

namespace fs = std::filesystem;

bool isEmptyFolder(const fs::path& folder)
{
    std::error_code error;
    return fs::is_directory(folder, error) && fs::is_empty(folder, error) && !error;
}

// The converter's scratch folder, gone again however the export ends: a failed conversion leaves nothing
// of its sorting behind.
class ScratchFolder
{
public:
    explicit ScratchFolder(fs::path path) : m_path(std::move(path))
    {
        std::error_code error;
        if (!fs::create_directory(m_path, error) && (error || !fs::is_directory(m_path)))
            throw std::runtime_error("HspcExport ERROR: Could not create " + m_path.string());
    }
    ~ScratchFolder()
    {
        std::error_code ignored;
        fs::remove_all(m_path, ignored);
    }
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;

    const fs::path& path() const { return m_path; }

private:
    fs::path m_path;
};

// The converter reports progress from its threads, and the logger refuses a percentage that falls: only a
// rise passes, and nothing thrown ever crosses back into the converter.
class ProgressForward
{
public:
    explicit ProgressForward(std::shared_ptr<Logger> logger) : m_logger(std::move(logger)) {}

    void operator()(int percent, const std::string& text)
    {
        std::lock_guard lock(m_mutex);
        try
        {
            if (!text.empty())
                m_logger->message("\tHSPC Library progress: " + std::to_string(percent) + " % " + text);
            if (percent > m_last && percent <= 100)
            {
                m_last = percent;
                m_logger->updateProgress(static_cast<unsigned>(percent));
            }
        }
        catch (...)
        {
        }
    }

private:
    std::shared_ptr<Logger> m_logger;
    std::mutex m_mutex;
    int m_last = 0;
};

HSPC::LogFunction forwardTo(const std::shared_ptr<Logger>& logger, const std::string& prefix)
{
    return [logger, prefix](const std::string& text)
    {
        try
        {
            logger->message(prefix + text);
        }
        catch (...)
        {
        }
    };
}

// One worker and one input thread unless told otherwise: an export runs beside the host's own work.
HSPC::AdvancedConfig getAdvancedConfig(const std::shared_ptr<Logger>& logger)
{
    HSPC::AdvancedConfig advanced;
    advanced.reservedThreads = 1;
    advanced.workerCount = 1;
    advanced.thirdThreadCount = 1;
    advanced.positionType = HSPC::AttributeType::M96;
    advanced.treeName = "tree";
    if (logger)
    {
        advanced.infoLogger = forwardTo(logger, "\tHSPC Library info: ");
        advanced.warningLogger = forwardTo(logger, "\tHSPC Library warning: ");
        advanced.errorLogger = forwardTo(logger, "\tHSPC Library error: ");
        auto progress = std::make_shared<ProgressForward>(logger);
        advanced.progressLogger = [progress](int percent, const std::string& text) { (*progress)(percent, text); };
    }
    return advanced;
}

HSPC::PointCloudEncodingConfig encodingConfig(const HSPC::JsonInfo& info)
{
    HSPC::PointCloudEncodingConfig encoding;
    encoding.nodeSize = 21666;
    encoding.maxNodeSize = 302144;
    encoding.filterDuplicates = true;
    encoding.requestJsonConfig = [info] { return info; };
    return encoding;
}

}  // namespace

HspcExporter::HspcExporter(const std::wstring& path, const geom::Matrix3d& transform, const IoTransfo& ioTransfo,
                           bool folderMayHoldFiles, std::shared_ptr<Logger> logger)
    : Exporter(path, transform), m_ioTransfo(ioTransfo), m_logger(std::move(logger))
{
    std::error_code error;
    const fs::path folder = toPath(m_path);
    if (folderMayHoldFiles ? !fs::is_directory(folder, error) : !isEmptyFolder(folder))
        throw std::runtime_error("HspcExporter: " + ws2s(m_path) + " is not an existing empty folder.");
    if (!m_ioTransfo.hasPositiveScale())
        throw std::runtime_error("HspcExporter: scale{X,Y,Z} not all positive.");
}

uint64_t HspcExporter::run(const BatchSource& nextBatch)
{
    const ScratchFolder temp(toPath(m_path) / "temp");
    const SupportedAttributes& flags = supportedAttributes();

    HSPC::BasicConfig basic;
    basic.attributes = TandToHspcImporter::attributes(flags);
    basic.origin = m_ioTransfo.offset;
    basic.scale = m_ioTransfo.scale;
    basic.outputPath = ws2s(m_path);
    basic.tempPath = temp.path().string();

    HSPC::AdvancedConfig advanced = getAdvancedConfig(m_logger);
    advanced.workerCount = m_threads;
    if (!m_packName.empty())
    {
        advanced.useArchive = true;
        advanced.treeName = m_packName;
    }

    HSPC::JsonInfo info;
    if (!m_wkt.empty())
        info.add("projection-wkt", m_wkt);
    info.add("coordinates-unit", ws2s(convertUnitsEnumToOdString(m_units, false)));

    if (m_logger)
        m_logger->startProgress("converting to HSPC");
    HSPC::PointCloudEncodingConfig encoding = encodingConfig(info);
    encoding.expectedInputSize = m_expectedPoints * TandToHspcImporter::recordSize(flags);
    HSPC::Converter converter(basic, advanced, encoding);
    auto importer =
        std::make_shared<TandToHspcImporter>(nextBatch, flags, basic.origin, basic.scale, m_transform);
    if (!converter.addImporter(importer))
        throw std::runtime_error("HspcExport ERROR: Cannot add TandToHspcImporter to converter.");
    int result = 1;
    {
        const ConversionCancelWatch watch(m_cancelled, converter.processHandle());
        result = converter.run();
    }
    if (importer->pointsOffGrid() > 0 && m_logger)
        m_logger->message("HspcExporter: " + std::to_string(importer->pointsOffGrid()) +
                          " points left out: their position lies outside the 32-bit grid of the data set");
    if (importer->sourceError())
        std::rethrow_exception(importer->sourceError());
    if (result != 0)
        throw std::runtime_error("HSPCExport ERROR: Failure during the hspc conversion process.");
    return importer->totalPoints();
}

}  // namespace pc_preprocess
