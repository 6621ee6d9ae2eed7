// Reading a whole HSPC data set back through HSPCImporter, for timing by bench/hspc_run.sh: first one thread
// reading every node (read and decode), then the read as a conversion does it on two threads, one reading
// batches while the other encodes them into the data set's own layout. One line of figures each.
//
// Usage: hspc_import_dataset DATASET [--batch-mb N]
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "hspc/format/ConcurrentQueue.h"
#include "hspc/query/HSPCImporter.h"

using namespace HSPC;

namespace
{

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

void report(const char* what, uint64_t points, double seconds)
{
    std::printf("%s: %llu points in %.3f s, %.1f M points/s\n", what, static_cast<unsigned long long>(points),
                seconds, double(points) / seconds / 1e6);
}

ImporterConfig configFor(const std::string& path)
{
    ImporterConfig config;
    config.path = path;
    config.errorLogger = [](const std::string& message) { std::fprintf(stderr, "%s\n", message.c_str()); };
    return config;
}

// One thread: every batch read and decoded, nothing else.
bool readOnly(const std::string& path, uint64_t batchBytes)
{
    HSPCImporter importer(configFor(path));
    if (!importer.isValid())
        return false;
    const Clock::time_point start = Clock::now();
    HSPCBuffer<uint8_t> batch;
    uint64_t points = 0;
    ReadResult result;
    while ((result = importer.readBatch(batch, batchBytes)) == ReadResult::kData)
        points += batch.size() / importer.rawRecordSize();
    report("read, 1 thread", points, secondsSince(start));
    return result == ReadResult::kEnd && points == importer.pointCount();
}

// Two threads: this one reads, a second encodes; four batches circulate between them.
bool readAndEncode(const std::string& path, uint64_t batchBytes)
{
    HSPCImporter importer(configFor(path));
    if (!importer.isValid())
        return false;
    ConcurrentQueue<HSPCBuffer<uint8_t>> empty;
    ConcurrentQueue<HSPCBuffer<uint8_t>> full;
    for (int i = 0; i < 4; ++i)
        empty.push(HSPCBuffer<uint8_t>());
    bool encoded = true;
    uint64_t points = 0;
    const Clock::time_point start = Clock::now();
    std::thread encoder(
        [&]
        {
            HSPCBuffer<uint8_t> output;
            while (std::optional<HSPCBuffer<uint8_t>> batch = full.pop())
            {
                points += batch->size() / importer.rawRecordSize();
                encoded = importer.convertBatch(*batch, output) && encoded;
                empty.push(std::move(*batch));
            }
        });
    ReadResult result = ReadResult::kData;
    while (result == ReadResult::kData)
    {
        HSPCBuffer<uint8_t> batch = std::move(*empty.pop());
        result = importer.readBatch(batch, batchBytes);
        if (result == ReadResult::kData)
            full.push(std::move(batch));
    }
    full.close();
    encoder.join();
    report("read and encode, 2 threads", points, secondsSince(start));
    return encoded && result == ReadResult::kEnd && points == importer.pointCount();
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 2)
    {
        std::fprintf(stderr, "usage: hspc_import_dataset DATASET [--batch-mb N]\n");
        return 2;
    }
    uint64_t batchBytes = uint64_t(16) << 20;
    if (argc == 4 && std::strcmp(argv[2], "--batch-mb") == 0)
        batchBytes = std::strtoull(argv[3], nullptr, 10) << 20;
    if (!readOnly(argv[1], batchBytes) || !readAndEncode(argv[1], batchBytes))
    {
        std::fprintf(stderr, "hspc_import_dataset: the data set was not read whole\n");
        return 1;
    }
    return 0;
}
