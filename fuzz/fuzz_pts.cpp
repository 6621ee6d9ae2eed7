// Arbitrary text as PTS data: the number grammars of data lines, the splitting of detection and previews and
// the format string parser in memory, then the whole importer on the bytes as a file. The first two bytes
// choose the settings (see PtsFuzzCase.h); a broken invariant or a foreign exception stops the run.
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "fuzz/PtsFuzzCase.h"

namespace
{

// A folder in memory for the files of this process, removed at exit.
class Scratch
{
public:
    Scratch() : m_folder(std::filesystem::path("/dev/shm") / ("pcp-fuzz-pts-" + std::to_string(::getpid())))
    {
        std::filesystem::create_directories(m_folder / "cache" / "Data");
    }
    ~Scratch()
    {
        std::error_code ignored;
        std::filesystem::remove_all(m_folder, ignored);
    }
    std::wstring file() const { return pc_preprocess::toWide(m_folder / "input.pts"); }
    std::wstring cache() const { return pc_preprocess::toWide(m_folder / "cache"); }

private:
    std::filesystem::path m_folder;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const Scratch scratch;
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
