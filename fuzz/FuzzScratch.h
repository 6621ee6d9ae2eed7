#pragma once

#include <unistd.h>

#include <filesystem>
#include <string>
#include <system_error>

#include "core/StringConversion.h"

namespace pcp_fuzz
{

// The input file and a cache folder of one fuzzing process, in memory, so that the millions of runs never
// touch a disk; removed at exit. `kind` names the parser, and the input file takes it as its extension.
class FuzzScratch
{
public:
    explicit FuzzScratch(const std::string& kind)
        : m_folder(std::filesystem::path("/dev/shm") /
                   ("pcp-fuzz-" + kind + "-" + std::to_string(::getpid()))),
          m_kind(kind)
    {
        std::filesystem::create_directories(m_folder / "cache" / "Data");
    }
    ~FuzzScratch()
    {
        std::error_code ignored;
        std::filesystem::remove_all(m_folder, ignored);
    }
    FuzzScratch(const FuzzScratch&) = delete;
    FuzzScratch& operator=(const FuzzScratch&) = delete;

    std::wstring file() const { return pc_preprocess::toWide(m_folder / ("input." + m_kind)); }
    std::wstring cache() const { return pc_preprocess::toWide(m_folder / "cache"); }

private:
    std::filesystem::path m_folder;
    std::string m_kind;
};

}  // namespace pcp_fuzz
