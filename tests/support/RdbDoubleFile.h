#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

namespace pcp_test
{

// A point file of the test library that stands in for the RIEGL library (layout in riegl/RdbDoubleFormat.h),
// and a project file naming such files: how the tests make RIEGL input.
struct RdbDoubleFile
{
    struct Point
    {
        std::array<double, 3> xyz{};
        float amplitude = 0.0f;
        std::array<uint8_t, 4> rgba{};
        std::array<float, 3> normal{};
    };

    bool amplitude = false;
    bool rgba = false;
    bool surfaceNormal = false;
    // 0, or one of the failures of riegl/RdbDoubleFormat.h.
    uint32_t failure = 0;
    std::vector<std::pair<std::string, std::string>> metadata;
    std::vector<Point> points;

    // Writes the file, making its folder where it is missing.
    void write(const std::filesystem::path& path) const;
};

// The paths of the test library's three builds: complete, without rdb_pointcloud_query_select_bind, and
// refusing every open setting.
std::string rdbDoubleLibrary();
std::string rdbDoubleLibraryLackingBind();
std::string rdbDoubleLibraryFailing();

}  // namespace pcp_test
