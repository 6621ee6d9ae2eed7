#pragma once

#include <cstdint>
#include <vector>

#include "geom/Point3d.h"
#include "geom/Vector3d.h"

namespace pcp_sample
{

// One return of the simulated scanner: where the ray hit, what the surface looks like there.
struct SampleHit
{
    geom::Point3d position;
    geom::Vector3d normal;  // unit, facing the scanner's side of the surface
    uint16_t r = 0;         // colour on the 16-bit scale
    uint16_t g = 0;
    uint16_t b = 0;
    uint16_t intensity = 0;  // 16-bit scale, falling with distance
    uint8_t classification = 0;
    double distance = 0.0;  // from the scanner, in metres
};

// Where a return stands in an airborne scanner's sequence: LAS keeps this beside each point. The defaults
// describe the one return of a pulse from a scanner that says nothing more.
struct PulseInfo
{
    double gpsTime = 0.0;  // seconds
    uint8_t returnNumber = 1;
    uint8_t numberOfReturns = 1;
    int8_t scanAngle = 0;           // degrees from the nadir, negative to the left of the flight direction
    bool scanDirection = false;     // the mirror sweeps from left to right
    bool edgeOfFlightLine = false;  // the last pulse of a scan line
    uint16_t flightLine = 0;        // the strip the pulse belongs to
};

// A panorama grid of rays: columns sweep the full circle, rows go from straight down to straight up, each ray
// taken at the centre of its cell.
struct ScanGrid
{
    int rows = 200;
    int columns = 250;
};

// The built-in sample: a furnished room of 6 x 4 x 3 metres with its floor corner at the origin, scanned by a
// terrestrial scanner standing at `scanner`. Every ray hits something, the room being closed. `jitter` adds
// a deterministic range noise of that many metres, as a real scanner has.
std::vector<SampleHit> scanRoom(const geom::Point3d& scanner, const ScanGrid& grid, double jitter = 0.002);

// The returns of one station: the scanner at `scanner`, its axes turned by `headingDegrees` about the
// vertical.
struct StationScan
{
    std::vector<SampleHit> hits;
    ScanGrid grid;
    geom::Point3d scanner;
    double headingDegrees = 0.0;
};

// Whether the tripod hides a return from its scanner: everything more than 150 degrees from the zenith.
bool hiddenByTripod(const SampleHit& hit, const geom::Point3d& scanner);

}  // namespace pcp_sample
