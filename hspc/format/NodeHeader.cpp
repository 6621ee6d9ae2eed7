#include "hspc/format/NodeHeader.h"

#include <cmath>
#include <cstring>
#include <limits>
#include <string>

#include "hspc/format/AttributeRecord.h"
#include "hspc/format/FieldReader.h"
#include "hspc/format/LittleEndian.h"

namespace HSPC
{
namespace
{

constexpr char kNodeTag[4] = {'A', 'P', 'R', 'N'};
// Versions from which a field exists, or changes its form.
constexpr uint32_t kFirstVersionWithOrigin = 8;
constexpr uint32_t kFirstVersionWithDistribution = 9;
constexpr uint32_t kFirstVersionWithIntegerBox = 12;

// Old headers keep the box as floats in real units; the integer box is value / scale, truncated, with the
// maximum one past. A value that no unsigned 64-bit integer holds makes the header unreadable.
bool convertRealBound(float value, double scale, bool isMaximum, uint64_t& bound)
{
    const double units = std::trunc(double(value) * (1.0 / scale));
    if (!std::isfinite(units) || units < -9.2e18 || units > 9.2e18)
    {
        return false;
    }
    bound = uint64_t(int64_t(units)) + (isMaximum ? 1 : 0);
    return true;
}

}  // namespace

size_t readNodeHeader(std::span<const uint8_t> block, NodeHeader& header)
{
    if (block.size() < kChunkHeaderSize || std::memcmp(block.data(), kNodeTag, sizeof(kNodeTag)) != 0)
    {
        return 0;
    }
    FieldReader reader(block.subspan(sizeof(kNodeTag)));
    header.chunkSize = reader.read<uint64_t>();
    header.version = reader.read<uint32_t>();
    if (!reader.ok() || header.chunkSize < block.size() || header.version < kOldestNodeFormatVersion ||
        header.version > kNodeFormatVersion)
    {
        return 0;
    }
    header.attributeId = reader.read<uint32_t>();
    header.pointCount = reader.read<uint64_t>();
    header.payloadSize = reader.read<uint64_t>();
    for (uint64_t& coordinate : header.node)
    {
        coordinate = reader.read<uint64_t>();
    }
    for (double& scale : header.scale)
    {
        scale = reader.read<double>();
    }
    header.origin = {};
    if (header.version >= kFirstVersionWithOrigin)
    {
        for (double& origin : header.origin)
        {
            origin = reader.read<double>();
        }
    }
    header.lod = reader.read<uint32_t>();
    header.headerSize = reader.read<uint32_t>();
    header.distribution = header.version >= kFirstVersionWithDistribution ? reader.read<uint32_t>() : 0;
    if (header.version >= kFirstVersionWithIntegerBox)
    {
        for (uint64_t& bound : header.localMin)
        {
            bound = reader.read<uint64_t>();
        }
        for (uint64_t& bound : header.localMax)
        {
            bound = reader.read<uint64_t>();
        }
    }
    else
    {
        std::array<float, 6> box{};
        for (float& bound : box)
        {
            bound = reader.read<float>();
        }
        for (unsigned axis = 0; axis < 3 && reader.ok(); ++axis)
        {
            if (!convertRealBound(box[axis], header.scale[axis], false, header.localMin[axis]) ||
                !convertRealBound(box[3 + axis], header.scale[axis], true, header.localMax[axis]))
            {
                return 0;
            }
        }
    }
    const uint32_t attributeCount = reader.read<uint32_t>();
    if (!reader.ok() || !readAttributeRecords(reader, header.version, attributeCount, header.attributes))
    {
        return 0;
    }
    const size_t parsedEnd = sizeof(kNodeTag) + reader.position();
    if (header.headerSize < parsedEnd || header.headerSize > block.size())
    {
        return 0;
    }
    return header.headerSize;
}

size_t nodeHeaderSize(const std::vector<Attribute>& attributes)
{
    std::vector<uint8_t> records;
    for (const Attribute& attribute : attributes)
    {
        appendAttributeRecord(records, attribute);
    }
    return 172 + records.size();
}

void writeNodeHeader(const NodeHeader& header, std::vector<uint8_t>& bytes)
{
    using little_endian::append;
    bytes.insert(bytes.end(), std::begin(kNodeTag), std::end(kNodeTag));
    append<uint64_t>(bytes, header.chunkSize);
    append<uint32_t>(bytes, kNodeFormatVersion);
    append<uint32_t>(bytes, header.attributeId);
    append<uint64_t>(bytes, header.pointCount);
    append<uint64_t>(bytes, header.payloadSize);
    for (uint64_t coordinate : header.node)
    {
        append<uint64_t>(bytes, coordinate);
    }
    for (double scale : header.scale)
    {
        append<double>(bytes, scale);
    }
    for (double origin : header.origin)
    {
        append<double>(bytes, origin);
    }
    append<uint32_t>(bytes, header.lod);
    append<uint32_t>(bytes, header.headerSize);
    append<uint32_t>(bytes, header.distribution);
    for (uint64_t bound : header.localMin)
    {
        append<uint64_t>(bytes, bound);
    }
    for (uint64_t bound : header.localMax)
    {
        append<uint64_t>(bytes, bound);
    }
    append<uint32_t>(bytes, uint32_t(header.attributes.size()));
    for (const Attribute& attribute : header.attributes)
    {
        appendAttributeRecord(bytes, attribute);
    }
}

}  // namespace HSPC
