// Which attributes of a data set's points the HSPC importer takes, and where each lies in the records it
// decodes. The attributes are those of a client's layout: x, y and z as three values of the requested type,
// then the stored attributes. Roles the octree side has no use for are dropped, so their groups are never
// inflated.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "core/Export.h"
#include "hspc/format/Attribute.h"

namespace pc_preprocess
{

// One kept attribute: its type and its byte offset in the decoded record.
struct HspcField
{
    uint8_t type = HSPC::AttributeType::UNDEFINED;
    uint32_t offset = 0;
};

struct HspcRoleLayout
{
    // The attributes to decode, in record order, and the size of one record.
    std::vector<HSPC::Attribute> attributes;
    uint32_t recordSize = 0;

    std::optional<HspcField> x, y, z;
    std::optional<HspcField> r, g, b;
    std::optional<HspcField> intensity;
    std::optional<HspcField> classification;
    std::optional<HspcField> normalX, normalY, normalZ;
    std::optional<HspcField> scanId;
    std::optional<HspcField> pointSize;  // custom "TandorelPointSize"
    std::optional<HspcField> normal;     // custom "Normal": a packed normal code

    bool hasColor() const { return r && g && b; }
    bool hasNormals() const { return (normalX && normalY && normalZ) || normal; }
};

// Maps a client layout (as generateAttributeFormat makes it) role by role. `positionType` is the type that
// x, y and z were requested in. Throws the importer's message for missing or mistyped coordinates and for a
// custom "TandorelPointSize" that is not F32 or a "Normal" that is not U16.
PCP_API HspcRoleLayout mapHspcRoles(const std::vector<HSPC::Attribute>& layout, uint8_t positionType);

}  // namespace pc_preprocess
