// The whole run, from the host's call to a finished cache, and the one way a run ends when it does not
// finish.
#include "core/LibAccessor.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "cachefiles/BubbleJson.h"
#include "cachefiles/CacheFolder.h"
#include "cachefiles/KeyFile.h"
#include "cachefiles/PntFormat.h"
#include "cachefiles/RegionJson.h"
#include "core/CacheCleaner.h"
#include "core/CurrentExceptionName.h"
#include "core/ErrorWithReason.h"
#include "core/FileFormat.h"
#include "core/ImporterFactory.h"
#include "core/StringConversion.h"
#include "core/Units.h"
#include "core/WorkerThreads.h"
#include "octree/BuildTree.h"
#include "services/Logger.h"
#include "services/Stopwatch.h"

namespace pc_preprocess
{

namespace
{

// True once a file named "cancel" exists in the cache folder; whoever creates it, the host included, cancels
// the run. Workers call it at once, so it is serialised.
std::function<bool()> makeCancelPredicate(const std::wstring& cacheFolder)
{
    auto mutex = std::make_shared<std::mutex>();
    const std::filesystem::path cancelFile = toPath(cacheFolder) / "cancel";
    return [mutex, cancelFile]
    {
        std::lock_guard lock(*mutex);
        std::error_code error;
        const bool exists = std::filesystem::exists(cancelFile, error);
        if (error)
            throw std::filesystem::filesystem_error("exists", cancelFile, error);
        return exists;
    };
}

void requireDirectory(const std::wstring& cacheFolder)
{
    const std::filesystem::path folder = toPath(cacheFolder);
    std::error_code error;
    const std::filesystem::file_status status = std::filesystem::status(folder, error);
    if (error && error != std::errc::no_such_file_or_directory)
        throw std::filesystem::filesystem_error("exists", folder, error);
    if (!std::filesystem::is_directory(status))
        throw std::runtime_error("runFull ERROR: " + ws2s(cacheFolder) + " is not an existing directory.");
}

void createFolder(const std::wstring& wide)
{
    const std::filesystem::path folder = toPath(wide);
    std::error_code error;
    std::filesystem::create_directory(folder, error);
    if (error)
        throw std::filesystem::filesystem_error("create_directory", folder, error);
}

// Thrown by a step that has ended the run itself, folder cleaned and log written: it reaches the host as it is.
class RunEnded : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

// Cleans the folder down to the log. A clean that fails is one more error in the log: the run still ends with
// its own message.
void cleanAfterStop(const std::shared_ptr<Logger>& logger, const std::wstring& cacheFolder)
{
    runWithoutThrowing([&] { cleanCacheFolder(logger, cacheFolder); },
                       [&](const std::string& text)
                       {
                           logger->error("ERROR cleaning the cache folder :\n\t" + text);
                           logger->outputErrors({});
                       });
}

// The end of a run that did not finish: the folder cleaned down to the log, one exception to the host.
[[noreturn]] void endRun(const std::shared_ptr<Logger>& logger, const std::wstring& cacheFolder,
                         const std::string& message)
{
    cleanAfterStop(logger, cacheFolder);
    throw RunEnded(message);
}

[[noreturn]] void endCancelled(const std::shared_ptr<Logger>& logger, const std::wstring& cacheFolder,
                               const std::string& message)
{
    logger->cancel();
    endRun(logger, cacheFolder, message);
}

[[noreturn]] void endWithoutPoints(const std::shared_ptr<Logger>& logger, const std::wstring& cacheFolder)
{
    const std::string noPoints = "ERROR: no valid points in input file(s)";
    logger->error(noPoints);
    endRun(logger, cacheFolder, noPoints);
}

geom::UnitsValue sourceUnits(const std::vector<InputFileData>& inputs)
{
    // Metres only when every input declares them.
    for (const InputFileData& input : inputs)
        if (getFileUnits(input.path) == geom::kUnitsUndefined)
            return geom::kUnitsUndefined;
    return geom::kUnitsMeters;
}

uint64_t pointsInScans(const std::vector<ScanFiles>& scans)
{
    uint64_t points = 0;
    for (const ScanFiles& scan : scans)
        points += numPointsPNT(std::filesystem::file_size(toPath(scan.pntFile)), true);
    return points;
}

}  // namespace

std::vector<ScanFiles> LibAccessor::runFull(const std::wstring& cacheFolder,
                                            const std::vector<InputFileData>& inputs,
                                            const CacheFiles& cacheFiles, const std::wstring& keyName,
                                            double scale, unsigned int threads, bool noPanoramaStyle,
                                            bool hspcOnly, bool computeNormals,
                                            std::shared_ptr<Logger> logger, bool convertOnly)
{
    // The key file comes first: with size 0 it tells any reader that this cache is begun, not complete.
    writeKeyFile(cacheFiles.getKeyFile(), keyName, 0);
    requireDirectory(cacheFolder);
    if (inputs.empty())
        throw std::runtime_error("runFull ERROR: no files are provided.\n");
    createFolder(Convertor::getBubblesFolder(cacheFolder));
    createFolder(Convertor::getPointFolder(cacheFolder));

    // From here on every way out of the run is the same: the reason in the log, the folder cleaned down to the
    // log, one exception to the host. The steps end the run themselves where they know why; anything else
    // that escapes them (a cancel test or a log line that cannot reach the disk, a scan file that vanished)
    // ends it here.
    try
    {
        return runSteps(cacheFolder, inputs, cacheFiles, keyName, scale, threads, noPanoramaStyle, hspcOnly,
                        computeNormals, logger, convertOnly);
    }
    catch (const RunEnded& end)
    {
        throw std::runtime_error(end.what());
    }
    catch (...)
    {
        const std::string text = currentExceptionText();
        runWithoutThrowing([&] { logger->error("ERROR preprocessing :\n\t" + text); },
                           [](const std::string&) {});
        cleanAfterStop(logger, cacheFolder);
        throw std::runtime_error("Preprocessing failed: see " + ws2s(cacheFiles.getLogFile()));
    }
}

std::vector<ScanFiles> LibAccessor::runSteps(const std::wstring& cacheFolder,
                                             const std::vector<InputFileData>& inputs,
                                             const CacheFiles& cacheFiles, const std::wstring& keyName,
                                             double scale, unsigned int threads, bool noPanoramaStyle,
                                             bool hspcOnly, bool computeNormals,
                                             const std::shared_ptr<Logger>& logger, bool convertOnly)
{
    const std::function<bool()> cancelled = makeCancelPredicate(cacheFolder);

    const unsigned hardware = std::max(1u, std::thread::hardware_concurrency());
    threads = std::min(hardware, std::max(1u, threads));
    logger->message("Running with " + std::to_string(threads) + " threads.");

    // The first input that probes well decides the transform, colour mode, georeference and regions.
    Stopwatch probeClock;
    logger->message("Auto-detect geo tag in the data");
    ProbeResult probe;
    bool probed = false;
    for (const InputFileData& input : inputs)
    {
        std::shared_ptr<Convertor> importer;
        ProbeResult result;
        // A failure here only passes the choice on to the next input.
        try
        {
            logger->message(ws2s(L"Probing " + input.path));
            importer = m_localFrameAsked ? createImporter(InputFileData(input), TopoDef())
                                         : createImporter(InputFileData(input));
            result = importer->probe(scale, cancelled);
        }
        catch (const std::exception& e)
        {
            logger->message("ERROR probe :\n\t" + logText(e));
            importer.reset();
        }
        catch (...)
        {
            const std::string type = currentExceptionTypeName();
            logger->message(type.empty() ? "ERROR probe exception of unknown type" : "ERROR probe : " + type);
            importer.reset();
        }
        if (cancelled())
            endCancelled(logger, cacheFolder, "Preprocessing cancelled.");
        if (!importer)
            continue;
        if (importer->hasWarnings())
        {
            logger->message("Warnings probe :");
            for (const std::wstring& warning : importer->getWarnings())
                logger->message(ws2s(warning));
            importer->clearWarnings();
        }
        logger->message(importer->headerStr());
        // An input without a single point cannot place the cache; the next one may.
        if (!probed || (!probe.transfo.isValid() && result.transfo.isValid()))
        {
            m_wkt = importer->wkt();
            probe = std::move(result);
            probed = true;
        }
        if (probe.transfo.isValid())
            break;
    }
    logger->message("Finished probe : Elapsed time = " + probeClock.elapsed() + " seconds.");
    const std::string failedText = "Preprocessing failed: see " + ws2s(cacheFiles.getLogFile());
    if (!probed)
    {
        logger->message("ERROR: Probing did not succeed");
        endRun(logger, cacheFolder, failedText);
    }
    if (!probe.transfo.isValid())
        endWithoutPoints(logger, cacheFolder);
    m_localFrame = probe.topoDef;
    if (m_localFrame.valid)
        logger->message("Local frame: east, north, up at longitude " + std::to_string(m_localFrame.lambda0) +
                        ", latitude " + std::to_string(m_localFrame.phi0));

    logger->increaseStep("Read");
    logger->message("Started reading (convertFilesThreaded)");
    Stopwatch readClock;
    std::vector<ScanFiles> scans;
    SupportedAttributes attributes;
    try
    {
        std::tie(scans, attributes) =
            convertFilesThreaded(cacheFolder, inputs, probe.transfo, probe.colorMode, threads,
                                 probe.hasScanViews, logger, cancelled);
    }
    catch (const std::exception& e)
    {
        logger->error("ERROR reading :\n\t" + logText(e));
    }
    logger->message("Finished reading : Elapsed time = " + readClock.elapsed() + " seconds");
    // Workers stop at a cancel without raising an error: what they left is incomplete, not failed.
    if (cancelled() && !logger->errorHasOccurred())
        endCancelled(logger, cacheFolder, "Preprocessing cancelled by user.");
    if (logger->errorHasOccurred() || scans.empty())
    {
        logger->message("ERROR: error occurred during convert files threaded or disk files are empty");
        endRun(logger, cacheFolder, failedText);
    }
    scans.front().hasScanView = probe.hasScanViews;
    if (cancelled())
        endCancelled(logger, cacheFolder, "Preprocessing cancelled by user.");

    if (!convertOnly && pointsInScans(scans) == 0)
        endWithoutPoints(logger, cacheFolder);

    logger->message("Started creating VRP file (bubbleJson)");
    Stopwatch vrpClock;
    try
    {
        bubbleJson(scans, cacheFiles.getVrpFile());
    }
    catch (const std::exception& e)
    {
        logger->error(std::string("ERROR VRP file :\n\t") + e.what());
    }
    logger->message("Finished VRP file : Elapsed time = " + vrpClock.elapsed() + " seconds");
    if (m_localFrame.valid)
    {
        try
        {
            writeTopoDef(toWide(toPath(cacheFolder) / kTopoDefFileName), m_localFrame);
        }
        catch (const std::exception& e)
        {
            logger->error(std::string("ERROR topocentric file :\n\t") + e.what());
        }
    }
    if (logger->errorHasOccurred())
        endRun(logger, cacheFolder, failedText);

    if (!probe.regions.empty())
    {
        logger->message("Started creating RGN file (regionJson)");
        Stopwatch rgnClock;
        try
        {
            regionJson(probe.regions, cacheFiles.getRgnFile());
        }
        catch (const std::exception& e)
        {
            logger->error(std::string("ERROR RGN file :\n\t") + e.what());
        }
        logger->message("Finished RGN file : Elapsed time = " + rgnClock.elapsed() + " seconds");
    }
    if (logger->errorHasOccurred())
        endRun(logger, cacheFolder, failedText);
    if (cancelled())
        endCancelled(logger, cacheFolder, "Preprocessing cancelled by user.");

    if (!convertOnly)
    {
        const geom::UnitsValue units = sourceUnits(inputs);
        logger->message("Source units: " + convertUnitsEnumToStdString(units, false));
        try
        {
            buildTree(scans, cacheFolder, cacheFiles, probe.transfo, attributes, threads, logger,
                      noPanoramaStyle, hspcOnly, computeNormals, m_wkt, units, cancelled, m_startWorker);
        }
        catch (const std::exception& e)
        {
            // A tree building that stopped at the cancel file ends the run as cancelled, not as failed.
            if (cancelled() && !logger->errorHasOccurred())
                endCancelled(logger, cacheFolder, "Preprocessing cancelled by user.");
            logger->error(std::string("ERROR tree building :\n\t") + e.what());
        }
        if (logger->errorHasOccurred())
            endRun(logger, cacheFolder, failedText);
    }

    logger->message(ws2s(L"Finish key file: " + keyName));
    if (convertOnly)
    {
        // Without a tree the folder holds the scans' files as the run's result; their size makes it complete.
        uint64_t size = 0;
        getFoldersize(cacheFolder, size);
        writeKeyFile(cacheFiles.getKeyFile(), keyName, size);
    }
    else
        finishKeyFile(cacheFiles.getKeyFile(), keyName);
    return scans;
}

}  // namespace pc_preprocess
