// The raw sort of the HSPC converter: 20 million points (position, RGB, intensity) from the binary record
// importer with 2 workers, in points per second, with the peak of tracked memory and the temp bytes written.
#include <benchmark/benchmark.h>

#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "BenchFolder.h"
#include "HspcBenchRecords.h"
#include "hspc/convert/BinaryRecordImporter.h"
#include "hspc/convert/RawSort.h"

using namespace HSPC;
using pcp_bench::kDescription;
using pcp_bench::millimetreGrid;
using pcp_bench::randomRecords;

namespace
{

constexpr uint64_t kPoints = 20'000'000;

uint64_t folderBytes(const std::filesystem::path& folder)
{
    uint64_t bytes = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
    {
        bytes += entry.file_size();
    }
    return bytes;
}

void BM_RawSort(benchmark::State& state)
{
    const std::shared_ptr<std::vector<uint8_t>> records = randomRecords(kPoints);
    const std::filesystem::path folder = pcp_bench::makeBenchFolder("bench_hspc_rawsort");
    const EncodingTarget target = millimetreGrid();
    std::vector<Attribute> attributes;
    for (const EncodingAttribute& encoding : target.attributes)
    {
        attributes.push_back(encoding.attribute);
    }
    RuntimeConfig config;
    config.batchSize = 16 << 20;
    config.targetMemory = 512 << 20;
    config.workerCount = 2;
    config.reservedThreads = 1;
    config.tempWriterCount = 2;
    config.inputAttributes = attributes;
    config.encodingAttributes = attributes;
    config.inputRecordSize = 17;
    config.encodedRecordSize = 17;
    config.scale = target.scale;
    config.tempPath = folder.string();
    setTempPrefixes(config, 1);
    config.infoLogger = [](const std::string&) {};

    uint64_t peak = 0;
    uint64_t written = 0;
    for (auto _ : state)
    {
        std::shared_ptr<BinaryRecordImporter> importer =
            BinaryRecordImporter::create(kDescription, makeMemorySource(records), target, {}, printError);
        PointDistributionInputHandler<uint32_t> input(config);
        std::atomic<bool> running{true};
        std::atomic<uint64_t> highest{0};
        std::thread sampler([&] {
            while (running.load())
            {
                highest.store(std::max(highest.load(), trackedByteCount()));
                // A sampler that spun would take a core from the stage on a 2-core machine.
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        });
        ProcessHandle handle;
        const ConversionFailures failures = rawSort<uint32_t>(config, {importer.get()}, input, handle);
        running.store(false);
        sampler.join();
        if (!failures.empty())
        {
            state.SkipWithError(failures.front().message.c_str());
            break;
        }
        peak = std::max(peak, highest.load());
        written = folderBytes(folder);
    }
    std::filesystem::remove_all(folder);
    state.SetItemsProcessed(int64_t(state.iterations() * kPoints));
    state.counters["peak_tracked_MiB"] = double(peak) / (1 << 20);
    state.counters["temp_written_MiB"] = double(written) / (1 << 20);
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    state.counters["peak_rss_MiB"] = double(usage.ru_maxrss) / 1024;
}

}  // namespace

BENCHMARK(BM_RawSort)->Unit(benchmark::kMillisecond)->Iterations(2)->UseRealTime();
BENCHMARK_MAIN();
