#include "hspc/format/AttributeRecord.h"

#include <zlib.h>

#include <algorithm>
#include <limits>

namespace HSPC
{
namespace
{

// The node format version whose attribute block the id describes.
constexpr uint32_t kAttributeIdVersion = 22;
constexpr uint32_t kFirstVersionWithFullAttributeRecords = 7;
constexpr uint32_t kFirstVersionWithFreePosition = 4;

void appendLittleEndian(std::vector<uint8_t>& bytes, uint64_t value, int byteCount)
{
    for (int i = 0; i < byteCount; ++i)
    {
        bytes.push_back(static_cast<uint8_t>(value >> (8 * i)));
    }
}

}  // namespace

void appendAttributeRecord(std::vector<uint8_t>& bytes, const Attribute& attribute)
{
    const size_t nameLength = std::min<size_t>(attribute.name.size(), std::numeric_limits<uint16_t>::max());
    bytes.push_back(attribute.type);
    bytes.push_back(attribute.role);
    appendLittleEndian(bytes, 0, 4);
    appendLittleEndian(bytes, nameLength, 2);
    bytes.insert(bytes.end(), attribute.name.begin(),
                 attribute.name.begin() + static_cast<ptrdiff_t>(nameLength));
}

bool readAttributeRecords(FieldReader& reader, uint32_t version, uint32_t count,
                          std::vector<Attribute>& attributes)
{
    attributes.clear();
    // Each record takes at least one byte, so a count beyond the bytes left fails inside the loop before the
    // list grows large.
    for (uint32_t i = 0; i < count && reader.ok(); ++i)
    {
        Attribute attribute;
        attribute.type = reader.read<uint8_t>();
        if (version >= kFirstVersionWithFullAttributeRecords)
        {
            attribute.role = reader.read<uint8_t>();
            reader.read<uint32_t>();  // reserved
            const uint16_t nameLength = reader.read<uint16_t>();
            if (!reader.ok() || !reader.readText(nameLength, attribute.name))
            {
                return false;
            }
        }
        attributes.push_back(std::move(attribute));
    }
    if (!reader.ok())
    {
        return false;
    }
    if (version < kFirstVersionWithFreePosition && !attributes.empty())
    {
        attributes.front() = Attribute{AttributeType::M96, AttributeRole::POSITION, "POSITION"};
    }
    return true;
}

uint32_t computeAttributeId(const std::vector<Attribute>& attributes, uint32_t recordSize)
{
    std::vector<uint8_t> block;
    appendLittleEndian(block, kAttributeIdVersion, 4);
    appendLittleEndian(block, recordSize, 4);
    appendLittleEndian(block, attributes.size(), 4);
    for (const Attribute& attribute : attributes)
    {
        appendAttributeRecord(block, attribute);
    }
    // zlib's crc32 is the standard reflected CRC-32 (initial value all ones, final inversion). Attribute
    // blocks are far below the 4 GiB that one call can take.
    return static_cast<uint32_t>(crc32(0L, block.data(), static_cast<uInt>(block.size())));
}

}  // namespace HSPC
