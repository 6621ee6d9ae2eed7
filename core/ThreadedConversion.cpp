// The read stage of a run: every input through its importer, on worker threads, largest file first.
#include <algorithm>
#include <filesystem>
#include <mutex>
#include <numeric>
#include <stdexcept>

#include "core/CurrentExceptionName.h"
#include "core/ErrorWithReason.h"
#include "core/FileFormat.h"
#include "core/ImporterFactory.h"
#include "core/LibAccessor.h"
#include "core/StringConversion.h"
#include "core/WorkerThreads.h"
#include "scanview/ScanView.h"
#include "services/IntervalWriter.h"
#include "services/Logger.h"

namespace pc_preprocess
{

namespace
{

// LAS and LAZ define their own colour scales, whatever the caller declared: no mismatch to report.
bool declaresOwnColours(const std::wstring& path)
{
    const EFileFormat format = fileFormat(path);
    return format == kFormatLas || format == kFormatLaz;
}

// The input as its importer sees it: the run's colour mode wherever the input declares none.
InputFileData withRunColorMode(const InputFileData& input, const ColorMode& run)
{
    InputFileData copy = input;
    if (copy.colorMode.rgb == kRgbNone)
        copy.colorMode.rgb = run.rgb;
    if (copy.colorMode.intensity == kIntensityNone)
        copy.colorMode.intensity = run.intensity;
    return copy;
}

std::string mismatchWarning(const std::wstring& path, const ColorMode& measured, const ColorMode& specified)
{
    return ws2s(L"\n*Warning*: input file " + path + L" \n\thas color/intensity mismatch, RGB measured=" +
                std::to_wstring(int(measured.rgb)) + L"; specified=" + std::to_wstring(int(specified.rgb)) +
                L" \n\tIntensity measured=" + std::to_wstring(int(measured.intensity)) + L"; specified=" +
                std::to_wstring(int(specified.intensity)) + L"\n");
}

// What the workers share; one mutex guards it all, the worker's log calls and the progress sum included.
struct ReadStage
{
    ReadStage(const std::wstring& folder, const std::vector<InputFileData>& files,
              const IoTransfo& cacheTransfo, const ColorMode& runColorMode, bool views,
              std::shared_ptr<Logger> runLogger, const std::function<bool()>& cancelPredicate,
              const TopoDef& frame)
        : cacheFolder(folder),
          inputs(files),
          transfo(cacheTransfo),
          colorMode(runColorMode),
          makeViews(views),
          logger(std::move(runLogger)),
          cancel(cancelPredicate),
          localFrame(frame)
    {
    }

    const std::wstring& cacheFolder;
    const std::vector<InputFileData>& inputs;
    const IoTransfo& transfo;
    const ColorMode& colorMode;
    bool makeViews;
    std::shared_ptr<Logger> logger;
    const std::function<bool()>& cancel;
    const TopoDef localFrame;  // valid when the run carries its inputs into a local frame

    std::mutex mutex;
    std::vector<size_t> queue;  // ascending by size: workers take from the back
    std::vector<uint64_t> sizes;
    uint64_t allBytes = 0;
    uint64_t bytesDone = 0;
    uint64_t lastStep = 0;
    std::vector<ScanFiles> scans;
    std::vector<SupportedAttributes> attributes;
    bool stopped = false;
    std::string failure;  // the first failure outside a file's conversion; thrown after the join

    // Progress moves in steps of 2 percent of all bytes, so large files count by their size.
    void addProgress(uint64_t bytes)
    {
        std::lock_guard lock(mutex);
        bytesDone += bytes;
        const uint64_t step = allBytes ? bytesDone * 50 / allBytes : 0;
        if (step > lastStep)
        {
            lastStep = step;
            logger->updateProgress(static_cast<unsigned>(2 * std::min<uint64_t>(step, 50)));
        }
    }

