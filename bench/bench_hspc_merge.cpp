// Merging HSPC data sets: 4 million points (position, RGB, intensity) converted in four tiles on one grid and
// merged into one data set with 2 workers, beside the conversion of the same points from raw records, in
// points per second. The merge takes the tiles' nodes as sorted runs, so it skips the raw sort.
#include <benchmark/benchmark.h>

#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "BenchFolder.h"
#include "HspcBenchRecords.h"
#include "hspc/convert/BinaryRecordImporter.h"
#include "hspc/convert/Converter.h"
#include "hspc/convert/DataSetMerge.h"

using namespace HSPC;

namespace
{

namespace fs = std::filesystem;

constexpr uint64_t kPoints = 4'000'000;
constexpr std::size_t kRecordBytes = 32;

// A conversion of 2 workers into `out`, its temporary files in `temp`, on the benchmark's millimetre grid.
struct Settings
{
    BasicConfig basic;
    AdvancedConfig advanced;
    PointCloudEncodingConfig encoding;

    Settings(const fs::path& out, const fs::path& temp)
    {
        fs::create_directories(out);
        fs::create_directories(temp);
        for (const EncodingAttribute& encoded : pcp_bench::millimetreGrid().attributes)
            basic.attributes.push_back(encoded.attribute);
        basic.scale = pcp_bench::millimetreGrid().scale;
        basic.outputPath = out.string();
        basic.tempPath = temp.string();
        advanced.workerCount = 2;
        advanced.reservedThreads = 1;
        advanced.targetMemory = 1ull << 30;
        advanced.infoLogger = [](const std::string&) {};
        advanced.progressLogger = [](int, const std::string&) {};
    }
};

bool convert(const std::shared_ptr<std::vector<uint8_t>>& records, const fs::path& out, const fs::path& temp)
{
    const Settings settings(out, temp);
    Converter converter(settings.basic, settings.advanced, settings.encoding);
    converter.addImporter(BinaryRecordImporter::create(pcp_bench::kDescription, makeMemorySource(records),
                                                       pcp_bench::millimetreGrid(), {}, printError));
    return converter.run() == 0;
}

// The records west or east of x = 0 and south or north of y = 0.
std::shared_ptr<std::vector<uint8_t>> tileOf(const std::vector<uint8_t>& records, unsigned tile)
{
    auto part = std::make_shared<std::vector<uint8_t>>();
    for (std::size_t offset = 0; offset < records.size(); offset += kRecordBytes)
    {
        double xy[2];
        std::memcpy(xy, records.data() + offset, sizeof xy);
        if ((xy[0] >= 0 ? 1u : 0u) + (xy[1] >= 0 ? 2u : 0u) == tile)
            part->insert(part->end(), records.begin() + std::ptrdiff_t(offset),
                         records.begin() + std::ptrdiff_t(offset + kRecordBytes));
    }
    return part;
}

void BM_ConvertWhole(benchmark::State& state)
{
    const auto records = pcp_bench::randomRecords(kPoints);
    const fs::path folder = pcp_bench::makeBenchFolder("bench_hspc_merge");
    for (auto _ : state)
    {
        const fs::path out = folder / ("whole" + std::to_string(state.iterations()));
        if (!convert(records, out, folder / "temp"))
        {
            state.SkipWithError("the conversion failed");
            break;
        }
    }
    fs::remove_all(folder);
    state.SetItemsProcessed(int64_t(state.iterations() * kPoints));
}

void BM_MergeTiles(benchmark::State& state)
{
    const auto records = pcp_bench::randomRecords(kPoints);
    const fs::path folder = pcp_bench::makeBenchFolder("bench_hspc_merge");
    std::vector<std::string> tiles;
    for (unsigned tile = 0; tile < 4; ++tile)
    {
        tiles.push_back((folder / ("tile" + std::to_string(tile))).string());
        if (!convert(tileOf(*records, tile), tiles.back(), folder / "temp"))
        {
            state.SkipWithError("a tile could not be converted");
            fs::remove_all(folder);
            return;
        }
    }
    for (auto _ : state)
    {
        const Settings settings(folder / ("merged" + std::to_string(state.iterations())), folder / "temp");
        DataSetMerge merge(tiles, settings.basic, settings.advanced, settings.encoding);
        if (merge.run() != 0)
        {
            state.SkipWithError("the merge failed");
            break;
        }
    }
    fs::remove_all(folder);
    state.SetItemsProcessed(int64_t(state.iterations() * kPoints));
}

}  // namespace

BENCHMARK(BM_ConvertWhole)->Unit(benchmark::kMillisecond)->Iterations(2)->UseRealTime();
BENCHMARK(BM_MergeTiles)->Unit(benchmark::kMillisecond)->Iterations(2)->UseRealTime();
BENCHMARK_MAIN();
