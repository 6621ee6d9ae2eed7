// Throughput of the PTS importer on a scan of 10 million XYZIRGB points: the bare line scan of the mapped
// reader, which is the floor any text importer stands on, and a host's whole import (probe, then conversion
// into a cache's point file). Points per second and bytes of input per second; the file lives in the system's
// temporary folder, which is the page cache as long as memory allows, and goes at exit. With
// PCP_BENCH_PTS_FILE set, that file is measured instead (bench/pts_run.sh uses this for its floor).
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <charconv>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include "bench/BenchFolder.h"
#include "core/StringConversion.h"
#include "importers/PtsImporter.h"
#include "importers/text/FileSource.h"

using namespace pc_preprocess;

namespace
{

constexpr uint64_t kPoints = 10'000'000;
constexpr double kScale = 0.001;

// Appends a number with a fixed count of decimals, the way scanner software writes them.
void appendFixed(std::string& out, double value, int decimals)
{
    char text[32];
    const auto result = std::to_chars(text, text + sizeof text, value, std::chars_format::fixed, decimals);
    out.append(text, result.ptr);
}

void appendInteger(std::string& out, int value)
{
    char text[16];
    const auto result = std::to_chars(text, text + sizeof text, value);
    out.append(text, result.ptr);
}

// A scan-like file: a curved wall sampled row by row in metres with millimetre decimals, a signed intensity
// and 8-bit colours, with the usual point count on the first line.
class ScanFile
{
public:
    static ScanFile& instance()
    {
        static ScanFile file;
        return file;
    }
    ~ScanFile()
    {
        std::error_code ignored;
        std::filesystem::remove_all(m_folder, ignored);
    }

    const std::wstring& path() const { return m_path; }
    const std::wstring& cache() const { return m_cache; }
    uint64_t size() const { return m_size; }

private:
    ScanFile()
    {
        m_folder = pcp_bench::makeBenchFolder("pcp-bench-pts");
        m_cache = toWide(m_folder / "cache");
        std::filesystem::create_directories(toPath(Convertor::getPointFolder(m_cache)));
        if (const char* given = std::getenv("PCP_BENCH_PTS_FILE"); given && *given)
        {
            m_path = toWide(std::filesystem::absolute(given));
            m_size = std::filesystem::file_size(given);
            return;
        }
        m_path = toWide(m_folder / "scan.pts");

        std::ofstream out(toPath(m_path), std::ios::binary);
        std::string block = std::to_string(kPoints) + "\n";
        for (uint64_t i = 0; i < kPoints; ++i)
        {
            const double column = static_cast<double>(i % 5000);
            const double row = static_cast<double>(i / 5000);
            appendFixed(block, 12.5 + column * 0.004, 4);
            block += ' ';
            appendFixed(block, -3.25 + row * 0.004, 4);
            block += ' ';
            appendFixed(block, 1.75 + 0.5 * std::sin(column * 0.01), 4);
            block += ' ';
            appendInteger(block, static_cast<int>(i * 37 % 4096) - 2048);
            for (uint64_t channel : {i % 256, i / 7 % 256, i / 13 % 256})
            {
                block += ' ';
                appendInteger(block, static_cast<int>(channel));
            }
            block += '\n';
            if (block.size() > (1u << 22))
            {
                out << block;
                block.clear();
            }
        }
        out << block;
        if (!out.flush())
            throw std::runtime_error("cannot write the benchmark's PTS file");
        m_size = std::filesystem::file_size(toPath(m_path));
    }

    std::filesystem::path m_folder;
    std::wstring m_path;
    std::wstring m_cache;
    uint64_t m_size = 0;
};

void BM_LineScan(benchmark::State& state)
{
    const ScanFile& file = ScanFile::instance();
    uint64_t lines = 0;
    for (auto _ : state)
    {
        FileSource source(toPath(file.path()));
        if (!source.open())
            throw std::runtime_error("cannot open the benchmark's PTS file");
        const char* begin = nullptr;
        const char* end = nullptr;
        while (source.getLine(begin, end))
            benchmark::DoNotOptimize(begin);
        lines += source.linesRead();
    }
    state.SetItemsProcessed(static_cast<int64_t>(lines));
    state.SetBytesProcessed(static_cast<int64_t>(file.size() * state.iterations()));
}
BENCHMARK(BM_LineScan)->Unit(benchmark::kMillisecond)->UseRealTime();

// What a host does with one file: probe it, then convert it with a fresh importer.
void BM_ImportProbeAndRun(benchmark::State& state)
{
    const ScanFile& file = ScanFile::instance();
    // The columns are detected, as for a file a host passes without a format.
    const PtsImporter::Settings settings;
    for (auto _ : state)
    {
        const ProbeResult probe = PtsImporter(file.path(), kScale, ColorMode(), settings).probe(kScale, {});
        PtsImporter importer(file.path(), kScale, probe.colorMode, settings);
        importer.run(file.cache(), probe.transfo, false, {}, {});
    }
    state.SetItemsProcessed(static_cast<int64_t>(kPoints * state.iterations()));
    state.SetBytesProcessed(static_cast<int64_t>(file.size() * state.iterations()));
}
BENCHMARK(BM_ImportProbeAndRun)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
