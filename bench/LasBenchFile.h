#pragma once

// A synthetic LAS scan for benchmarks: 20 million points of format 3 (LAS 1.2, millimetre grid, colour, GPS
// time), written once per process into a fresh folder below the system's temporary folder with a cache folder
// beside it, and removed at exit. The points come from pcp_test::writeLasSamples
// (tests/support/LasSamples.h), so benchmarks of other readers can measure the very same scan.

#include <cstdint>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>

#include "bench/BenchFolder.h"
#include "core/Convertor.h"
#include "core/StringConversion.h"
#include "tests/support/LasSamples.h"

namespace pcp_bench
{

class LasBenchFile
{
public:
    static constexpr uint64_t kPoints = 20'000'000;

    static const LasBenchFile& instance()
    {
        static const LasBenchFile file;
        return file;
    }
    ~LasBenchFile()
    {
        std::error_code ignored;
        std::filesystem::remove_all(m_folder, ignored);
    }
    LasBenchFile(const LasBenchFile&) = delete;
    LasBenchFile& operator=(const LasBenchFile&) = delete;

    // The discretization onto the file's own grid (millimetres, no offset): raw integers pass unchanged, as
    // in a cache made from this file.
    static pc_preprocess::Discretization fileGrid()
    {
        pc_preprocess::IoTransfo grid;
        grid.scale = {0.001, 0.001, 0.001};
        grid.offset = {0.0, 0.0, 0.0};
        const double linear[9] = {0.001, 0.0, 0.0, 0.0, 0.001, 0.0, 0.0, 0.0, 0.001};
        const double translation[3] = {0.0, 0.0, 0.0};
        return pc_preprocess::Discretization(grid, linear, translation);
    }

    const std::wstring& path() const { return m_path; }
    // A cache folder with its "Data" folder, for conversions.
    const std::wstring& cache() const { return m_cache; }
    uint64_t size() const { return m_size; }

private:
    LasBenchFile()
    {
        m_folder = pcp_bench::makeBenchFolder("pcp-bench-las");
        m_cache = pc_preprocess::toWide(m_folder / "cache");
        std::filesystem::create_directories(
            pc_preprocess::toPath(pc_preprocess::Convertor::getPointFolder(m_cache)));
        const std::filesystem::path file = m_folder / "scan.las";
        pcp_test::writeLasSamples(file, kPoints);
        m_path = pc_preprocess::toWide(file);
        m_size = std::filesystem::file_size(file);
    }

    std::filesystem::path m_folder;
    std::wstring m_path;
    std::wstring m_cache;
    uint64_t m_size = 0;
};

}  // namespace pcp_bench
