// Arbitrary text as PTX data: every line through the header and point line parsers in memory, then the whole
// importer on the bytes as a file, probed and converted. The first byte chooses the colour mode of the
// conversion (see PtxFuzzCase.h); a broken invariant or a foreign exception stops the run.
#include <cstdio>
#include <string>

#include "fuzz/FuzzScratch.h"
#include "fuzz/PtxFuzzCase.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const pcp_fuzz::FuzzScratch scratch("ptx");
    const auto input = pcp_fuzz::PtxFuzzCase::decode(data, size);
    if (!input)
        return 0;
    for (const std::string& problem :
         {pcp_fuzz::checkLines(*input), pcp_fuzz::checkImport(*input, scratch.file(), scratch.cache())})
        if (!problem.empty())
        {
            std::fprintf(stderr, "PTX fuzz case failed: %s\n", problem.c_str());
            __builtin_trap();
        }
    return 0;
}