    void logDeclaredModes(const InputFileData& input)
    {
        if (input.colorMode == ColorMode())
            return;
        std::lock_guard lock(mutex);
        const std::string file = ws2s(input.path);
        logger->message(" ### Info: file " + file + " :\n\t" + "has specified rgb mode (" +
                        std::to_string(int(input.colorMode.rgb)) + ") or intensity mode (" +
                        std::to_string(int(input.colorMode.intensity)) + ")");
        if (input.colorMode.rgb != kRgbNone && input.colorMode.rgb != colorMode.rgb)
            logger->message("Warning: file " + file + " :\n\t" + "specified rgb mode (" +
                            std::to_string(int(input.colorMode.rgb)) + ") != determined rgb mode (" +
                            std::to_string(int(colorMode.rgb)) + ")");
        if (input.colorMode.intensity != kIntensityNone && input.colorMode.intensity != colorMode.intensity)
            logger->message("Warning: file " + file + " :\n\t" + "specified intensity mode (" +
                            std::to_string(int(input.colorMode.intensity)) +
                            ") != determined intensity mode (" + std::to_string(int(colorMode.intensity)) +
                            ")");
    }

    void convertOne(size_t index, const std::function<std::shared_ptr<ScanView>()>& viewSource)
    {
        const InputFileData& input = inputs[index];
        logDeclaredModes(input);
        const std::shared_ptr<Convertor> importer =
            localFrame.valid ? createImporter(withRunColorMode(input, colorMode), localFrame)
                             : createImporter(withRunColorMode(input, colorMode));

        importer->useScanViews(viewSource);

        uint64_t myBytes = 0;
        const uint64_t mySize = sizes[index];
        const auto progress = [&](double fraction)
        {
            if (!(fraction >= 0.0 && fraction <= 1.0))
                throw std::runtime_error("fraction should be in between 0.0 and 1.0.\n");
            const auto bytes = static_cast<uint64_t>(fraction * double(mySize));
            if (bytes > myBytes)
            {
                addProgress(bytes - myBytes);
                myBytes = bytes;
            }
        };
        importer->run(cacheFolder, transfo, makeViews, progress, cancel);

        std::lock_guard lock(mutex);
        if (!declaresOwnColours(input.path) && !importer->verifyColorMode())
            logger->message(
                mismatchWarning(input.path, importer->getColorModeData(), importer->getColorModeInit()));
        const auto& files = importer->getScanFiles();
        scans.insert(scans.end(), files.begin(), files.end());
        attributes.push_back(importer->getSupportedAttributes());
        if (importer->hasWarnings())
        {
            logger->message("Warnings during preprocessing:");
            for (const std::wstring& warning : importer->getWarnings())
                logger->message(ws2s(warning));
        }
    }

    bool cancelRequested() const { return cancel && cancel(); }

    // Ends the work of every worker at its next file.
    void stop(const std::string& reason)
    {
        std::lock_guard lock(mutex);
        stopped = true;
        if (failure.empty())
            failure = reason;
    }

    // A thread body: whatever fails outside a file's conversion, the cancel test and the logger included,
    // stops the stage instead of leaving the thread.
    void work()
    {
        runWithoutThrowing([this] { convertQueuedFiles(); }, [this](const std::string& text) { stop(text); });
    }

    void convertQueuedFiles()
    {
        // The worker's panorama grid, made at the first scan that needs one and lent to every file after it.
        std::shared_ptr<ScanView> view;
        const auto viewSource = [&view]
        {
            if (!view)
                view = std::make_shared<ScanView>();
            return view;
        };
        for (;;)
        {
            size_t index;
            {
                std::lock_guard lock(mutex);
                if (stopped || queue.empty() || logger->errorHasOccurred() || cancelRequested())
                    return;
                index = queue.back();
                queue.pop_back();
            }
            const std::string file = ws2s(inputs[index].path);
            // A failed file is held in the logger; the other workers stop at their next file. A file that
            // stopped because the run is being cancelled is no failure: the run ends as cancelled.
            try
            {
                convertOne(index, viewSource);
            }
            catch (...)
            {
                if (!cancelRequested())
                    logger->error(fileFailure(file));
            }
        }
    }

