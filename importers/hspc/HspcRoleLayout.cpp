#include "importers/hspc/HspcRoleLayout.h"

#include <stdexcept>
#include <string>

namespace pc_preprocess
{

namespace
{

namespace Role = HSPC::AttributeRole;
namespace Type = HSPC::AttributeType;

void requireCustomType(const HSPC::Attribute& attribute, uint8_t type, const char* typeText)
{
    if (attribute.type != type)
        throw std::runtime_error("HspcImporter ERROR: Custom role " + attribute.name + " must be " + typeText);
}

// The slot of the layout that an attribute fills; nullptr for a role that is dropped.
std::optional<HspcField>* slotOf(HspcRoleLayout& layout, const HSPC::Attribute& attribute)
{
    switch (attribute.role)
    {
        case Role::X: return &layout.x;
        case Role::Y: return &layout.y;
        case Role::Z: return &layout.z;
        case Role::R: return &layout.r;
        case Role::G: return &layout.g;
        case Role::B: return &layout.b;
        case Role::INTENSITY: return &layout.intensity;
        case Role::CLASSIFICATION: return &layout.classification;
        case Role::NormalX: return &layout.normalX;
        case Role::NormalY: return &layout.normalY;
        case Role::NormalZ: return &layout.normalZ;
        case Role::SCAN_INDEX: return &layout.scanId;
        case Role::CUSTOM:
            if (attribute.name == "TandorelPointSize")
            {
                requireCustomType(attribute, Type::F32, "32-bit float");
                return &layout.pointSize;
            }
            if (attribute.name == "Normal")
            {
                requireCustomType(attribute, Type::U16, "16-bit unsigned int");
                return &layout.normal;
            }
            return nullptr;
        default: return nullptr;
    }
}

}  // namespace

HspcRoleLayout mapHspcRoles(const std::vector<HSPC::Attribute>& layout, uint8_t positionType)
{
    HspcRoleLayout mapped;
    for (const HSPC::Attribute& attribute : layout)
    {
        std::optional<HspcField>* slot = slotOf(mapped, attribute);
        // A second attribute of one role would only overwrite the first: the first one counts.
        if (!slot || slot->has_value())
            continue;
        const bool coordinate = attribute.role == Role::X || attribute.role == Role::Y || attribute.role == Role::Z;
        if (coordinate && attribute.type != positionType)
            throw std::runtime_error("HspcImporter ERROR: Did not receive XYZ type requested");
        *slot = HspcField{attribute.type, mapped.recordSize};
        mapped.attributes.push_back(attribute);
        mapped.recordSize += HSPC::typeSize(attribute.type);
    }
    if (!mapped.x || !mapped.y || !mapped.z)
        throw std::runtime_error("HspcImporter ERROR: Points do not contain X, Y & Z coords");
    return mapped;
}

}  // namespace pc_preprocess
