// Throughput of the LAS importer on a scan of 20 million points of format 3 (bench/LasBenchFile.h): the batch
// loop alone, which turns raw records into points, and a host's whole import (probe, then conversion into the
// cache's point, class and meta files). Points per second and bytes of input per second; the file lives in
// the system's temporary folder, which is the page cache as long as memory allows, and goes at exit.
#include <benchmark/benchmark.h>

#include <vector>

#include "bench/LasBenchFile.h"
#include "importers/Las.h"

using namespace pc_preprocess;
using pcp_bench::LasBenchFile;

namespace
{

const ColorMode kMode(kRgb16Bit, kIntensity16Bit);

// Records to points in the file's own grid, where the raw integers pass unchanged: the importer's floor.
void BM_LasBatches(benchmark::State& state)
{
    const LasBenchFile& file = LasBenchFile::instance();
    const Discretization identity = LasBenchFile::fileGrid();
    std::vector<IoLightPoint> batch;
    batch.reserve(Convertor::kBatchSize);
    uint64_t points = 0;
    for (auto _ : state)
    {
        Las las(file.path(), 1.0, kMode);
        las.openGroup();
        while (las.remainScanData())
        {
            las.processBatch(batch, identity, false);
            points += batch.size();
        }
        las.closeGroup();
    }
    state.SetItemsProcessed(static_cast<int64_t>(points));
    state.SetBytesProcessed(static_cast<int64_t>(file.size() * state.iterations()));
}
BENCHMARK(BM_LasBatches)->Unit(benchmark::kMillisecond)->UseRealTime();

// What a host does with one file: probe it, then convert it with a fresh importer.
void BM_LasProbeAndRun(benchmark::State& state)
{
    const LasBenchFile& file = LasBenchFile::instance();
    for (auto _ : state)
    {
        const ProbeResult probe = Las(file.path(), 1.0, kMode).probe(1.0, {});
        Las(file.path(), 1.0, kMode).run(file.cache(), probe.transfo, false, {}, {});
    }
    state.SetItemsProcessed(static_cast<int64_t>(LasBenchFile::kPoints * state.iterations()));
    state.SetBytesProcessed(static_cast<int64_t>(file.size() * state.iterations()));
}
BENCHMARK(BM_LasProbeAndRun)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
