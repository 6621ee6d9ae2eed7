// Scan views: how fast points go into a panorama (points per second), and what finishing a dense scan costs:
// the resize search and both pictures of a full 2048 x 4096 grid, hole filling and PNG encoding included.
// Points come from the ray-cast sample room; pictures go to the system's temporary folder.
#include <benchmark/benchmark.h>

#include <cmath>
#include <filesystem>
#include <stdexcept>

#include "bench/BenchFolder.h"
#include "core/StringConversion.h"
#include "sample/SampleScene.h"
#include "scanview/ScanView.h"

using namespace pc_preprocess;

namespace
{

const geom::Point3d kScanner(4.2, 2.7, 1.45);

IoTransfo benchTransfo()
{
    IoTransfo t;
    t.scale = {0.0001, 0.0001, 0.0001};
    t.offset = {0.0, 0.0, 0.0};
    return t;
}

// The room scanned at the given grid, in importer batches of 65536 points.
std::vector<std::vector<IoLightPoint>> roomBatches(int rows, int columns)
{
    const IoTransfo t = benchTransfo();
    std::vector<std::vector<IoLightPoint>> batches(1);
    for (const pcp_sample::SampleHit& hit : pcp_sample::scanRoom(kScanner, {rows, columns}))
    {
        if (batches.back().size() == 65536)
            batches.emplace_back();
        IoLightPoint p;
        p.x = static_cast<int32_t>(std::lround(hit.position.x / t.scale[0]));
        p.y = static_cast<int32_t>(std::lround(hit.position.y / t.scale[1]));
        p.z = static_cast<int32_t>(std::lround(hit.position.z / t.scale[2]));
        p.radius = 0.0f;
        p.r = hit.r;
        p.g = hit.g;
        p.b = hit.b;
        p.intensity = hit.intensity;
        batches.back().push_back(p);
    }
    return batches;
}

ScanView& sharedView()
{
    static ScanView view;
    return view;
}

class PictureFolder
{
public:
    PictureFolder() { m_path = pcp_bench::makeBenchFolder("pcp-bench-view"); }
    ~PictureFolder() { std::filesystem::remove_all(m_path); }
    std::wstring wide() const { return toWide(m_path); }

private:
    std::filesystem::path m_path;
};

// A scan of 4 million points, about half the grid's pixels, inserted batch by batch into a fresh view.
void BM_Insert(benchmark::State& state)
{
    static const auto batches = roomBatches(1600, 2500);
    ScanView& view = sharedView();
    const IoTransfo t = benchTransfo();
    int64_t points = 0;
    for (auto _ : state)
    {
        state.PauseTiming();
        view.resetData();
        auto copy = batches;
        state.ResumeTiming();
        for (auto& batch : copy)
            view.insert(batch, t, {kScanner.x, kScanner.y, kScanner.z}, false);
        for (const auto& batch : copy)
            points += static_cast<int64_t>(batch.size());
        benchmark::DoNotOptimize(view.maxDistance());
    }
    state.counters["points/s"] = benchmark::Counter(static_cast<double>(points), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_Insert)->Unit(benchmark::kMillisecond);

// A scan dense enough to close the full grid: resize keeps it, and both pictures are 2048 x 4096.
void BM_ResizeAndExport(benchmark::State& state)
{
    static const auto batches = roomBatches(2600, 5200);
    ScanView& view = sharedView();
    view.resetData();
    auto copy = batches;
    for (auto& batch : copy)
        view.insert(batch, benchTransfo(), {kScanner.x, kScanner.y, kScanner.z}, false);
    const PictureFolder folder;
    for (auto _ : state)
    {
        if (view.resize(0) != ScanView::kFullWidth)
            state.SkipWithError("the dense scan did not keep the full grid");
        view.exportViewPng(folder.wide(), L"room-0000", L"view");
        view.exportNormalPng(folder.wide(), L"room-0000", L"norm");
    }
}
BENCHMARK(BM_ResizeAndExport)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
