// Arbitrary text as the XML section of an E57 file, through the parser that opening a file uses; the tree
// it builds must hold together (every node found at its path, under its parent).
#include <cstdio>
#include <string>

#include "fuzz/E57FuzzCase.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string problem =
        pcp_fuzz::checkE57Xml(std::string_view(reinterpret_cast<const char*>(data), size));
    if (!problem.empty())
    {
        std::fprintf(stderr, "E57 xml fuzz case failed: %s\n", problem.c_str());
        __builtin_trap();
    }
    return 0;
}
