#include "hspc/tree/SerializeTree.h"

#include "hspc/format/AttributeRecord.h"
#include "hspc/tree/HspcInfo.h"
#include "hspc/tree/TreeComment.h"

namespace HSPC
{
namespace
{

bool writeTree(RootWriter& writer, const Tree& tree, TreeForm form, const std::string& name)
{
    std::vector<uint8_t> bytes;
    std::string error;
    return writeTreeFile(tree, form, bytes, error) && writer.write(name, bytes);
}

}  // namespace

std::string treeBlobName(const std::string& treeName)
{
    return "/" + treeName + ".hspc";
}

bool serializeTree(RootWriter& writer, Tree& tree, const std::string& clientJson,
                   const AttributeStatistics& statistics, const std::string& treeName,
                   const TreeOutputLoggers& loggers)
{
    const std::vector<Attribute>& attributes = tree.attributes.attributes;
    tree.header.comment = commentWithStatistics(clientJson, attributes, statistics, loggers.warning, loggers.error);
    tree.header.formatVersion = kTreeFormatVersion;
    // Densities count against the largest node unless the conversion chose another base, as readers of
    // files without the field assume.
    if (tree.header.densityBase == 0)
    {
        tree.header.densityBase = tree.header.maxNodeSize;
    }
    tree.header.attributeId = computeAttributeId(attributes, recordSize(attributes));
    tree.attributes.formatVersion = kTreeFormatVersion;
    tree.attributes.attributeId = tree.header.attributeId;
    tree.attributes.recordSize = recordSize(attributes);

    if (!writeTree(writer, tree, TreeForm::kReduced, treeBlobName(treeName)))
    {
        reportTo(loggers.error, "serializeTree: Failed to serialize tree.");
        return false;
    }
    if (!writeTree(writer, tree, TreeForm::kFull, kQueryTreeName))
    {
        reportTo(loggers.error, "serializeTree: Failed to serialize querytree.");
        return false;
    }
    std::string json;
    std::string error;
    if (!makeHspcInfo(tree, json, error) || !writer.write(kInfoName, std::span(reinterpret_cast<const uint8_t*>(json.data()), json.size())))
    {
        reportTo(loggers.error, "serializeTree: Failed to serialize json info.");
        return false;
    }
    return true;
}

}  // namespace HSPC
