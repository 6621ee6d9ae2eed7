// Throughput of our E57 reader on a scan of 20 million points, cartesian single-precision coordinates with
// 8-bit colour and a float intensity, as scanner software writes them: the bare sequential read of the file
// (the floor), the same bytes through the page reader with every checksum checked, and the compressed-vector
// reader filling buffers of 65536 doubles and bytes, as the importer does, and the importer itself turning
// the records into cache points. The file is written once by the
// test writer into the system's temporary folder (the page cache, as long as memory allows) and goes at exit.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cmath>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/BenchFolder.h"
#include "core/StringConversion.h"
#include "e57/CompressedVectorReader.h"
#include "e57/ImageFile.h"
#include "e57/PagedFile.h"
#include "importers/E57.h"
#include "sample/E57Writer.h"

namespace
{

constexpr uint64_t kPoints = 20'000'000;
constexpr size_t kBatch = 65536;

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

    const std::filesystem::path& path() const { return m_path; }
    uint64_t size() const { return std::filesystem::file_size(m_path); }

private:
    ScanFile()
    {
        m_folder = pcp_bench::makeBenchFolder("pcp-bench-e57");
        m_path = m_folder / "scan.e57";
        pcp_sample::E57Scan scan;
        scan.streamedPoints = kPoints;
        // A wall sampled row by row, with colours and intensities that vary like a real scan's.
        scan.produce = [](uint64_t first, size_t count, pcp_sample::E57Points& chunk)
        {
            chunk = {};
            for (size_t k = 0; k < count; ++k)
            {
                const uint64_t i = first + k;
                const double column = static_cast<double>(i % 5000);
                const double row = static_cast<double>(i / 5000);
                chunk.coordinates[0].push_back(12.5 + column * 0.004);
                chunk.coordinates[1].push_back(-3.25 + row * 0.004);
                chunk.coordinates[2].push_back(1.75 + 0.5 * std::sin(column * 0.01));
                chunk.intensity.push_back(static_cast<double>(i * 37 % 4096) / 4096.0);
                chunk.color[0].push_back(static_cast<int64_t>(i % 256));
                chunk.color[1].push_back(static_cast<int64_t>(i / 7 % 256));
                chunk.color[2].push_back(static_cast<int64_t>(i / 13 % 256));
            }
        };
        pcp_sample::E57WriteOptions options;
        options.chunkPoints = 1 << 20;
        pcp_sample::writeE57File(m_path, {scan}, {}, options);
    }

    std::filesystem::path m_folder;
    std::filesystem::path m_path;
};

void BM_SequentialRead(benchmark::State& state)
{
    const ScanFile& file = ScanFile::instance();
    std::vector<char> block(1 << 20);
    for (auto _ : state)
    {
        const int fd = ::open(file.path().c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0)
            throw std::runtime_error("cannot open the benchmark's E57 file");
        while (::read(fd, block.data(), block.size()) > 0)
            benchmark::DoNotOptimize(block.data());
        ::close(fd);
    }
    state.SetItemsProcessed(static_cast<int64_t>(kPoints * state.iterations()));
    state.SetBytesProcessed(static_cast<int64_t>(file.size() * state.iterations()));
}
BENCHMARK(BM_SequentialRead)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_PagesWithChecksums(benchmark::State& state)
{
    const ScanFile& file = ScanFile::instance();
    std::vector<uint8_t> block(1 << 20);
    for (auto _ : state)
    {
        const e57::PagedFile pages(file.path());
        e57::PageReader reader(pages);
        for (uint64_t at = 0; at < pages.logicalSize(); at += block.size())
        {
            const auto size = static_cast<size_t>(std::min<uint64_t>(block.size(), pages.logicalSize() - at));
            reader.read(at, block.data(), size);
            benchmark::DoNotOptimize(block.data());
        }
    }
    state.SetItemsProcessed(static_cast<int64_t>(kPoints * state.iterations()));
    state.SetBytesProcessed(static_cast<int64_t>(file.size() * state.iterations()));
}
BENCHMARK(BM_PagesWithChecksums)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_CompressedVectorReader(benchmark::State& state)
{
    const ScanFile& file = ScanFile::instance();
    std::vector<std::vector<double>> doubles(4, std::vector<double>(kBatch));
    std::vector<std::vector<uint8_t>> colors(3, std::vector<uint8_t>(kBatch));
    double checksum = 0.0;
    for (auto _ : state)
    {
        const e57::ImageFile image(file.path());
        const e57::Node& points = image.root().at("data3D/0/points");
        const char* const kDoubles[] = {"cartesianX", "cartesianY", "cartesianZ", "intensity"};
        const char* const kColors[] = {"colorRed", "colorGreen", "colorBlue"};
        std::vector<e57::SourceDestBuffer> buffers;
        for (size_t i = 0; i < 4; ++i)
            buffers.push_back(e57::SourceDestBuffer::doubles(kDoubles[i], doubles[i], true));
        for (size_t i = 0; i < 3; ++i)
            buffers.push_back(e57::SourceDestBuffer::bytes(kColors[i], colors[i]));
        e57::CompressedVectorReader reader(image, points, std::move(buffers));
        uint64_t records = 0;
        while (const size_t count = reader.read())
        {
            records += count;
            checksum += doubles[0][count - 1] + colors[2][count - 1];
        }
        if (records != kPoints)
            throw std::runtime_error("the benchmark's E57 file gave " + std::to_string(records) + " points");
    }
    benchmark::DoNotOptimize(checksum);
    state.SetItemsProcessed(static_cast<int64_t>(kPoints * state.iterations()));
    state.SetBytesProcessed(static_cast<int64_t>(file.size() * state.iterations()));
}
BENCHMARK(BM_CompressedVectorReader)->Unit(benchmark::kMillisecond)->UseRealTime();

// The whole importer on one thread, as a conversion drives it: records to cache points on a millimetre grid,
// colour and intensity through the scan's limits.
void BM_E57Importer(benchmark::State& state)
{
    const ScanFile& file = ScanFile::instance();
    pc_preprocess::IoTransfo transfo;
    transfo.scale = {0.001, 0.001, 0.001};
    transfo.offset = {0.0, 0.0, 0.0};
    const std::array<double, 9> identity{1, 0, 0, 0, 1, 0, 0, 0, 1};
    const std::array<double, 3> origin{0, 0, 0};
    const pc_preprocess::Discretization discretization(transfo, identity.data(), origin.data());
    std::vector<pc_preprocess::IoLightPoint> batch;
    batch.reserve(kBatch);
    for (auto _ : state)
    {
        pc_preprocess::E57 importer(
            pc_preprocess::toWide(file.path()), 1.0,
            pc_preprocess::ColorMode(pc_preprocess::kRgb16Bit, pc_preprocess::kIntensity16Bit));
        importer.openGroup();
        if (!importer.canOpenScan(0))
            throw std::runtime_error("the benchmark's E57 file has no scan");
        uint64_t points = 0;
        while (importer.remainScanData())
        {
            importer.processBatch(batch, discretization, false);
            points += batch.size();
        }
        if (points != kPoints)
            throw std::runtime_error("the importer gave " + std::to_string(points) + " points");
        importer.closeGroup();
    }
    state.SetItemsProcessed(static_cast<int64_t>(kPoints * state.iterations()));
    state.SetBytesProcessed(static_cast<int64_t>(file.size() * state.iterations()));
}
BENCHMARK(BM_E57Importer)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
