// Morton encoding and decoding of the HSPC engine, for both word widths: cells per second.
#include <benchmark/benchmark.h>

#include <array>
#include <random>
#include <type_traits>
#include <vector>

#include "hspc/format/MortonIndex3D.h"

using namespace HSPC;

namespace
{

constexpr size_t kCells = 1 << 16;

template <typename W>
std::vector<std::array<std::make_signed_t<W>, 3>> randomCells()
{
    using S = std::make_signed_t<W>;
    std::mt19937_64 random(1);
    std::vector<std::array<S, 3>> cells(kCells);
    for (auto& cell : cells)
    {
        cell = {S(random()), S(random()), S(random())};
    }
    return cells;
}

template <typename W>
void encodeSigned(benchmark::State& state)
{
    const auto cells = randomCells<W>();
    for (auto _ : state)
    {
        for (const auto& cell : cells)
        {
            benchmark::DoNotOptimize(encodeMortonSigned<W>(cell[0], cell[1], cell[2]));
        }
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(cells.size()));
}

template <typename W>
void decodeSigned(benchmark::State& state)
{
    std::vector<MortonIndex3D<W>> codes;
    for (const auto& cell : randomCells<W>())
    {
        codes.push_back(encodeMortonSigned<W>(cell[0], cell[1], cell[2]));
    }
    for (auto _ : state)
    {
        for (const auto& code : codes)
        {
            benchmark::DoNotOptimize(decodeMortonSigned(code));
        }
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(codes.size()));
}

BENCHMARK_TEMPLATE(encodeSigned, uint32_t);
BENCHMARK_TEMPLATE(encodeSigned, uint64_t);
BENCHMARK_TEMPLATE(decodeSigned, uint32_t);
BENCHMARK_TEMPLATE(decodeSigned, uint64_t);

}  // namespace

BENCHMARK_MAIN();
