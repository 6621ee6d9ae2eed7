#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace pcp_test
{

// A point of a synthetic PTS file. Every attribute follows from the index, so a test can predict any point.
struct PtsSample
{
    double x, y, z;
    int intensity;  // 0..255 times the file's value factor
    int r, g, b;    // 0..255 times the file's value factor
};

PtsSample ptsSample(uint64_t index);

struct PtsFileLayout
{
    bool intensity = true;
    bool colour = true;
    bool countLine = true;        // the usual first line holding the point count
    uint64_t malformedEvery = 0;  // a broken line after every n-th point; 0 for none
    int valueFactor = 1;          // intensity and colours are written times this: above 1 they leave 8 bits
};

// Writes points first .. first + count - 1 of the sample sequence as a PTS file; returns the valid points.
std::vector<PtsSample> writePtsFile(const std::wstring& path, uint64_t count,
                                    const PtsFileLayout& layout = {}, uint64_t first = 0);

}  // namespace pcp_test
