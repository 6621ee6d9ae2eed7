#include <limits>
#include <numeric>

#include "hspc/format/AttributeRecord.h"
#include "hspc/tree/Tree.h"
#include "hspc/tree/TreeBody.h"
#include "hspc/tree/TreeGeometry.h"

namespace HSPC
{
namespace
{

// The deepest lod of each Morton width: the whole space.
constexpr unsigned kLargestLodOfM96 = 32;
constexpr unsigned kLargestLodOfM192 = 64;

bool countsMatchNodes(const Tree& tree, std::string& error)
{
    const TreeHeader& header = tree.header;
    const size_t lodCount = header.maxLod >= header.minLod ? header.maxLod - header.minLod + 1u : 0u;
    const uint64_t counted = std::accumulate(tree.lodNodeCounts.begin(), tree.lodNodeCounts.end(), uint64_t(0));
    if (tree.lodNodeCounts.size() != lodCount || counted != tree.nodes.size())
    {
        error = "the tree's per-lod node counts do not match its lods " + std::to_string(header.maxLod) + " to " +
                std::to_string(header.minLod) + " and its " + std::to_string(tree.nodes.size()) + " nodes";
        return false;
    }
    return true;
}

bool lodsFitPositions(const Tree& tree, std::string& error)
{
    const std::vector<Attribute>& attributes = tree.attributes.attributes;
    const unsigned largest = !attributes.empty() && attributes.front().type == AttributeType::M192
                                 ? kLargestLodOfM192
                                 : kLargestLodOfM96;
    if (tree.header.maxLod <= largest)
    {
        return true;
    }
    error = "max-lod " + std::to_string(tree.header.maxLod) + " is deeper than the positions' " +
            std::to_string(largest) + " lods";
    return false;
}

bool parseTree(std::span<const uint8_t> bytes, Tree& tree, std::string& error)
{
    FieldReader reader(bytes);
    TreeForm form = TreeForm::kFull;
    if (!readTreeHeader(reader, tree.header, error) || !readTreeAttributes(reader, tree.attributes, error) ||
        !lodsFitPositions(tree, error) || !readTreeBody(reader, tree, form, error))
    {
        return false;
    }
    if (reader.remaining() != 0)
    {
        error = std::to_string(reader.remaining()) + " bytes follow the tree body";
        return false;
    }
    if (!linkChildren(tree, error))
    {
        return false;
    }
    widenParentBoxes(tree);
    tree.center = computeCenter(tree);
    if (tree.nodes.empty())
    {
        // Nothing lies anywhere: a box that any point would widen.
        tree.header.boxMin.fill(std::numeric_limits<double>::max());
        tree.header.boxMax.fill(std::numeric_limits<double>::lowest());
    }
    return true;
}

}  // namespace

bool writeTreeFile(const Tree& tree, TreeForm form, std::vector<uint8_t>& bytes, std::string& error)
{
    if (!countsMatchNodes(tree, error))
    {
        return false;
    }
    TreeHeader header = tree.header;
    header.formatVersion = kTreeFormatVersion;
    header.attributeId = computeAttributeId(tree.attributes.attributes, recordSize(tree.attributes.attributes));
    const size_t start = bytes.size();
    if (!appendTreeHeader(header, bytes, error))
    {
        return false;
    }
    appendTreeAttributes(tree.attributes.attributes, bytes);
    if (!appendTreeBody(tree, form, bytes, error))
    {
        bytes.resize(start);
        return false;
    }
    return true;
}

bool loadTree(std::span<const uint8_t> bytes, Tree& tree, const LogFunction& logError)
{
    std::string error;
    if (parseTree(bytes, tree, error))
    {
        return true;
    }
    if (logError)
    {
        logError("loadTree: " + error);
    }
    return false;
}

}  // namespace HSPC
