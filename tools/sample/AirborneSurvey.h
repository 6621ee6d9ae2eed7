#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "sample/SampleScene.h"

namespace pcp_sample
{

// Where the outdoor sample lies: the south-west corner of its 500 m tile in WGS 84 / UTM zone 32N, metres.
struct TerrainTilePlace
{
    static constexpr double kEast = 421000.0;
    static constexpr double kNorth = 5378000.0;
    static constexpr uint16_t kEpsg = 32632;
};

using ReturnSink = std::function<void(const SampleHit&, const PulseInfo&)>;

// An airborne laser survey of the outdoor sample (TerrainScene): a scanner flown about 540 m above the
// ground in four overlapping north-south strips, sweeping scan lines across each strip. Pulses that meet a
// crown may go on to a second return below it; walls are seen only by the slanted pulses towards the edges
// of a strip. Calls `sink` for exactly `points` returns, in world coordinates and in the order of
// acquisition; the spacing of the pulses follows from the count. Holds nothing but the scene, whatever the
// count. Classes: 2 ground, 5 high vegetation, 6 building.
void surveyTerrainTile(uint64_t points, const ReturnSink& sink);

// The survey as a LAS tile (see LasTileWriter) on a centimetre grid whose offset is the tile's corner, with
// its coordinate system, written as the survey goes. Returns the points written.
uint64_t writeTerrainTile(const std::string& path, uint64_t points);

}  // namespace pcp_sample
