#pragma once

#include <array>
#include <functional>
#include <span>
#include <string>

#include "octree/Node.h"
#include "octree/TreeCounts.h"

namespace pc_preprocess
{

// A child with fewer points than this is dropped, points and all.
inline constexpr uint64_t kMinChildPoints = 5;

// Eight empty children of `node`, named after it, taking its transfo, side-file flags and filter state; with
// reserveBuffers, each has room for a full write buffer.
void createChildren(Node& node, bool reserveBuffers = true);

// Whether a finished child is kept as it is rather than filtered: it is sparse for its volume and, in the
// panorama style, filtered already or too big to filter now.
bool keptFromFilter(const Node& child, uint64_t total, const SplitSettings& settings);

// Without a radius from its scan (a first record's radius of 0 or less), every point of a child that ends
// in one buffer gets the drawing size of the child's box, which becomes its largest radius.
void giveRecordsTheNodeSize(Node& child, std::span<uint8_t> records);

// The radius that distributing gives a point: a factor of 1 keeps it, 0 clears it, any other value scales it.
inline float distributedRadius(float radius, float radiusFactor)
{
    return radiusFactor == 0.0f ? 0.0f : radiusFactor == 1.0f ? radius : radius * radiusFactor;
}

// The index of the first box that holds the point, or 8 when none does.
inline size_t firstBoxHolding(const std::array<ExtentsI32, 8>& boxes, const IoLightPoint& point)
{
    size_t index = 0;
    while (index < boxes.size() && !boxes[index].contains(point))
        ++index;
    return index;
}

// Gives a point the radius and scan that distributePoints gives it and adds it to the first child whose box
// holds it; false when no box does.
bool distributePoint(Node& node, const std::array<ExtentsI32, 8>& boxes, IoLightPoint point,
                     float radiusFactor, uint16_t scanId);

// Streams the points of a PNT file into the children: each goes to the first child whose box holds it. A
// radius factor of 1 keeps the radii, 0 clears them, any other value scales them; `scanId` replaces the
// points' own. The file is consumed (its bytes read as zeros afterwards) and is to be deleted. Returns the
// number of points read.
uint64_t distributePoints(Node& node, const std::array<ExtentsI32, 8>& boxes, const std::wstring& pntFile,
                          float radiusFactor, uint16_t scanId, TreeCounts& counts);

// Ends the distribution into the children of `node`: each is kept as it is, filtered, or dropped, and the
// survivors are renumbered so that their digits stay contiguous. Leaves are written with the coder.
void finishChildren(Node& node, const SplitSettings& settings, PnzCoder& coder);

// Splits a node of more than 65536 points on disk into its children; a smaller node stays as it is.
void splitNonRoot(Node& node, const SplitSettings& settings, PnzCoder& coder);

}  // namespace pc_preprocess
