// Arbitrary bytes as a LAS file: its header and VLRs parsed from memory, the bytes as a chain of bare VLRs
// through the coordinate system interpreter and the GeoTIFF conversion, and the whole importer on the bytes
// as a file. A broken invariant or a foreign exception stops the run.
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <system_error>

#include "fuzz/LasFuzzCase.h"

namespace
{

// The input file and a cache folder in memory, for this process; removed at exit.
struct LasScratch
{
    std::filesystem::path folder =
        std::filesystem::path("/dev/shm") / ("pcp-fuzz-las-" + std::to_string(::getpid()));

    LasScratch() { std::filesystem::create_directories(folder / "cache" / "Data"); }
    ~LasScratch()
    {
        std::error_code ignored;
        std::filesystem::remove_all(folder, ignored);
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const LasScratch scratch;
    const std::span<const uint8_t> bytes(data, size);
    const std::wstring file = pc_preprocess::toWide(scratch.folder / "input.las");
    const std::wstring cache = pc_preprocess::toWide(scratch.folder / "cache");
    for (const std::string& problem : {pcp_fuzz::checkHeader(bytes), pcp_fuzz::checkVlrChain(bytes),
                                       pcp_fuzz::checkImport(bytes, file, cache)})
        if (!problem.empty())
        {
            std::fprintf(stderr, "LAS fuzz case failed: %s\n", problem.c_str());
            __builtin_trap();
        }
    return 0;
}
