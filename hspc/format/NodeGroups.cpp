#include "hspc/format/NodeGroups.h"

#include <algorithm>
#include <optional>

namespace HSPC
{
namespace
{

std::optional<uint32_t> findRole(const std::vector<Attribute>& attributes, uint8_t role)
{
    for (uint32_t i = 0; i < attributes.size(); ++i)
    {
        if (attributes[i].role == role)
        {
            return i;
        }
    }
    return std::nullopt;
}

}  // namespace

NodeGroupLayout nodeGroupLayout(const std::vector<Attribute>& attributes)
{
    NodeGroupLayout layout;
    const auto red = findRole(attributes, AttributeRole::R);
    const auto green = findRole(attributes, AttributeRole::G);
    const auto blue = findRole(attributes, AttributeRole::B);
    const std::vector<uint32_t> offsets = attributeOffsets(attributes);
    if (red && green && blue && attributes[*red].type == attributes[*green].type &&
        attributes[*green].type == attributes[*blue].type && typeSize(attributes[*green].type) > 0)
    {
        layout.colorGroup = true;
        layout.colorSize = typeSize(attributes[*green].type);
        layout.red = *red;
        layout.green = *green;
        layout.blue = *blue;
        layout.redOffset = offsets[*red];
        layout.greenOffset = offsets[*green];
        layout.blueOffset = offsets[*blue];
    }
    for (uint32_t i = 0; i < attributes.size(); ++i)
    {
        const bool inColorGroup =
            layout.colorGroup && (i == layout.red || i == layout.green || i == layout.blue);
        if (!inColorGroup)
        {
            layout.groups.push_back(NodeGroup{i, typeSize(attributes[i].type), false});
        }
    }
    if (layout.colorGroup)
    {
        layout.groups.push_back(NodeGroup{layout.green, 3 * layout.colorSize, true});
    }
    for (const NodeGroup& group : layout.groups)
    {
        layout.widestGroup = std::max(layout.widestGroup, group.planeCount);
    }
    return layout;
}

}  // namespace HSPC
