#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cachefiles/MetaFile.h"
#include "core/Convertor.h"
#include "support/TempFolder.h"

namespace pcp_test
{

// What a host sees of one input: one importer probes it, a fresh one converts it into the cache folder
// "cache" of a test's folder (emptied first), and every scan's point and meta file is read back.
struct ImportRun
{
    pc_preprocess::ProbeResult probe;
    std::vector<std::wstring> probeWarnings;  // of the probing importer
    std::string wkt;                          // as the probe found it
    // The converting importer, and what it tells after its run.
    std::unique_ptr<pc_preprocess::Convertor> converter;
    std::vector<std::wstring> warnings;
    pc_preprocess::SupportedAttributes attributes;
    int64_t workDone = 0;
    int64_t workTotal = 0;
    std::vector<double> progress;
    std::vector<pc_preprocess::ScanFiles> files;
    std::vector<std::vector<pc_preprocess::IoLightPoint>> scans;
    std::vector<pc_preprocess::MetaData> metas;
    // The first scan's, for formats of one scan; empty when the run wrote none.
    std::vector<pc_preprocess::IoLightPoint> points;
    pc_preprocess::MetaData meta;
};

struct ImportSettings
{
    std::optional<pc_preprocess::ColorMode> runMode;  // the probed one when not given
    std::optional<pc_preprocess::IoTransfo> grid;     // the probed one when not given
    bool makeViews = false;
    bool probe = true;  // without a probe, the run needs its mode and grid given
};

// An importer of the test's input in the given colour mode.
using ImporterMaker =
    std::function<std::unique_ptr<pc_preprocess::Convertor>(const pc_preprocess::ColorMode&)>;

// The probe proposes a grid for steps of `probeScale`.
ImportRun runImport(const TempFolder& folder, const ImporterMaker& make,
                    const pc_preprocess::ColorMode& probeMode, double probeScale,
                    const ImportSettings& settings = {});

}  // namespace pcp_test
