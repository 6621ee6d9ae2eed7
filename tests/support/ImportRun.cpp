#include "support/ImportRun.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "cachefiles/PntFiles.h"
#include "core/StringConversion.h"

namespace pcp_test
{

using namespace pc_preprocess;

ImportRun runImport(const TempFolder& folder, const ImporterMaker& make, const ColorMode& probeMode,
                    double probeScale, const ImportSettings& settings)
{
    ImportRun run;
    if (settings.probe)
    {
        const std::unique_ptr<Convertor> prober = make(probeMode);
        run.probe = prober->probe(probeScale, {});
        run.probeWarnings = prober->getWarnings();
        run.wkt = prober->wkt();
    }
    const std::wstring cache = toWide(folder.path() / "cache");
    std::filesystem::remove_all(toPath(cache));
    std::filesystem::create_directories(toPath(Convertor::getPointFolder(cache)));
    std::filesystem::create_directories(toPath(Convertor::getBubblesFolder(cache)));
    const IoTransfo grid = settings.grid.value_or(run.probe.transfo);
    run.converter = make(settings.runMode.value_or(run.probe.colorMode));
    run.converter->run(cache, grid, settings.makeViews, [&](double f) { run.progress.push_back(f); }, {});
    run.warnings = run.converter->getWarnings();
    run.attributes = run.converter->getSupportedAttributes();
    run.workDone = run.converter->workDone();
    run.workTotal = run.converter->workTotal();
    run.files = run.converter->getScanFiles();
    for (const ScanFiles& scan : run.files)
    {
        IoTransfo transfo;
        run.scans.emplace_back();
        readPNT(scan.pntFile, transfo, run.scans.back());
        EXPECT_EQ(transfo, grid) << ws2s(scan.pntFile);
        run.metas.push_back(readMetaFile(scan.metaFile));
    }
    if (!run.scans.empty())
    {
        run.points = run.scans[0];
        run.meta = run.metas[0];
    }
    return run;
}

}  // namespace pcp_test
