// Throughput of the thinning steps of the tree build: the voxel simplifier that folds eight full children
// into their parent, and the two node filters over a dense node of a million points read from its PNT file
// (which lives in the system's temporary folder, so in the page cache as long as memory allows).
#include <benchmark/benchmark.h>

#include <cmath>
#include <filesystem>
#include <stdexcept>

#include "bench/BenchFolder.h"
#include "bench/BenchNoise.h"
#include "cachefiles/PntFiles.h"
#include "core/StringConversion.h"
#include "octree/NodeFilters.h"
#include "octree/VxMap.h"

using namespace pc_preprocess;

namespace
{

IoTransfo benchTransfo()
{
    IoTransfo t;
    t.scale = {0.001, 0.001, 0.001};
    t.offset = {1000.0, 2000.0, 100.0};
    return t;
}

// Scans of a gently curved wall, `scans` of them over the same place, each sampled row by row every `spacing`
// steps with a little noise: where scans overlap, positions repeat as they do in a dense node. The radius is
// the spacing in metres, as the build gives it to scans with panoramas.
std::vector<IoLightPoint> wall(size_t n, int scans, int32_t spacing)
{
    std::vector<IoLightPoint> points(n);
    const size_t perScan = n / static_cast<size_t>(scans);
    const auto side = static_cast<int32_t>(std::sqrt(static_cast<double>(perScan)));
    pcp_bench::BenchNoise noise;
    for (size_t i = 0; i < n; ++i)
    {
        IoLightPoint& p = points[i];
        const auto k = static_cast<int32_t>(i % perScan);
        const int32_t column = k % side;
        const int32_t row = k / side;
        p.x = column * spacing + noise(2);
        p.y = row * spacing + noise(2);
        p.z = static_cast<int32_t>(200.0 * std::sin(column * 0.01) * std::cos(row * 0.01)) + noise(2);
        p.r = static_cast<uint16_t>(((column / 16 + noise(8)) & 0xFF) * 257);
        p.g = static_cast<uint16_t>(((row / 16 + noise(8)) & 0xFF) * 257);
        p.b = static_cast<uint16_t>((120 + noise(16)) * 257);
        p.radius = 0.001f * static_cast<float>(spacing);
        p.intensity = static_cast<uint16_t>(20000 + noise(4096));
        p.scanId = static_cast<uint16_t>(i / perScan + 1);
    }
    return points;
}

ExtentsI32 boxOf(const std::vector<IoLightPoint>& points)
{
    ExtentsI32 box;
    for (const IoLightPoint& p : points)
        box.extend(p);
    return box;
}

// The PNT of a dense node of a million points from four overlapping scans, written once for the whole run and
// removed at exit.
class DenseNode
{
public:
    static const DenseNode& instance()
    {
        static DenseNode node;
        return node;
    }
    ~DenseNode()
    {
        std::error_code ignored;
        std::filesystem::remove_all(m_folder, ignored);
    }

    static constexpr size_t kPoints = 1 << 20;
    std::wstring file;
    ExtentsI32 box;

private:
    DenseNode()
    {
        m_folder = pcp_bench::makeBenchFolder("pcp-bench-filters");
        file = toWide(m_folder / "node.pnt");
        const std::vector<IoLightPoint> points = wall(kPoints, 4, 2);
        box = boxOf(points);
        writeTuncatePNT(file, benchTransfo(), points);
    }
    std::filesystem::path m_folder;
};

void countPoints(benchmark::State& state, size_t n)
{
    state.counters["points/s"] =
        benchmark::Counter(static_cast<double>(state.iterations() * n), benchmark::Counter::kIsRate);
}

// Eight full children folded into their parent, as a merge does for every inner node: two overlapping scans.
void BM_WorkerSimplify(benchmark::State& state)
{
    std::vector<IoLightPoint> children = wall(8 * 65536, 2, 3);
    size_t kept = 0;
    for (auto _ : state)
    {
        const std::vector<IoLightPoint> parent = voxelizer::workerSimplify(children, benchTransfo(), 65536);
        kept = parent.size();
        benchmark::DoNotOptimize(parent.data());
    }
    countPoints(state, children.size());
    state.counters["kept"] = static_cast<double>(kept);
}

void BM_FilterFernalStyle(benchmark::State& state)
{
    const DenseNode& node = DenseNode::instance();
    size_t kept = 0;
    for (auto _ : state)
    {
        const FilteredPoints result = filterFernalStyle(node.file, node.box, benchTransfo());
        kept = result.points.size();
        benchmark::DoNotOptimize(result.points.data());
    }
    countPoints(state, DenseNode::kPoints);
    state.counters["kept"] = static_cast<double>(kept);
}

void BM_FilterTandStyle(benchmark::State& state)
{
    const DenseNode& node = DenseNode::instance();
    size_t kept = 0;
    for (auto _ : state)
    {
        const FilteredPoints result = filterTandStyle(node.file, node.box, benchTransfo(), false);
        kept = result.points.size();
        benchmark::DoNotOptimize(result.points.data());
    }
    countPoints(state, DenseNode::kPoints);
    state.counters["kept"] = static_cast<double>(kept);
}

}  // namespace

BENCHMARK(BM_WorkerSimplify)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_FilterFernalStyle)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_FilterTandStyle)->Unit(benchmark::kMillisecond)->UseRealTime();

BENCHMARK_MAIN();
