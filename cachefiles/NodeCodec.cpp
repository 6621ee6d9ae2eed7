#include "cachefiles/NodeCodec.h"

namespace pc_preprocess
{

namespace
{

// Calls move(recordIndex, planeIndex) for every byte of the records of points first to first + count - 1,
// tile by tile and plane by plane. The record size is a template argument so that the compiler unrolls the
// loops for each of the two sizes.
template <uint64_t kRecordSize, typename Move>
void forEachByteOf(uint64_t first, uint64_t count, uint64_t n, Move&& move)
{
    for (uint64_t done = 0; done < count; done += kPlaneTile)
    {
        const uint64_t tile = std::min(kPlaneTile, count - done);
        for (uint64_t j = 0; j < kRecordSize; ++j)
        {
            const uint64_t record = done * kRecordSize + j;
            const uint64_t plane = j * n + first + done;
            for (uint64_t k = 0; k < tile; ++k)
                move(record + k * kRecordSize, plane + k);
        }
    }
}

template <typename Move>
void forEachByte(uint64_t recordSize, uint64_t first, uint64_t count, uint64_t n, Move&& move)
{
    if (recordSize == kPntRecordSize)
        forEachByteOf<kPntRecordSize>(first, count, n, move);
    else
        forEachByteOf<kPntShortRecordSize>(first, count, n, move);
}

}  // namespace

NodeBytes parseNodeBytes(std::span<const uint8_t> bytes, NodeLayout layout,
                         const std::string& colourErrorPrefix)
{
    NodeBytes node;
    node.header = decodePntHeader(bytes);
    node.numPoints = numPointsPNT(bytes.size(), node.header.isExtended());
    requireColourFlag(node.header, colourErrorPrefix);
    node.body = bytes.subspan(kPntHeaderSize);
    node.layout = layout;
    return node;
}

void recordsToPlanes(const uint8_t* records, uint64_t first, uint64_t count, uint64_t n, uint64_t recordSize,
                     uint8_t* planes)
{
    forEachByte(recordSize, first, count, n,
                [&](uint64_t record, uint64_t plane) { planes[plane] = records[record]; });
}

void planesToRecords(const uint8_t* planes, uint64_t first, uint64_t count, uint64_t n, uint64_t recordSize,
                     uint8_t* records)
{
    forEachByte(recordSize, first, count, n,
                [&](uint64_t record, uint64_t plane) { records[record] = planes[plane]; });
}

}  // namespace pc_preprocess
