// The binary record importer of the HSPC converter: reading raw batches and encoding them (position as a
// Morton code, RGB, intensity) as a converter worker does, in points per second.
#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "hspc/convert/BinaryRecordImporter.h"

using namespace HSPC;

namespace
{

constexpr uint64_t kPoints = 1 << 20;
constexpr uint64_t kBatchPoints = 1 << 16;

// x, y, z as F64 in metres, then R, G, B and intensity as U16: 32 bytes a record.
constexpr const char* kDescription = R"({"attribute-description": [
    {"attribute": {"name": "X", "role": "X", "type": "F64"}},
    {"attribute": {"name": "Y", "role": "Y", "type": "F64"}},
    {"attribute": {"name": "Z", "role": "Z", "type": "F64"}},
    {"attribute": {"name": "Red", "role": "R", "type": "U16"}},
    {"attribute": {"name": "Green", "role": "G", "type": "U16"}},
    {"attribute": {"name": "Blue", "role": "B", "type": "U16"}},
    {"attribute": {"name": "Intensity", "role": "INTENSITY", "type": "U16"}}]})";

std::shared_ptr<std::vector<uint8_t>> randomRecords()
{
    std::mt19937_64 random(1);
    std::uniform_real_distribution<double> metres(-500.0, 500.0);
    auto bytes = std::make_shared<std::vector<uint8_t>>(kPoints * 32);
    for (uint64_t point = 0; point < kPoints; ++point)
    {
        uint8_t* record = bytes->data() + point * 32;
        const double xyz[3] = {metres(random), metres(random), metres(random)};
        const uint64_t bits = random();
        std::memcpy(record, xyz, 24);
        std::memcpy(record + 24, &bits, 8);
    }
    return bytes;
}

EncodingTarget millimetreGrid()
{
    auto attribute = [](uint8_t type, uint8_t role, const char* name)
    {
        EncodingAttribute encoding;
        encoding.attribute = Attribute{type, role, name};
        return encoding;
    };
    EncodingTarget target;
    target.attributes = {attribute(AttributeType::M96, AttributeRole::POSITION, "POSITION"),
                         attribute(AttributeType::U8, AttributeRole::R, "Red"),
                         attribute(AttributeType::U8, AttributeRole::G, "Green"),
                         attribute(AttributeType::U8, AttributeRole::B, "Blue"),
                         attribute(AttributeType::U16, AttributeRole::INTENSITY, "Intensity")};
    target.scale = {0.001, 0.001, 0.001};
    return target;
}

void readAndEncode(benchmark::State& state)
{
    const std::shared_ptr<std::vector<uint8_t>> records = randomRecords();
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