    // Inside a catch handler: the log entry of a file whose conversion failed.
    static std::string fileFailure(const std::string& file)
    {
        try
        {
            throw;
        }
        catch (const std::exception& e)
        {
            return "ERROR reading " + file + " :\n\t" + logText(e);
        }
        catch (...)
        {
            return "ERROR reading: " + file + " :\n\t (other/catchall) -> " + currentExceptionTypeName();
        }
    }
};

SupportedAttributes combine(const std::vector<SupportedAttributes>& perFile, size_t scanCount)
{
    SupportedAttributes result;
    result.radius = true;
    result.scanId = scanCount > 1;
    for (const SupportedAttributes& a : perFile)
    {
        result.classification = result.classification || a.classification;
        result.color = result.color || a.color;
        result.intensity = result.intensity || a.intensity;
        result.normals = result.normals || a.normals;
    }
    return result;
}

}  // namespace

std::tuple<std::vector<ScanFiles>, SupportedAttributes> LibAccessor::convertFilesThreaded(
    const std::wstring& cacheFolder, const std::vector<InputFileData>& inputs, const IoTransfo& transfo,
    const ColorMode& colorMode, uint64_t threads, bool makeViews, std::shared_ptr<Logger> logger,
    const std::function<bool()>& cancelPredicate) const
{
    ReadStage stage(cacheFolder, inputs, transfo, colorMode, makeViews, logger, cancelPredicate,
                    m_localFrame);

    // RCP projects go through a service that serves one caller at a time.
    const bool serial =
        std::any_of(inputs.begin(), inputs.end(),
                    [](const InputFileData& input) { return fileFormat(input.path) == kFormatRcp; });
    const uint64_t workers = serial ? 1 : std::max<uint64_t>(1, std::min<uint64_t>(threads, inputs.size()));

    for (const InputFileData& input : inputs)
    {
        std::error_code error;
        const uintmax_t size = std::filesystem::file_size(toPath(input.path), error);
        stage.sizes.push_back(error ? 0 : uint64_t(size));
    }
    stage.allBytes = std::accumulate(stage.sizes.begin(), stage.sizes.end(), uint64_t{0});
    stage.queue.resize(inputs.size());
    std::iota(stage.queue.begin(), stage.queue.end(), size_t{0});
    std::stable_sort(stage.queue.begin(), stage.queue.end(),
                     [&](size_t a, size_t b) { return stage.sizes[a] < stage.sizes[b]; });

    logger->startProgress("reading");
    {
        const IntervalWriter repeater(logger);
        runOnThreads(
            workers, [&stage] { stage.work(); }, [&stage] { stage.stop({}); }, m_startWorker);
    }
    if (!stage.failure.empty())
        throw std::runtime_error(stage.failure);
    SupportedAttributes attributes = combine(stage.attributes, stage.scans.size());
    return {std::move(stage.scans), attributes};
}

std::tuple<std::vector<ScanFiles>, SupportedAttributes> convert(const InputFileData& input,
                                                                const std::wstring& cacheFolder,
                                                                const IoTransfo& transfo, bool makeViews)
{
    const std::shared_ptr<Convertor> importer = createImporter(input);
    importer->run(cacheFolder, transfo, makeViews, {}, {});
    if (!declaresOwnColours(input.path) && !importer->verifyColorMode())
    {
        const ColorMode measured = importer->getColorModeData();
        const ColorMode& specified = importer->getColorModeInit();
        throw std::runtime_error("convert : colour mode mismatch in " + ws2s(input.path) +
                                 "\nRGB measured : " + std::to_string(int(measured.rgb)) +
                                 "\nRGB specified: " + std::to_string(int(specified.rgb)) +
                                 "\nIntensity measured : " + std::to_string(int(measured.intensity)) +
                                 "\nIntensity specified: " + std::to_string(int(specified.intensity)));
    }
    return {importer->getScanFiles(), importer->getSupportedAttributes()};
}

}  // namespace pc_preprocess
