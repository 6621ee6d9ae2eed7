// The floor that deflate sets for a tree build: the CPU time that libdeflate at level 7 takes to compress
// every node of a finished cache once, as the build does. Each PNZ is inflated first (not timed), then
// compressed again in the same thread; the time is the thread's CPU time of the compressions alone.
//
// Usage: deflate_floor CACHE_FOLDER
#include <libdeflate.h>
#include <time.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

namespace
{

double threadSeconds()
{
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return double(now.tv_sec) + double(now.tv_nsec) * 1e-9;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 2)
    {
        std::fprintf(stderr, "usage: deflate_floor CACHE_FOLDER\n");
        return 2;
    }
    libdeflate_compressor* compressor = libdeflate_alloc_compressor(7);
    libdeflate_decompressor* decompressor = libdeflate_alloc_decompressor();
    std::vector<uint8_t> inflated(64 << 20);
    std::vector<uint8_t> compressed;
    double seconds = 0.0;
    uint64_t nodes = 0, inflatedBytes = 0, compressedBytes = 0;
    for (const auto& entry : std::filesystem::directory_iterator(std::filesystem::path(argv[1]) / "Data"))
    {
        if (entry.path().extension() != ".pnz")
            continue;
        std::ifstream file(entry.path(), std::ios::binary);
        const std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(file)),
                                         std::istreambuf_iterator<char>());
        size_t size = 0;
        if (libdeflate_zlib_decompress(decompressor, bytes.data(), bytes.size(), inflated.data(),
                                       inflated.size(), &size) != LIBDEFLATE_SUCCESS)
        {
            std::fprintf(stderr, "cannot inflate %s\n", entry.path().c_str());
            return 1;
        }
        compressed.resize(libdeflate_zlib_compress_bound(compressor, size));
        const double start = threadSeconds();
        compressedBytes +=
            libdeflate_zlib_compress(compressor, inflated.data(), size, compressed.data(), compressed.size());
        seconds += threadSeconds() - start;
        ++nodes;
        inflatedBytes += size;
    }
    std::printf("deflate floor: %llu nodes, %.0f MB inflated to %.0f MB, %.2f s CPU at level 7\n",
                static_cast<unsigned long long>(nodes), inflatedBytes / 1e6, compressedBytes / 1e6, seconds);
    libdeflate_free_compressor(compressor);
    libdeflate_free_decompressor(decompressor);
    return 0;
}
