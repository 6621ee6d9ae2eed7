// Arbitrary bytes as a LAS file: its header and VLRs parsed from memory, the bytes as a chain of bare VLRs
// through the coordinate system interpreter and the GeoTIFF conversion, and the whole importer on the bytes
// as a file. A broken invariant or a foreign exception stops the run.
#include <cstdio>
#include <string>

#include "fuzz/FuzzScratch.h"
#include "fuzz/LasFuzzCase.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const pcp_fuzz::FuzzScratch scratch("las");
    const std::span<const uint8_t> bytes(data, size);
    for (const std::string& problem : {pcp_fuzz::checkHeader(bytes), pcp_fuzz::checkVlrChain(bytes),
                                       pcp_fuzz::checkImport(bytes, scratch.file(), scratch.cache())})
        if (!problem.empty())
        {
            std::fprintf(stderr, "LAS fuzz case failed: %s\n", problem.c_str());
            __builtin_trap();
        }
    return 0;
}
