// Throughput of the LAZ importer on a compressed scan of 20 million points of format 3 (LAS 1.2, millimetre
// grid, colour, GPS time): the bare loop of laszip_read_point over the file, which is the floor any LAZ
// reader stands on; the importer's batch loop; and a host's whole import (probe, then conversion into the
// cache's point, class and meta files). Points per second; the file is the synthetic scan of the LAS
// benchmark (tests/support/LasSamples.h), compressed by LASzip into the system's temporary folder once per
// process, and removed at exit.
#include <benchmark/benchmark.h>
#include <laszip/laszip_api.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "bench/BenchFolder.h"
#include "core/StringConversion.h"
#include "importers/LazImporter.h"
#include "tests/support/LasSamples.h"

using namespace pc_preprocess;

namespace
{

constexpr uint64_t kPoints = 20'000'000;
const ColorMode kMode(kRgb16Bit, kIntensity16Bit);

void check(laszip_POINTER handle, laszip_I32 result, const char* call)
{
    if (result == 0)
        return;
    laszip_CHAR* reason = nullptr;
    laszip_get_error(handle, &reason);
    throw std::runtime_error(std::string(call) + " failed: " + (reason != nullptr ? reason : ""));
}

class LazBenchFile
{
public:
    static const LazBenchFile& instance()
    {
        static const LazBenchFile file;
        return file;
    }
    ~LazBenchFile()
    {
        std::error_code ignored;
        std::filesystem::remove_all(m_folder, ignored);
    }
    LazBenchFile(const LazBenchFile&) = delete;
    LazBenchFile& operator=(const LazBenchFile&) = delete;

    const std::filesystem::path& file() const { return m_file; }
    const std::wstring& cache() const { return m_cache; }

private:
    LazBenchFile()
    {
        m_folder = pcp_bench::makeBenchFolder("pcp-bench-laz");
        m_file = m_folder / "scan.laz";
        m_cache = toWide(m_folder / "cache");
        std::filesystem::create_directories(toPath(Convertor::getPointFolder(m_cache)));
        write();
    }

    void write() const
    {
        laszip_POINTER writer = nullptr;
        if (laszip_create(&writer) != 0)
            throw std::runtime_error("laszip_create failed");
        laszip_header header;
        std::memset(&header, 0, sizeof header);
        header.version_major = 1;
        header.version_minor = 2;
        header.header_size = 227;
        header.offset_to_point_data = 227;
        header.point_data_format = 3;
        header.point_data_record_length = 34;
        header.number_of_point_records = static_cast<laszip_U32>(kPoints);
        header.number_of_points_by_return[0] = static_cast<laszip_U32>(kPoints);
        header.x_scale_factor = header.y_scale_factor = header.z_scale_factor = 0.001;
        header.max_x = 19.995;
        header.max_y = (kPoints / 4000 - 1) * 0.005;
        header.min_z = -1.5;
        header.max_z = 1.5;
        check(writer, laszip_set_header(writer, &header), "laszip_set_header");
        std::ofstream out(m_file, std::ios::binary | std::ios::trunc);
        check(writer, laszip_open_writer_stream(writer, out, 1, 0), "laszip_open_writer_stream");
        laszip_point* point = nullptr;
        check(writer, laszip_get_point_pointer(writer, &point), "laszip_get_point_pointer");
        for (uint64_t i = 0; i < kPoints; ++i)
        {
            const pcp_test::LasRecord sample = pcp_test::lasSample(i);
            point->X = sample.x;
            point->Y = sample.y;
            point->Z = sample.z;
            point->intensity = sample.intensity;
            point->return_number = 1;
            point->number_of_returns = 1;
            point->classification = sample.classification & 0x1F;
            point->gps_time = static_cast<double>(i) * 1e-5;
            point->rgb[0] = sample.r;
            point->rgb[1] = sample.g;
            point->rgb[2] = sample.b;
            check(writer, laszip_write_point(writer), "laszip_write_point");
        }
        check(writer, laszip_close_writer(writer), "laszip_close_writer");
        laszip_destroy(writer);
        if (!out.flush())
            throw std::runtime_error("cannot write " + m_file.string());
    }

    std::filesystem::path m_folder;
    std::filesystem::path m_file;
    std::wstring m_cache;
};

// LASzip alone: the floor.
void BM_LaszipReadPoint(benchmark::State& state)
{
    const LazBenchFile& file = LazBenchFile::instance();
    uint64_t points = 0;
    for (auto _ : state)
    {
        laszip_POINTER reader = nullptr;
        laszip_create(&reader);
        std::ifstream in(file.file(), std::ios::binary);
        laszip_BOOL compressed = 0;
        check(reader, laszip_open_reader_stream(reader, in, &compressed), "laszip_open_reader_stream");
        laszip_point* point = nullptr;
        laszip_get_point_pointer(reader, &point);
        int64_t sum = 0;
        for (uint64_t i = 0; i < kPoints; ++i)
        {
            check(reader, laszip_read_point(reader), "laszip_read_point");
            sum += point->X;
        }
        benchmark::DoNotOptimize(sum);
        laszip_close_reader(reader);
        laszip_destroy(reader);
        points += kPoints;
    }
    state.SetItemsProcessed(static_cast<int64_t>(points));
}
BENCHMARK(BM_LaszipReadPoint)->Unit(benchmark::kMillisecond)->UseRealTime();

// The importer's batches in the file's own grid, where the raw integers pass unchanged.
void BM_LazBatches(benchmark::State& state)
{
    const LazBenchFile& file = LazBenchFile::instance();
    IoTransfo grid;
    grid.scale = {0.001, 0.001, 0.001};
    grid.offset = {0.0, 0.0, 0.0};
    const double linear[9] = {0.001, 0.0, 0.0, 0.0, 0.001, 0.0, 0.0, 0.0, 0.001};
    const double translation[3] = {0.0, 0.0, 0.0};
    const Discretization identity(grid, linear, translation);
    std::vector<IoLightPoint> batch;
    batch.reserve(Convertor::kBatchSize);
    uint64_t points = 0;
    for (auto _ : state)
    {
        LazImporter importer(toWide(file.file()), 1.0, kMode);
        importer.openGroup();
        while (importer.remainScanData())
        {
            importer.processBatch(batch, identity, false);
            points += batch.size();
        }
        importer.closeGroup();
    }
    state.SetItemsProcessed(static_cast<int64_t>(points));
}
BENCHMARK(BM_LazBatches)->Unit(benchmark::kMillisecond)->UseRealTime();

// What a host does with one file: probe it, then convert it with a fresh importer.
void BM_LazProbeAndRun(benchmark::State& state)
{
    const LazBenchFile& file = LazBenchFile::instance();
    for (auto _ : state)
    {
        const ProbeResult probe = LazImporter(toWide(file.file()), 1.0, kMode).probe(1.0, {});
        LazImporter(toWide(file.file()), 1.0, kMode).run(file.cache(), probe.transfo, false, {}, {});
    }
    state.SetItemsProcessed(static_cast<int64_t>(kPoints * state.iterations()));
}
BENCHMARK(BM_LazProbeAndRun)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
