// Reading a whole HSPC data set back through HSPCImporter, for timing by bench/hspc_run.sh: first one thread
// reading every batch (read and decode, as a converter's input thread does), then two threads taking the
// nodes between them, reading, decoding and encoding them. One line of figures each.
//
// Usage: hspc_import_dataset DATASET [--batch-mb N]
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include <sys/resource.h>
#include <vector>

#include "hspc/query/HSPCImporter.h"

using namespace HSPC;

namespace
{

using Clock = std::chrono::steady_clock;

// Processor time of the whole process, user and system: on a machine that others share, points per
// processor second say what the code does where wall time says what the machine let it do.
double processorSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& time) { return double(time.tv_sec) + double(time.tv_usec) * 1e-6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

struct Stopwatch
{
    Clock::time_point wall = Clock::now();
    double processor = processorSeconds();
};

void report(const char* what, uint64_t points, const Stopwatch& start)
{
    const double wall = std::chrono::duration<double>(Clock::now() - start.wall).count();
    const double processor = processorSeconds() - start.processor;
    std::printf("%s: %llu points in %.3f s, %.1f M points/s; %.3f s of processor time, %.1f M points per "
                "processor second\n",
                what, static_cast<unsigned long long>(points), wall, double(points) / wall / 1e6, processor,
                double(points) / processor / 1e6);
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
    const Stopwatch start;
    HSPCBuffer<uint8_t> batch;
    uint64_t points = 0;
    ReadResult result;
    while ((result = importer.readBatch(batch, batchBytes)) == ReadResult::kData)
        points += batch.size() / importer.rawRecordSize();
    report("read, 1 thread", points, start);
    return result == ReadResult::kEnd && points == importer.pointCount();
}

// Two threads taking the nodes between them, each reading and decoding a node and encoding its records into
// the data set's own layout, as a reader that takes a data set apart over threads of its own does.
bool readAndEncode(const std::string& path)
{
    HSPCImporter importer(configFor(path));
    if (!importer.isValid())
        return false;
    const uint32_t nodeCount = uint32_t(importer.tree().nodes.size());
    std::atomic<uint32_t> nextNode{0};
    std::atomic<uint64_t> points{0};
    std::atomic<bool> failed{false};
    const Stopwatch start;
    const auto work = [&]
    {
        NodeReading reading;
        HSPCBuffer<uint8_t> records;
        HSPCBuffer<uint8_t> encoded;
        std::string error;
        for (uint32_t node = nextNode++; node < nodeCount; node = nextNode++)
        {
            if (importer.tree().nodes[node].pointCount == 0)
                continue;
            if (!importer.readNodeRecords(node, reading, records, error))
            {
                std::fprintf(stderr, "%s\n", error.c_str());
                failed = true;
                return;
            }
            // Conversion may take the records over.
            points += records.size() / importer.rawRecordSize();
            if (!importer.convertBatch(records, encoded))
            {
                failed = true;
                return;
            }
            // Both buffers keep their room for the next node, whichever of them the conversion filled.
            records.swap(encoded);
        }
    };
    std::thread second(work);
    work();
    second.join();
    report("read, decode and encode, 2 threads", points, start);
    return !failed && points == importer.pointCount();
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
    if (!readOnly(argv[1], batchBytes) || !readAndEncode(argv[1]))
    {
        std::fprintf(stderr, "hspc_import_dataset: the data set was not read whole\n");
        return 1;
    }
    return 0;
}
