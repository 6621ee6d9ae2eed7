#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "sample/SampleScene.h"

namespace pcp_sample
{

// The integer grid of a LAS file and its coordinate system.
struct LasGrid
{
    double scale = 0.001;
    double offset[3] = {0.0, 0.0, 0.0};
    uint16_t epsg = 0;           // a projected coordinate system, written as GeoTIFF keys; 0 writes none
    std::string projectionName;  // its name, e.g. "WGS 84 / UTM zone 32N"
};

// Writes an uncompressed LAS 1.2 file of point format 3 (GPS time and 16-bit colour) through LASzip's writer,
// one point at a time, so that a file of any size passes through a fixed amount of memory. close() writes
// the counts by return and the bounding box of what was added into the header. Throws when LASzip refuses;
// a writer destroyed without close() leaves an incomplete file.
class LasTileWriter
{
public:
    LasTileWriter(const std::string& path, const LasGrid& grid);
    ~LasTileWriter();
    LasTileWriter(const LasTileWriter&) = delete;
    LasTileWriter& operator=(const LasTileWriter&) = delete;

    void add(const SampleHit& hit, const PulseInfo& pulse);
    void close();
    uint64_t count() const { return m_count; }

private:
    class Laszip;
    std::unique_ptr<Laszip> m_laszip;
    LasGrid m_grid;
    uint64_t m_count = 0;
};

// Writes simulated returns as a LAS tile on a millimetre grid with the given offset, each a single return,
// 10 microseconds apart.
void writeLasTile(const std::string& path, const std::vector<SampleHit>& hits, const double offset[3]);

}  // namespace pcp_sample
