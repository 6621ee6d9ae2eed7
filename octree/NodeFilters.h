#pragma once

#include <span>
#include <string>
#include <vector>

#include "core/Export.h"
#include "core/ExtentsI32.h"
#include "core/IoLightPoint.h"
#include "core/IoTransfo.h"

namespace pc_preprocess
{

// What a node's filter leaves of its point file.
struct FilteredPoints
{
    std::vector<IoLightPoint> points;
    double maxRadius;  // the largest radius among the points; the lowest double when there are none
};

// For scans whose radii are their local spacing: every point of the PNT file goes through a FilterTree over
// the node's box, which keeps the finest detail at each place.
PCP_API FilteredPoints filterTandStyle(const std::wstring& pntFile, const ExtentsI32& extents,
                                       const IoTransfo& transfo, bool keepMultiple);

// For scans without a usable radius: every point of the PNT file gets the point size of the node's box as
// radius, keeps position and colour, loses class, intensity and normal, and points on the same integer
// position merge into one.
PCP_API FilteredPoints filterFernalStyle(const std::wstring& pntFile, const ExtentsI32& extents,
                                         const IoTransfo& transfo);

// The same two filters over the 26-byte records of a node held in memory, in their order.
FilteredPoints filterTandStyle(std::span<const uint8_t> records, const ExtentsI32& extents,
                               const IoTransfo& transfo, bool keepMultiple);
FilteredPoints filterFernalStyle(std::span<const uint8_t> records, const ExtentsI32& extents,
                                 const IoTransfo& transfo);

}  // namespace pc_preprocess
