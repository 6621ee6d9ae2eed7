// HSPC node compression and decompression of one full node (262144 points of position, RGB and intensity).
// The points come from the Autzen sample LAZ, tiled until the node is full, so that the deltas look like a
// real scan's; without that file a scan-like surface is synthesized.
#include <benchmark/benchmark.h>
#include <laszip/laszip_api.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <vector>

#include "hspc/format/MortonIndex3D.h"
#include "hspc/format/NodeCompressor.h"
#include "hspc/format/NodeDecompressor.h"

using namespace HSPC;

namespace
{

constexpr size_t kNodePoints = 262144;
constexpr unsigned kLod = 20;
const std::filesystem::path kSample =
    std::filesystem::path(PCP_SOURCE_DIR) / "../shared/data/laz/autzen_trim.laz";

struct SourcePoint
{
    int64_t x, y, z;
    uint16_t r, g, b, intensity;
};

std::vector<SourcePoint> readSample()
{
    std::vector<SourcePoint> points;
    laszip_POINTER reader = nullptr;
    if (!std::filesystem::exists(kSample) || laszip_create(&reader) != 0)
        return points;
    laszip_BOOL compressed = 0;
    laszip_point* point = nullptr;
    if (laszip_open_reader(reader, kSample.c_str(), &compressed) == 0 &&
        laszip_get_point_pointer(reader, &point) == 0)
    {
        laszip_header* header = nullptr;
        laszip_get_header_pointer(reader, &header);
        const uint64_t count = header->extended_number_of_point_records
                                   ? header->extended_number_of_point_records
                                   : header->number_of_point_records;
        for (uint64_t i = 0; i < count && laszip_read_point(reader) == 0; ++i)
            points.push_back({point->X, point->Y, point->Z, point->rgb[0], point->rgb[1], point->rgb[2],
                              point->intensity});
        laszip_close_reader(reader);
    }
    laszip_destroy(reader);
    return points;
}

std::vector<SourcePoint> synthesizeSurface()
{
    std::vector<SourcePoint> points;
    for (size_t i = 0; i < kNodePoints; ++i)
    {
        const double u = double(i % 512) * 37.0 + std::sin(double(i)) * 5.0;
        const double v = double(i / 512) * 37.0;
        const double height = 2000.0 * std::sin(u / 3000.0) * std::cos(v / 2500.0) + 5000.0;
        points.push_back({int64_t(u), int64_t(v), int64_t(height), uint16_t(20000 + int(height) % 9000),
                          uint16_t(25000 + int(u) % 7000), uint16_t(18000 + int(v) % 5000),
                          uint16_t(i % 700)});
    }
    return points;
}

// Records of M96 code, R, G, B and intensity (20 bytes), sorted by code, in a node whose anchor is 0.
struct Node
{
    std::vector<Attribute> attributes{{AttributeType::M96, AttributeRole::POSITION, "POSITION"},
                                      {AttributeType::U16, AttributeRole::R, "R"},
                                      {AttributeType::U16, AttributeRole::G, "G"},
                                      {AttributeType::U16, AttributeRole::B, "B"},
                                      {AttributeType::U16, AttributeRole::INTENSITY, "INTENSITY"}};
    std::vector<uint8_t> records;
    NodeHeader header;
    bool fromSample = false;
};

const Node& node()
{
    static const Node built = []
    {
        Node n;
        std::vector<SourcePoint> points = readSample();
        n.fromSample = !points.empty();
        if (points.empty())
            points = synthesizeSurface();
        int64_t minX = INT64_MAX, minY = INT64_MAX, minZ = INT64_MAX, maxX = INT64_MIN;
        for (const SourcePoint& p : points)
        {
            minX = std::min(minX, p.x), minY = std::min(minY, p.y), minZ = std::min(minZ, p.z);
            maxX = std::max(maxX, p.x);
        }
        struct Keyed
        {
            MortonIndex3D<uint32_t> code;
            const SourcePoint* point;
        };
        std::vector<Keyed> keyed;
        const int64_t width = maxX - minX + 1;
        for (size_t i = 0; keyed.size() < kNodePoints; ++i)
        {
            const SourcePoint& p = points[i % points.size()];
            const int64_t tile = int64_t(i / points.size());
            const int64_t x = (p.x - minX + tile * width) % (int64_t(1) << kLod);
            keyed.push_back({encodeMortonSigned<uint32_t>(int32_t(x), int32_t((p.y - minY) & 0xFFFFF),
                                                          int32_t((p.z - minZ) & 0xFFFFF)),
                             &p});
        }
        std::sort(keyed.begin(), keyed.end(), [](const Keyed& a, const Keyed& b) { return a.code < b.code; });
        for (const Keyed& k : keyed)
        {
            const size_t at = n.records.size();
            n.records.resize(at + 20);
            std::memcpy(n.records.data() + at, k.code.words.data(), 12);
            const uint16_t values[4] = {k.point->r, k.point->g, k.point->b, k.point->intensity};
            std::memcpy(n.records.data() + at + 12, values, 8);
        }
        n.header.lod = kLod;
        n.header.node = {0x80000000ull, 0x80000000ull, 0x80000000ull};
        n.header.scale = {0.01, 0.01, 0.01};
        return n;
    }();
    return built;
}

void reportRates(benchmark::State& state, size_t blockBytes)
{
    state.counters["points/s"] =
        benchmark::Counter(double(kNodePoints) * double(state.iterations()), benchmark::Counter::kIsRate);
    state.counters["bytes/point"] = double(blockBytes) / double(kNodePoints);
    state.SetLabel(node().fromSample ? "autzen_trim.laz tiled" : "synthetic surface");
}

void BM_CompressNode(benchmark::State& state)
{
    const Node& n = node();
    auto compressor = NodeCompressor::create(n.attributes, kNodePoints);
    std::vector<uint8_t> output;
    std::vector<uint8_t> scratch;
    for (auto _ : state)
    {
        NodeHeader header = n.header;
        if (!compressNode(false, header, *compressor, n.records, output, scratch))
            state.SkipWithError("compressNode failed");
        benchmark::DoNotOptimize(output.data());
    }
    reportRates(state, output.size());
}
BENCHMARK(BM_CompressNode)->Unit(benchmark::kMillisecond);

void BM_DecompressNode(benchmark::State& state)
{
    const Node& n = node();
    auto compressor = NodeCompressor::create(n.attributes, kNodePoints);
    std::vector<uint8_t> block;
    std::vector<uint8_t> scratch;
    NodeHeader header = n.header;
    if (!compressNode(false, header, *compressor, n.records, block, scratch))
    {
        state.SkipWithError("compressNode failed");
        return;
    }
    auto decompressor = NodeDecompressor::create(kNodePoints);
    // Integer positions relative to the anchor, colours and intensity: what a viewer asks for.
    const std::vector<OutputAction> actions{{0, 0, 13}, {1, 12, 1}, {2, 14, 1}, {3, 16, 1}, {4, 18, 1}};
    std::vector<uint8_t> output(kNodePoints * 20);
    for (auto _ : state)
    {
        if (!decompressNodeBlock(block, *decompressor, {output, 20, actions}, header, printError))
            state.SkipWithError("decompressNode failed");
        benchmark::DoNotOptimize(output.data());
    }
    reportRates(state, block.size());
}
BENCHMARK(BM_DecompressNode)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
