// The "SPCA" chunk of a tree file: the attribute layout of every point of the data set.
//
//   offset  size  field
//   0       4     "SPCA"
//   4       8     chunk size
//   12      4     format version (22 when written)
//   16      4     attribute id (computeAttributeId)
//   20      4     record size in bytes
//   24      4     attribute count
//   28      ...   attribute records (AttributeRecord.h, in the layout of the chunk's version)
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "hspc/format/Attribute.h"
#include "hspc/format/FieldReader.h"

namespace HSPC
{

struct TreeAttributes
{
    uint32_t formatVersion = 22;
    uint32_t attributeId = 0;
    uint32_t recordSize = 0;
    std::vector<Attribute> attributes;
};

// Appends the chunk as version 22 with the id and record size computed from the attributes.
void appendTreeAttributes(const std::vector<Attribute>& attributes, std::vector<uint8_t>& bytes);

// Parses the chunk at the reader's position; false with the reason in `error` for another tag, a version
// above 22, records running past the end, or a chunk size that differs from the bytes parsed.
bool readTreeAttributes(FieldReader& reader, TreeAttributes& attributes, std::string& error);

}  // namespace HSPC
