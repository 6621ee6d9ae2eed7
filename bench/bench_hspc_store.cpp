// Node blobs of an HSPC data set through a folder and through a pack archive: writing and reading 100 000
// blobs of 50 KB (about 5 GB, in a temporary folder that is removed as soon as each store has been read),
// and opening an archive of 100 000 names.
#include <benchmark/benchmark.h>

#include <filesystem>
#include <memory>
#include <numeric>
#include <string>
#include <vector>

#include "BenchFolder.h"
#include "hspc/store/DiskArchive.h"
#include "hspc/store/FolderStore.h"

using namespace HSPC;

namespace
{

constexpr int64_t kBlobCount = 100000;
constexpr size_t kBlobSize = 50 * 1024;

std::string nodeName(int64_t i)
{
    // Spread over folders as a data set's node names are: by lod and a part of the Morton code.
    return "/" + std::to_string(i % 12) + "/" + std::to_string((i / 12) % 256) + "/L" + std::to_string(i % 12) +
           "X" + std::to_string(i) + "Y0Z0.apr";
}

// Compressed node blocks look random; so does this, with each blob's own first bytes.
const std::vector<uint8_t>& blobContent()
{
    static const std::vector<uint8_t> content = []
    {
        std::vector<uint8_t> bytes(kBlobSize);
        uint32_t state = 12345;
        for (uint8_t& byte : bytes)
        {
            state = state * 1664525u + 1013904223u;
            byte = uint8_t(state >> 24);
        }
        return bytes;
    }();
    return content;
}

// One temporary folder for the whole run.
const std::filesystem::path& benchFolder()
{
    static const struct Folder
    {
        std::filesystem::path path = pcp_bench::makeBenchFolder("hspc-store");
        ~Folder() { std::filesystem::remove_all(path); }
    } folder;
    return folder.path;
}

void reportRates(benchmark::State& state, int64_t blobs, size_t blobSize)
{
    state.counters["blobs/s"] = benchmark::Counter(double(blobs), benchmark::Counter::kIsRate);
    state.SetBytesProcessed(blobs * int64_t(blobSize));
}

void writeBlobs(RootWriter& writer, int64_t count, benchmark::State& state)
{
    const std::vector<uint8_t>& content = blobContent();
    for (int64_t i = 0; i < count; ++i)
    {
        if (!writer.write(nodeName(i), content))
        {
            state.SkipWithError("a blob could not be written");
            return;
        }
    }
}

void readBlobs(RootReader& reader, int64_t count, benchmark::State& state)
{
    std::vector<uint8_t> bytes;
    bytes.reserve(kBlobSize);
    for (int64_t i = 0; i < count; ++i)
    {
        bytes.clear();
        if (!reader.read(nodeName(i), bytes) || bytes.size() != kBlobSize)
        {
            state.SkipWithError("a blob could not be read");
            return;
        }
        benchmark::DoNotOptimize(bytes.data());
    }
}

std::string folderStore()
{
    return (benchFolder() / "folder").string();
}

std::string archiveStore()
{
    return (benchFolder() / "tree.hspc.pack").string();
}

void BM_FolderWrite(benchmark::State& state)
{
    for (auto _ : state)
    {
        FolderWriter writer(folderStore());
        writeBlobs(writer, state.range(0), state);
    }
    reportRates(state, state.range(0) * state.iterations(), kBlobSize);
}
BENCHMARK(BM_FolderWrite)->Arg(kBlobCount)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();

void BM_FolderRead(benchmark::State& state)
{
    FolderReader reader(folderStore());
    for (auto _ : state)
        readBlobs(reader, state.range(0), state);
    reportRates(state, state.range(0) * state.iterations(), kBlobSize);
    std::filesystem::remove_all(folderStore());
}
BENCHMARK(BM_FolderRead)->Arg(kBlobCount)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();

void BM_ArchiveWrite(benchmark::State& state)
{
    for (auto _ : state)
    {
        DiskWriteArchive writer(archiveStore());
        writeBlobs(writer, state.range(0), state);
        // Closing writes the directory: part of writing an archive.
        writer.handler()->close();
    }
    reportRates(state, state.range(0) * state.iterations(), kBlobSize);
}
BENCHMARK(BM_ArchiveWrite)->Arg(kBlobCount)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();

void BM_ArchiveRead(benchmark::State& state)
{
    DiskReadArchive reader(archiveStore());
    for (auto _ : state)
        readBlobs(reader, state.range(0), state);
    reportRates(state, state.range(0) * state.iterations(), kBlobSize);
}
BENCHMARK(BM_ArchiveRead)->Arg(kBlobCount)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();

// Opening reads and checks the directory and builds the name index; one lookup follows.
void BM_ArchiveOpen(benchmark::State& state)
{
    std::vector<uint8_t> bytes;
    for (auto _ : state)
    {
        DiskReadArchive reader(archiveStore());
        bytes.clear();
        if (!reader.read(nodeName(state.range(0) / 2), bytes))
            state.SkipWithError("the archive did not open");
    }
    std::filesystem::remove(archiveStore());
}
BENCHMARK(BM_ArchiveOpen)->Arg(kBlobCount)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
