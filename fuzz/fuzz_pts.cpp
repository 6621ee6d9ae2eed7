// Arbitrary text as PTS data: the number grammars of data lines, the splitting of detection and previews and
// the format string parser in memory, then the whole importer on the bytes as a file. The first two bytes
// choose the settings (see PtsFuzzCase.h); a broken invariant or a foreign exception stops the run.
#include <cstdio>
#include <string>

#include "fuzz/FuzzScratch.h"
#include "fuzz/PtsFuzzCase.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const pcp_fuzz::FuzzScratch scratch("pts");
    const auto input = pcp_fuzz::PtsFuzzCase::decode(data, size);
    if (!input)
        return 0;
    for (const std::string& problem : {pcp_fuzz::checkLines(*input), pcp_fuzz::checkFormatString(*input),
                                       pcp_fuzz::checkImport(*input, scratch.file(), scratch.cache())})
        if (!problem.empty())
        {
            std::fprintf(stderr, "PTS fuzz case failed: %s\n", problem.c_str());
            __builtin_trap();
        }
    return 0;
}
