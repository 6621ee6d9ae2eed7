#pragma once

#include <algorithm>
#include <cstdint>
#include <span>
#include <string>

#include "cachefiles/PntFormat.h"

namespace pc_preprocess
{

// How the records of a node lie in memory: one after the other as in a PNT file, or as the byte planes of an
// inflated PNZ, where byte j of point i of n stands at j * n + i.
enum class NodeLayout
{
    kRecords,
    kPlanes
};

// A node file's content in memory: the header, and a body of exactly numPoints records in the given layout.
struct NodeBytes
{
    PntHeader header;
    uint64_t numPoints = 0;
    std::span<const uint8_t> body;
    NodeLayout layout = NodeLayout::kRecords;
};

// Checks the header and the size of a node in memory. The size errors are numPointsPNT's; a colour flag of 0
// fails with colourErrorPrefix + ": Only colorful PNT are supported.".
NodeBytes parseNodeBytes(std::span<const uint8_t> bytes, NodeLayout layout,
                         const std::string& colourErrorPrefix);

// Move count consecutive records, those of points first to first + count - 1 of n, between a record buffer
// and the planes; recordSize is 26 or 22. They work in tiles of records small enough to stay in the
// first-level cache, so that each plane is read or written in runs rather than one byte per cache line.
inline constexpr uint64_t kPlaneTile = 64;
void recordsToPlanes(const uint8_t* records, uint64_t first, uint64_t count, uint64_t n, uint64_t recordSize,
                     uint8_t* planes);
void planesToRecords(const uint8_t* planes, uint64_t first, uint64_t count, uint64_t n, uint64_t recordSize,
                     uint8_t* records);

// Calls sink(i, point) for every point of the node in order. The point is reused from one call to the next:
// classification and normals keep whatever the sink left in them.
template <typename Sink>
void forEachPoint(const NodeBytes& node, Sink&& sink)
{
    const bool extended = node.header.isExtended();
    const uint64_t recordSize = node.header.recordSize();
    IoLightPoint point;
    if (node.layout == NodeLayout::kRecords)
    {
        const uint8_t* record = node.body.data();
        for (uint64_t i = 0; i < node.numPoints; ++i, record += recordSize)
        {
            decodePntRecord(record, extended, point);
            sink(i, point);
        }
        return;
    }
    uint8_t tile[kPlaneTile * kPntRecordSize];
    for (uint64_t first = 0; first < node.numPoints; first += kPlaneTile)
    {
        const uint64_t count = std::min(kPlaneTile, node.numPoints - first);
        planesToRecords(node.body.data(), first, count, node.numPoints, recordSize, tile);
        for (uint64_t k = 0; k < count; ++k)
        {
            decodePntRecord(tile + k * recordSize, extended, point);
            sink(first + k, point);
        }
    }
}

// Serialises header and n points, pointAt(i) giving point i, as the byte planes of a PNZ into out, which
// holds fileSizePNT(n, true) bytes.
template <typename PointAt>
void encodePlaneBytes(const IoTransfo& transfo, uint64_t n, PointAt&& pointAt, std::span<uint8_t> out)
{
    encodePntHeader(transfo, out.data());
    uint8_t tile[kPlaneTile * kPntRecordSize];
    for (uint64_t first = 0; first < n; first += kPlaneTile)
    {
        const uint64_t count = std::min(kPlaneTile, n - first);
        for (uint64_t k = 0; k < count; ++k)
            encodePntRecord(pointAt(first + k), tile + k * kPntRecordSize);
        recordsToPlanes(tile, first, count, n, kPntRecordSize, out.data() + kPntHeaderSize);
    }
}

}  // namespace pc_preprocess
