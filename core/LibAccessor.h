#pragma once

#include <functional>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "cachefiles/CacheFiles.h"
#include "core/ColorMode.h"
#include "core/Export.h"
#include "core/InputFileData.h"
#include "core/IoTransfo.h"
#include "core/ScanFiles.h"
#include "core/SupportedAttributes.h"
#include "core/WorkerThreads.h"
#include "scanview/TopoDef.h"

namespace pc_preprocess
{

class Logger;

// The host's entry to a preprocessing run.
class PCP_API LibAccessor
{
public:
    // Georeferenced inputs (LAS and LAZ with a coordinate system) are carried into a local east-north-up
    // frame on the ellipsoid below the first point, which the cache keeps in its topocentric file. Off by
    // default: the inputs' own coordinates are kept.
    void reprojectToLocalFrame(bool enabled) { m_localFrameAsked = enabled; }

    // How the workers of the read stage and of the tree are started; a host that manages its threads itself
    // supplies its own starter. A thread that cannot be started fails the run like any other error.
    void useThreadStarter(ThreadStarter start) { m_startWorker = std::move(start); }

    // Turns the inputs into a finished cache in cacheFolder: key file, probe, conversion on worker threads,
    // VRP and RGN, the tree, the key file's size. Returns the converted scans (whose files a tree build has
    // consumed). Every failure and cancel cleans the folder down to the log and ends in one runtime_error;
    // nothing returns before every thread of the run is joined. The run is cancelled by creating a file named
    // "cancel" in cacheFolder. With convertOnly the run stops after the VRP and RGN, and the per-scan files
    // remain.
    std::vector<ScanFiles> runFull(const std::wstring& cacheFolder, const std::vector<InputFileData>& inputs,
                                   const CacheFiles& cacheFiles, const std::wstring& keyName, double scale,
                                   unsigned int threads, bool noPanoramaStyle, bool hspcOnly,
                                   bool computeNormals, std::shared_ptr<Logger> logger, bool convertOnly);

    // Converts the inputs on up to `threads` workers, largest file first, into per-scan files of the point
    // folder. Failures of a file are held in the logger: the caller checks errorHasOccurred. A failure outside
    // any file (a cancel test that throws, a worker that cannot be started) ends every worker and is thrown
    // once they are all joined.
    std::tuple<std::vector<ScanFiles>, SupportedAttributes> convertFilesThreaded(
        const std::wstring& cacheFolder, const std::vector<InputFileData>& inputs, const IoTransfo& transfo,
        const ColorMode& colorMode, uint64_t threads, bool makeViews, std::shared_ptr<Logger> logger,
        const std::function<bool()>& cancelPredicate) const;

private:
    // The run after the checks of its arguments: probe, reading, side files, tree, key file.
    std::vector<ScanFiles> runSteps(const std::wstring& cacheFolder, const std::vector<InputFileData>& inputs,
                                    const CacheFiles& cacheFiles, const std::wstring& keyName, double scale,
                                    unsigned int threads, bool noPanoramaStyle, bool hspcOnly,
                                    bool computeNormals, const std::shared_ptr<Logger>& logger,
                                    bool convertOnly);

    std::string m_wkt;
    bool m_localFrameAsked = false;
    TopoDef m_localFrame;  // settled by the probe of a run that asks for a local frame
    ThreadStarter m_startWorker = startThread;
};

// Converts one input without threads or logger; throws when the colour mode measured differs from the one
// the input declares.
PCP_API std::tuple<std::vector<ScanFiles>, SupportedAttributes> convert(const InputFileData& input,
                                                                        const std::wstring& cacheFolder,
                                                                        const IoTransfo& transfo,
                                                                        bool makeViews);

}  // namespace pc_preprocess
