// The binary record importer of the HSPC converter: reading raw batches and encoding them (position as a
// Morton code, RGB, intensity) as a converter worker does, in points per second.
#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "HspcBenchRecords.h"
#include "hspc/convert/BinaryRecordImporter.h"

using namespace HSPC;
using pcp_bench::kDescription;
using pcp_bench::millimetreGrid;
using pcp_bench::randomRecords;

namespace
{

constexpr uint64_t kPoints = 1 << 20;
constexpr uint64_t kBatchPoints = 1 << 16;

void readAndEncode(benchmark::State& state)
{
    const std::shared_ptr<std::vector<uint8_t>> records = randomRecords(kPoints);
    HSPCBuffer<uint8_t> raw;
    HSPCBuffer<uint8_t> encoded;
    for (auto _ : state)
    {
        const std::shared_ptr<BinaryRecordImporter> importer = BinaryRecordImporter::create(
            kDescription, makeMemorySource(records), millimetreGrid(), {}, [](const std::string&) {});
        while (importer->readBatch(raw, BinaryRecordImporter::kBatchHeaderSize + kBatchPoints * 32) ==
               ReadResult::kData)
        {
            if (!importer->convertBatch(raw, encoded))
            {
                state.SkipWithError("conversion failed");
                return;
            }
            benchmark::DoNotOptimize(encoded.data());
        }
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(kPoints));
}
BENCHMARK(readAndEncode)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
