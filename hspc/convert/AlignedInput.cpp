#include "hspc/convert/AlignedInput.h"

#include <cmath>
#include <cstdio>

#include "hspc/query/HSPCImporter.h"

namespace HSPC
{
namespace
{

constexpr const char* kAxisNames[3] = {"x", "y", "z"};

std::string exact(double value)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.17g", value);
    return text;
}

std::optional<std::string> gridRefusal(const char* what, const std::array<double, 3>& got,
                                       const std::array<double, 3>& wanted, double tolerance)
{
    for (unsigned axis = 0; axis < 3; ++axis)
    {
        if (!(std::fabs(got[axis] - wanted[axis]) < tolerance))
        {
            return std::string("its ") + what + " on " + kAxisNames[axis] + " is " + exact(got[axis]) +
                   ", the target's is " + exact(wanted[axis]);
        }
    }
    return std::nullopt;
}

std::string describe(const Attribute& attribute)
{
    return "\"" + attribute.name + "\" (" + getRoleName(attribute.role) + ", " + getTypeName(attribute.type) + ")";
}

std::optional<std::string> attributeRefusal(const std::vector<Attribute>& got, const std::vector<Attribute>& wanted)
{
    if (got.empty() || wanted.empty() || got.front().type != wanted.front().type)
    {
        // The position's bytes are the Morton code itself: another width is another layout of every record.
        return "its position is stored as " + (got.empty() ? std::string("nothing") : getTypeName(got.front().type)) +
               ", the target's as " + (wanted.empty() ? std::string("nothing") : getTypeName(wanted.front().type));
    }
    if (got.size() != wanted.size())
    {
        return "it stores " + std::to_string(got.size()) + " attributes, the target " + std::to_string(wanted.size());
    }
    for (std::size_t i = 1; i < got.size(); ++i)
    {
        // Same role, same name and same type: a record of the data set is then byte for byte a record of the
        // target.
        if (!(got[i] == wanted[i]) || got[i].name != wanted[i].name || got[i].type != wanted[i].type)
        {
            return "its attribute " + std::to_string(i) + " is " + describe(got[i]) + ", the target's is " +
                   describe(wanted[i]);
        }
    }
    return std::nullopt;
}

}  // namespace

std::optional<std::string> alignmentRefusal(const DataSetLayout& layout, const RuntimeConfig& target)
{
    // No render voxels are ever made by this system's conversions, so only the box filter can stand in the way.
    if (target.filterBox && !target.progressive)
    {
        // Taken over unsorted, its points would pass no filter.
        return std::string("the target filters points by a box");
    }
    if (layout.hasTransform)
    {
        return std::string("its points are transformed on the way in");
    }
    if (std::optional<std::string> refusal =
            gridRefusal("scale", layout.scale, target.scale, kAlignedScaleTolerance))
    {
        return refusal;
    }
    if (std::optional<std::string> refusal =
            gridRefusal("origin", layout.origin, target.origin, kAlignedOriginTolerance))
    {
        return refusal;
    }
    return attributeRefusal(layout.attributes, target.encodingAttributes);
}

std::optional<AlignedDataSet> alignedDataSetOf(Importer& importer, const RuntimeConfig& target,
                                               std::string& reason)
{
    const HSPCImporter* dataSet = dynamic_cast<const HSPCImporter*>(&importer);
    if (dataSet == nullptr)
    {
        reason = "it is not an HSPC data set";
        return std::nullopt;
    }
    if (!dataSet->isValid())
    {
        reason = "its tree could not be read";
        return std::nullopt;
    }
    const Tree& tree = dataSet->tree();
    const DataSetLayout layout{tree.header.origin, tree.header.scale, tree.attributes.attributes,
                               dataSet->hasTransform()};
    if (std::optional<std::string> refusal = alignmentRefusal(layout, target))
    {
        reason = std::move(*refusal);
        return std::nullopt;
    }
    return AlignedDataSet{&tree, [dataSet](uint32_t node, std::vector<uint8_t>& block, std::string& error) {
                              return dataSet->readNodeBlock(node, block, error);
                          }};
}

}  // namespace HSPC
