#include "hspc/tree/TreeAttributes.h"

#include "hspc/format/AttributeRecord.h"
#include "hspc/format/LittleEndian.h"
#include "hspc/tree/Chunk.h"
#include "hspc/tree/TreeHeader.h"

namespace HSPC
{
namespace
{

constexpr char kAttributesTag[5] = "SPCA";

}  // namespace

void appendTreeAttributes(const std::vector<Attribute>& attributes, std::vector<uint8_t>& bytes)
{
    using little_endian::append;
    const uint32_t size = recordSize(attributes);
    const size_t start = beginChunk(bytes, kAttributesTag);
    append<uint32_t>(bytes, kTreeFormatVersion);
    append<uint32_t>(bytes, computeAttributeId(attributes, size));
    append<uint32_t>(bytes, size);
    append<uint32_t>(bytes, uint32_t(attributes.size()));
    for (const Attribute& attribute : attributes)
    {
        appendAttributeRecord(bytes, attribute);
    }
    endChunk(bytes, start);
}

bool readTreeAttributes(FieldReader& reader, TreeAttributes& attributes, std::string& error)
{
    const size_t start = reader.position();
    uint64_t chunkSize = 0;
    if (!readChunkStart(reader, kAttributesTag, chunkSize, error))
    {
        return false;
    }
    attributes.formatVersion = reader.read<uint32_t>();
    attributes.attributeId = reader.read<uint32_t>();
    attributes.recordSize = reader.read<uint32_t>();
    const uint32_t count = reader.read<uint32_t>();
    if (reader.ok() && attributes.formatVersion > kTreeFormatVersion)
    {
        error = "attribute chunk version " + std::to_string(attributes.formatVersion) + " is not supported";
        return false;
    }
    if (!reader.ok() || !readAttributeRecords(reader, attributes.formatVersion, count, attributes.attributes))
    {
        error = "the file ends inside the \"SPCA\" chunk";
        return false;
    }
    return chunkSizeMatches(reader, start, chunkSize, kAttributesTag, error);
}

}  // namespace HSPC
