// Throughput of the node files: PNT written and read whole or streamed, PNZ written and read, and the direct
// conversions between the two forms. Bytes per second count the PNT size of the points, so that the PNZ
// figures say how far compression lags behind plain copying. Files live in the system's temporary folder,
// which is the page cache as long as memory allows.
#include <benchmark/benchmark.h>

#include <cmath>
#include <filesystem>
#include <map>
#include <stdexcept>

#include "bench/BenchFolder.h"
#include "bench/BenchNoise.h"
#include "cachefiles/PntFiles.h"
#include "cachefiles/PnzFiles.h"
#include "core/StringConversion.h"

using namespace pc_preprocess;

namespace
{

// A scan-like surface: a gently curved sheet sampled row by row with a few units of noise, smooth colours
// and noisy intensity, as the points of a real node are.
std::vector<IoLightPoint> scanPoints(size_t n)
{
    std::vector<IoLightPoint> points(n);
    pcp_bench::BenchNoise noise;
    for (size_t i = 0; i < n; ++i)
    {
        IoLightPoint& p = points[i];
        const int32_t column = static_cast<int32_t>(i % 4096);
        const int32_t row = static_cast<int32_t>(i / 4096);
        p.x = column * 40 + noise(8);
        p.y = row * 40 + noise(8);
        p.z = static_cast<int32_t>(2000.0 * std::sin(column * 0.01) * std::cos(row * 0.01)) + noise(16);
        p.r = static_cast<uint16_t>(((column / 16 + noise(8)) & 0xFF) * 257);
        p.g = static_cast<uint16_t>(((row / 16 + noise(8)) & 0xFF) * 257);
        p.b = static_cast<uint16_t>((120 + noise(16)) * 257);
        p.radius = 5.0f + 0.001f * static_cast<float>(i % 100000);
        p.intensity = static_cast<uint16_t>(20000 + noise(4096));
        p.scanId = 1;
    }
    return points;
}

IoTransfo benchTransfo()
{
    IoTransfo t;
    t.scale = {0.001, 0.001, 0.001};
    t.offset = {1000.0, 2000.0, 100.0};
    return t;
}

// One folder for the whole run, removed at exit; it holds one PNT and one PNZ per point count.
class BenchFiles
{
public:
    static BenchFiles& instance()
    {
        static BenchFiles files;
        return files;
    }
    ~BenchFiles()
    {
        std::error_code ignored;
        std::filesystem::remove_all(m_folder, ignored);
    }

    std::wstring path(size_t n, const char* extension)
    {
        return toWide(m_folder / ("node-" + std::to_string(n) + extension));
    }
    // The PNT and PNZ of n points, made on first use.
    std::wstring pnt(size_t n)
    {
        const std::wstring file = path(n, ".pnt");
        if (!std::filesystem::exists(toPath(file)))
            writeTuncatePNT(file, benchTransfo(), scanPoints(n));
        return file;
    }
    std::wstring pnz(size_t n)
    {
        const std::wstring file = path(n, ".pnz");
        if (!std::filesystem::exists(toPath(file)))
            directPntToPnz(pnt(n), file);
        return file;
    }

private:
    BenchFiles() { m_folder = pcp_bench::makeBenchFolder("pcp-bench-nodes"); }
    std::filesystem::path m_folder;
};

void countPntBytes(benchmark::State& state, size_t n)
{
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * fileSizePNT(n, true)));
    state.counters["points/s"] =
        benchmark::Counter(static_cast<double>(state.iterations() * n), benchmark::Counter::kIsRate);
}

void BM_WritePnt(benchmark::State& state)
{
    const size_t n = static_cast<size_t>(state.range(0));
    const std::vector<IoLightPoint> points = scanPoints(n);
    const std::wstring file = BenchFiles::instance().path(n, "-written.pnt");
    for (auto _ : state)
        writeTuncatePNT(file, benchTransfo(), points);
    countPntBytes(state, n);
}

void BM_ReadPnt(benchmark::State& state)
{
    const size_t n = static_cast<size_t>(state.range(0));
    const std::wstring file = BenchFiles::instance().pnt(n);
    IoTransfo transfo;
    std::vector<IoLightPoint> points;
    for (auto _ : state)
    {
        readPNT(file, transfo, points);
        benchmark::DoNotOptimize(points.data());
    }
    countPntBytes(state, n);
}

void BM_RunPnt(benchmark::State& state)
{
    const size_t n = static_cast<size_t>(state.range(0));
    const std::wstring file = BenchFiles::instance().pnt(n);
    for (auto _ : state)
    {
        int64_t sum = 0;
        runPNT(file, [&](const IoLightPoint& p) { sum += p.x; });
        benchmark::DoNotOptimize(sum);
    }
    countPntBytes(state, n);
}

void BM_WritePnz(benchmark::State& state)
{
    const size_t n = static_cast<size_t>(state.range(0));
    const std::vector<IoLightPoint> points = scanPoints(n);
    const std::wstring file = BenchFiles::instance().path(n, "-written.pnz");
    uint64_t size = 0;
    for (auto _ : state)
        size = writeTuncatePNZ(file, benchTransfo(), points);
    countPntBytes(state, n);
    state.counters["ratio"] = static_cast<double>(fileSizePNT(n, true)) / static_cast<double>(size);
}

void BM_ReadPnz(benchmark::State& state)
{
    const size_t n = static_cast<size_t>(state.range(0));
    const std::wstring file = BenchFiles::instance().pnz(n);
    IoTransfo transfo;
    std::vector<IoLightPoint> points;
    for (auto _ : state)
    {
        readPNZ(file, transfo, points);
        benchmark::DoNotOptimize(points.data());
    }
    countPntBytes(state, n);
}

void BM_PntToPnz(benchmark::State& state)
{
    const size_t n = static_cast<size_t>(state.range(0));
    const std::wstring source = BenchFiles::instance().pnt(n);
    const std::wstring target = BenchFiles::instance().path(n, "-converted.pnz");
    for (auto _ : state)
        benchmark::DoNotOptimize(directPntToPnz(source, target));
    countPntBytes(state, n);
}

void BM_PnzToPnt(benchmark::State& state)
{
    const size_t n = static_cast<size_t>(state.range(0));
    const std::wstring source = BenchFiles::instance().pnz(n);
    const std::wstring target = BenchFiles::instance().path(n, "-converted.pnt");
    for (auto _ : state)
        benchmark::DoNotOptimize(directPnzToPnt(source, target));
    countPntBytes(state, n);
}

// A full node, and a per-scan file of ten million points.
constexpr int64_t kNode = 65536;
constexpr int64_t kScan = 10000000;

}  // namespace

BENCHMARK(BM_WritePnt)->Arg(kNode)->Arg(kScan)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ReadPnt)->Arg(kNode)->Arg(kScan)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_RunPnt)->Arg(kNode)->Arg(kScan)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_WritePnz)->Arg(kNode)->Arg(kScan)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ReadPnz)->Arg(kNode)->Arg(kScan)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_PntToPnz)->Arg(kNode)->Arg(kScan)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_PnzToPnt)->Arg(kNode)->Arg(kScan)->Unit(benchmark::kMillisecond)->UseRealTime();

BENCHMARK_MAIN();
