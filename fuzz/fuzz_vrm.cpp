// Arbitrary bytes as a cache's tree file: refused with the reader's own error, or read into a tree that the
// writer and the reader carry through unchanged (see VrmFuzzCase.h).
#include <cstdio>
#include <string>

#include "fuzz/FuzzScratch.h"
#include "fuzz/VrmFuzzCase.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const pcp_fuzz::FuzzScratch scratch("vrm");
    static const std::wstring copy = scratch.cache() + L"/copy.vrm";
    const std::string problem =
        pcp_fuzz::checkVrm(std::string(reinterpret_cast<const char*>(data), size), scratch.file(), copy);
    if (!problem.empty())
    {
        std::fprintf(stderr, "VRM fuzz case failed: %s\n", problem.c_str());
        __builtin_trap();
    }
    return 0;
}
