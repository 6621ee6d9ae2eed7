// Arbitrary bytes as the binary section of a compressed vector, read with a prototype and buffers that the
// first bytes choose (see E57FuzzCase.h).
#include <cstdio>
#include <string>

#include "fuzz/E57FuzzCase.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const auto input = pcp_fuzz::E57CvCase::decode(data, size);
    if (!input)
        return 0;
    const std::string problem = pcp_fuzz::checkE57Cv(*input);
    if (!problem.empty())
    {
        std::fprintf(stderr, "E57 cv fuzz case failed: %s\n", problem.c_str());
        __builtin_trap();
    }
    return 0;
}
