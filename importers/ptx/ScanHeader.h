#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace pc_preprocess::ptx
{

// A PTX file is a sequence of structured scans. Each starts with ten text lines:
//
//   line   holds            meaning
//   1      integer          columns of the scan's grid
//   2      integer          rows
//   3      x y z            registered scanner position (not used: the pose below says it)
//   4-6    x y z            scanner axes (not used either)
//   7-9    a b c 0          the pose's rotation: the first three values of line 7 + k are its column k
//   10     tx ty tz 1       the pose's translation
//
// Lines 7 to 10 are a 4 x 4 matrix for row vectors, so world = rotation * local + translation. Then come
// rows x columns point lines, one per cell of the grid, missing returns included (see PointLine.h).
struct ScanHeader
{
    uint64_t columns = 0;
    uint64_t rows = 0;
    // rows * columns: the point lines after the header. Never above what 64 bits hold.
    uint64_t gridPoints = 0;
    // Column-major: rotation[3 * k + r] is row r of column k.
    std::array<double, 9> rotation{};
    std::array<double, 3> translation{};
};

constexpr size_t kHeaderLines = 10;

// What line `index` (0 to 9) of a header must hold, in the words of its failure. A header that ends before
// that line fails with the same words.
std::string_view headerLineExpectation(size_t index);

// Reads line `index` (0 to 9) of a header into `header`. False when the line does not hold what its place
// asks for, or when the grid it completes would count more points than 64 bits hold.
bool parseHeaderLine(size_t index, const char* begin, const char* end, ScanHeader& header);

}  // namespace pc_preprocess::ptx
