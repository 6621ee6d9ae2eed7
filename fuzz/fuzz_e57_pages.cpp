// Arbitrary bytes as a whole E57 file, in memory: every page through the checksum reader, then the file
// opened and every compressed vector and blob read (see E57FuzzCase.h for the flags of the first byte).
#include <cstdio>
#include <string>

#include "fuzz/E57FuzzCase.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const auto input = pcp_fuzz::E57PagesCase::decode(data, size);
    if (!input)
        return 0;
    const std::string problem = pcp_fuzz::checkE57Pages(*input);
    if (!problem.empty())
    {
        std::fprintf(stderr, "E57 pages fuzz case failed: %s\n", problem.c_str());
        __builtin_trap();
    }
    return 0;
}
