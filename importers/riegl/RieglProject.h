#pragma once

#include <array>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace pc_preprocess::riegl
{

// One scan of a RIEGL project as the importer reads it: the scan position it belongs to, the scan's name and
// RDB point file, and the position's pose, which carries the scanner's coordinates into the project's.
struct RieglScan
{
    std::string position;
    std::string name;
    // The scan's point file: its name with the extension ".rdbx"; a full path once found on disk.
    std::filesystem::path rdbFile;
    bool hasPose = false;
    // The pose's linear part, column-major (row r is rotation[r], rotation[r + 3], rotation[r + 6]), and its
    // translation.
    std::array<double, 9> rotation{1, 0, 0, 0, 1, 0, 0, 0, 1};
    std::array<double, 3> translation{};
};

// The scans of a project file and the residual pose files that it names beside them.
struct RieglProject
{
    std::vector<RieglScan> scans;
    // Files of a position whose name holds ".residual.": the residual of a registration, no points to read.
    std::vector<std::string> residualFiles;
};

// Reads the project XML: below "project" / "scanpositions", each "scanposition" with its "name" (attribute
// or child element), the 4 x 4 matrices of "sop" and "cop" (each a "matrix" of 16 numbers, row by row), and
// its "singlescans" / "scan" entries, each with a "name". A position's pose is cop after sop: sop takes the
// scanner's coordinates into the project, cop corrects that placement, as a later registration does.
// Throws std::runtime_error with the element at fault for malformed XML, a matrix with too few or too many
// numbers or a text that is no number, a position or scan without a name.
RieglProject parseRieglProject(std::string_view xml);

// Finds each scan's RDB file beside the project file: in "SCANS/<position>/SINGLESCANS" (the layout that
// RIEGL's software writes), then "<position>", then the project's own folder. Throws, naming the position,
// the scan and the places tried, when a file is in none of them.
void locateRdbFiles(RieglProject& project, const std::filesystem::path& projectFile);

}  // namespace pc_preprocess::riegl
