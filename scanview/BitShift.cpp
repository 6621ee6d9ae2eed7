#include "scanview/BitShift.h"

#include <algorithm>
#include <bit>
#include <vector>

#include "scanview/ScanView.h"

namespace pc_preprocess
{

namespace
{

constexpr uint64_t kFewestRowsLog2 = 6;

// Occupied blocks away from the first and last block row, and those among them whose eight neighbours are
// occupied too.
struct Closedness
{
    uint64_t occupied = 0;
    uint64_t interior = 0;
};

Closedness measure(const std::vector<uint8_t>& occupancy, uint64_t rows, uint64_t columns)
{
    Closedness result;
    for (uint64_t row = 1; row + 1 < rows; ++row)
    {
        const uint8_t* above = &occupancy[(row - 1) * columns];
        const uint8_t* line = &occupancy[row * columns];
        const uint8_t* below = &occupancy[(row + 1) * columns];
        for (uint64_t column = 0; column < columns; ++column)
        {
            if (!line[column])
                continue;
            ++result.occupied;
            const uint64_t left = column == 0 ? columns - 1 : column - 1;
            const uint64_t right = column + 1 == columns ? 0 : column + 1;
            if (above[left] && above[column] && above[right] && line[left] && line[right] && below[left] &&
                below[column] && below[right])
                ++result.interior;
        }
    }
    return result;
}

// Halves the occupancy grid in both directions in place: a block is occupied when any of its four parts is.
void halve(std::vector<uint8_t>& occupancy, uint64_t rows, uint64_t columns)
{
    const uint64_t newColumns = columns / 2;
    for (uint64_t row = 0; row < rows / 2; ++row)
    {
        const uint8_t* top = &occupancy[2 * row * columns];
        const uint8_t* bottom = top + columns;
        for (uint64_t column = 0; column < newColumns; ++column)
            occupancy[row * newColumns + column] =
                top[2 * column] | top[2 * column + 1] | bottom[2 * column] | bottom[2 * column + 1];
    }
}

}  // namespace

uint64_t determineBitShift(const ScanView& view)
{
    uint64_t rows = view.height();
    uint64_t columns = view.width();
    const uint64_t level =
        std::min<uint64_t>(11, std::bit_width(ScanView::kFullHeight / std::max<uint64_t>(rows, 1)) - 1);
    const uint64_t rowsLog2 = 11 - level;
    if (rowsLog2 <= kFewestRowsLog2)
        return 0;
    const uint64_t largestShift = rowsLog2 - kFewestRowsLog2;

    // One pass over the pixels; each coarser level then follows from the one before, which is the same as
    // asking every block of 2^shift pixels whether any of them holds a point.
    std::vector<uint8_t> occupancy(rows * columns);
    for (uint64_t row = 0; row < rows; ++row)
        for (uint64_t column = 0; column < columns; ++column)
            occupancy[row * columns + column] = view.at(column, row).hasPoint() ? 1 : 0;

    for (uint64_t shift = 0; shift < largestShift; ++shift)
    {
        if (shift > 0)
        {
            halve(occupancy, rows, columns);
            rows /= 2;
            columns /= 2;
        }
        if (rows <= 2)
            break;
        const Closedness closedness = measure(occupancy, rows, columns);
        if (closedness.interior * 2 >= closedness.occupied)
            return shift;
    }
    return largestShift;
}

}  // namespace pc_preprocess
