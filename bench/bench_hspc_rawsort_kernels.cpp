// The per-batch kernels of the HSPC raw sort, one batch at a time as a worker runs them: the sort by Morton
// code, the filters and the cell list. Points per second.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <vector>

#include "hspc/convert/BatchFilters.h"
#include "hspc/convert/LeafStepKernels.h"
#include "hspc/convert/MortonRecords.h"
#include "hspc/convert/MortonSort.h"
#include "hspc/format/TrackedMemory.h"

using namespace HSPC;

namespace
{

constexpr std::size_t kBatchPoints = 1 << 20;
constexpr uint32_t kRecordSize = 24;  // M96 position, RGB and intensity, and four more bytes

enum class KeyOrder
{
    kRandom,        // a scan's points in no order
    kMostlySorted,  // already in order but for one point in a hundred
    kWholeSpace,    // codes spread over the whole space: every byte of the key varies
};

// A batch of points within a cube of 2^20 cells a side (a kilometre at millimetres), as one scan delivers.
HSPCBuffer<uint8_t> batch(KeyOrder order)
{
    std::mt19937_64 random(7);
    HSPCBuffer<uint8_t> records(kBatchPoints * kRecordSize);
    for (std::size_t i = 0; i < kBatchPoints; ++i)
    {
        uint8_t* record = records.data() + i * kRecordSize;
        const MortonIndex3D<uint32_t> code =
            order == KeyOrder::kWholeSpace
                ? MortonIndex3D<uint32_t>{{uint32_t(random()), uint32_t(random()), uint32_t(random())}}
                : encodeMortonSigned<uint32_t>(int32_t(random() % (1u << 20)), int32_t(random() % (1u << 20)),
                                               int32_t(random() % (1u << 20)));
        storeMortonKey(record, code);
        std::memset(record + 12, int(i & 0xff), kRecordSize - 12);
    }
    if (order == KeyOrder::kMostlySorted)
    {
        sortRecordsByMorton<uint32_t>(records.data(), kBatchPoints, kRecordSize);
        for (std::size_t i = 0; i + 100 < kBatchPoints; i += 100)
        {
            std::swap_ranges(records.data() + i * kRecordSize, records.data() + (i + 1) * kRecordSize,
                             records.data() + (i + 50 + random() % 50) * kRecordSize);
        }
    }
    return records;
}

HSPCBuffer<uint8_t> sortedBatch()
{
    HSPCBuffer<uint8_t> records = batch(KeyOrder::kRandom);
    sortRecordsByMorton<uint32_t>(records.data(), kBatchPoints, kRecordSize);
    return records;
}

void sortBatch(benchmark::State& state)
{
    const HSPCBuffer<uint8_t> original = batch(KeyOrder(state.range(0)));
    HSPCBuffer<uint8_t> records(original.size());
    for (auto _ : state)
    {
        state.PauseTiming();
        std::memcpy(records.data(), original.data(), original.size());
        state.ResumeTiming();
        sortRecordsByMorton<uint32_t>(records.data(), kBatchPoints, kRecordSize);
        benchmark::DoNotOptimize(records.data());
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(kBatchPoints));
}

// A sorted batch as the filters see it: duplicates on, and a box that every point lies in, so that each point
// is decoded and tested and none moves; and a box that drops every other point, which moves half the batch.
void filterBatch(benchmark::State& state)
{
    const HSPCBuffer<uint8_t> sorted = sortedBatch();
    BatchFilter filter;
    filter.box = true;
    filter.scale = {1.0, 1.0, 1.0};
    filter.min = {0.0, 0.0, 0.0};
    filter.max = {state.range(0) == 0 ? 1e7 : double(1u << 19), 1e7, 1e7};
    HSPCBuffer<uint8_t> records(sorted.size());
    uint64_t kept = 0;
    for (auto _ : state)
    {
        state.PauseTiming();
        records.assign(sorted.begin(), sorted.end());
        state.ResumeTiming();
        const FilterCounts counts = filterSortedBatch<uint32_t>(records, kRecordSize, filter);
        kept = counts.seen - counts.filtered;
    }
    state.counters["kept"] = double(kept);
    state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(kBatchPoints));
}

// The leaf step's passes over a sorted batch: the occupancy table, then the cell list at the lod where the
// batch comes down to 1/64 of its points in cells.
void leafStep(benchmark::State& state)
{
    const HSPCBuffer<uint8_t> sorted = sortedBatch();
    std::size_t cells = 0;
    for (auto _ : state)
    {
        const Occupancy occupancy = occupancyTable<uint32_t>(sorted.data(), kBatchPoints, kRecordSize);
        const unsigned lod = firstLodReaching(occupancy.cells, kBatchPoints / 64);
        cells = cellList<uint32_t>(sorted.data(), kBatchPoints, kRecordSize, lod).size();
        benchmark::DoNotOptimize(cells);
    }
    state.counters["cells"] = double(cells);
    state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(kBatchPoints));
}

BENCHMARK(sortBatch)->ArgName("order")->Arg(0)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond);
BENCHMARK(filterBatch)->ArgName("drop_half")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(leafStep)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
