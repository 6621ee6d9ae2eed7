#pragma once

#include <cstdint>

namespace pc_preprocess
{

// The point as it travels from the importers through the per-scan files into the tree: integer position in
// the grid of an IoTransfo, colour and intensity on the 16-bit scale.
struct IoLightPoint
{
    int32_t x;
    int32_t y;
    int32_t z;
    float radius;  // distance from the scan position, 0 without one; stored as a raw 32-bit pattern in node
                   // files
    uint16_t r;
    uint16_t g;
    uint16_t b;
    uint16_t intensity;
    uint16_t scanId;
    uint8_t classification;
    float nx;
    float ny;
    float nz;

    // Whoever creates a point fills position, radius and colour; leaving them alone keeps the batch loops
    // free of stores that are overwritten at once.
    IoLightPoint() : intensity(0), scanId(0), classification(0), nx(0.0f), ny(0.0f), nz(0.0f) {}
};

}  // namespace pc_preprocess
