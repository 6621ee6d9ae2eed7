// Attributes as bytes, the way node headers and tree files store them:
//
//   offset  size  field
//   0       1     type code
//   1       1     role code
//   2       4     reserved, zero
//   6       2     name length n, unsigned
//   8       n     name bytes, no terminator
//
// All integers little-endian. Files below version 7 store one byte per attribute, the type, and the role
// counts as CUSTOM.
#pragma once

#include <cstdint>
#include <vector>

#include "hspc/format/Attribute.h"
#include "hspc/format/FieldReader.h"

namespace HSPC
{

// Names longer than the 16-bit length field can hold are cut to 65535 bytes.
void appendAttributeRecord(std::vector<uint8_t>& bytes, const Attribute& attribute);

// Fingerprint of an attribute layout, stored in every node so that a reader can tell at once whether a node
// was written with the layout it expects: the CRC-32 of the format version 22, the record size, the attribute
// count (each unsigned 32 bit) and the attribute records.
// Reads `count` records in the layout of format `version` into `attributes`. A list from a file older than
// version 4 has its first attribute replaced by the M96 "POSITION": those files knew no other position.
// False when the records run past the reader's end; the list never grows beyond the bytes at hand.
bool readAttributeRecords(FieldReader& reader, uint32_t version, uint32_t count,
                          std::vector<Attribute>& attributes);

uint32_t computeAttributeId(const std::vector<Attribute>& attributes, uint32_t recordSize);

}  // namespace HSPC
