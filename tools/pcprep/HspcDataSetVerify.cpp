// pcprep verify on an HSPC data set: whether every node that the full tree names is there, agrees with the
// tree, and decodes, as a query would read it.
#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "hspc/format/JsonObject.h"
#include "hspc/format/NodeBlobName.h"
#include "hspc/format/NodeDecompressor.h"
#include "hspc/tree/SerializeTree.h"
#include "hspc/tree/TreeGeometry.h"
#include "pcprep/CacheTree.h"
#include "pcprep/Command.h"
#include "pcprep/HspcDataSet.h"

namespace pcprep
{
namespace
{

// The most points a node may hold; a tree claiming more is refused before anything is sized by it.
constexpr uint32_t kLargestNode = 0x800000;

class Problems
{
public:
    void add(const std::string& where, const std::string& what)
    {
        std::printf("%s: %s\n", where.c_str(), what.c_str());
        ++m_count;
    }
    uint64_t count() const { return m_count; }

private:
    uint64_t m_count = 0;
};

bool loadInto(HSPC::RootReader& reader, const std::string& name, HSPC::Tree& tree, Problems& problems)
{
    try
    {
        tree = loadHspcTree(reader, name);
        return true;
    }
    catch (const std::exception& e)
    {
        problems.add(name.substr(1), e.what());
        return false;
    }
}

// The reduced tree and the info file describe the same nodes as the full tree.
void checkCompanions(HSPC::RootReader& reader, const HSPC::Tree& full, Problems& problems)
{
    // The reduced tree is "tree.hspc", or named after the tree name that the full tree's header keeps: a pack
    // archive written under a name of its own holds "<name>.hspc".
    std::string reducedName = HSPC::treeBlobName("tree");
    std::vector<uint8_t> probe;
    if (!reader.read(reducedName, probe) && !full.header.name.empty())
        reducedName = HSPC::treeBlobName(full.header.name);
    HSPC::Tree reduced;
    if (loadInto(reader, reducedName, reduced, problems) && reduced.lodNodeCounts != full.lodNodeCounts)
        problems.add(reducedName.substr(1), "its nodes per lod differ from those of queryTree.hspc");

    std::vector<uint8_t> bytes;
    const std::string infoName = HSPC::kInfoName;
    if (!reader.read(infoName, bytes))
    {
        problems.add(infoName.substr(1), "missing or empty");
        return;
    }
    Json::Value info;
    if (!HSPC::parseJsonObject(std::string(bytes.begin(), bytes.end()), info) || !info["tree-header-info"].isObject())
        problems.add(infoName.substr(1), "not JSON with a \"tree-header-info\" object");
    else if (info["tree-header-info"]["point-count"].asUInt64() != full.header.pointCount)
        problems.add(infoName.substr(1), "its point count differs from that of queryTree.hspc");
}

std::vector<HSPC::OutputAction> storedForm(const std::vector<HSPC::Attribute>& attributes)
{
    std::vector<HSPC::OutputAction> actions;
    const std::vector<uint32_t> offsets = HSPC::attributeOffsets(attributes);
    for (uint32_t i = 0; i < attributes.size(); ++i)
        actions.push_back({i, offsets[i], attributes[i].type});
    return actions;
}

// Every node's blob: present, with the header the tree expects, and decoding whole.
void checkNodes(HSPC::RootReader& reader, const HSPC::Tree& tree, Problems& problems)
{
    uint32_t largest = 1;
    for (const HSPC::TreeNode& node : tree.nodes)
        largest = std::max(largest, node.pointCount);
    if (largest > kLargestNode)
    {
        problems.add("queryTree.hspc", "a node counts " + std::to_string(largest) + " points, more than the " +
                                           std::to_string(kLargestNode) + " a node may hold");
        return;
    }
    const auto decompressor = HSPC::NodeDecompressor::create(largest);
    const std::vector<HSPC::Attribute>& attributes = tree.attributes.attributes;
    const std::vector<HSPC::OutputAction> actions = storedForm(attributes);
    const uint32_t stride = std::max<uint32_t>(1, HSPC::recordSize(attributes));
    std::vector<uint8_t> records(size_t(largest) * stride);
    const std::vector<std::array<uint64_t, 3>> corners = HSPC::nodeCorners(tree);
    const std::vector<uint8_t> lods = HSPC::nodeLods(tree);
    std::vector<uint8_t> block;
    for (size_t i = 0; i < tree.nodes.size(); ++i)
    {
        const HSPC::TreeNode& node = tree.nodes[i];
        // A node without points has no block: there is nothing a writer could compress.
        if (node.pointCount == 0)
            continue;
        const std::array<uint64_t, 3>& corner = corners[i];
        const std::string name = HSPC::nodeBlobName(lods[i], corner[0], corner[1], corner[2]);
        const std::string where = name.substr(1);
        block.clear();
        if (!reader.read(name, block))
        {
            problems.add(where, "missing: node " + std::to_string(i) + " of the tree has no blob");
            continue;
        }
        HSPC::NodeHeader header;
        if (HSPC::readNodeHeader(block, header) == 0)
        {
            problems.add(where, "not a node block (\"APRN\" header unreadable)");
            continue;
        }
        std::string disagreement;
        if (header.pointCount != node.pointCount)
            disagreement = std::to_string(header.pointCount) + " points, but the tree says " +
                           std::to_string(node.pointCount);
        else if (header.lod != lods[i])
            disagreement = "lod " + std::to_string(header.lod) + ", but the tree says " + std::to_string(lods[i]);
        else if (header.node != corner)
            disagreement = "its header places it elsewhere than the tree";
        else if (header.attributeId != tree.header.attributeId)
            disagreement = "its attributes differ from the tree's";
        if (!disagreement.empty())
        {
            problems.add(where, disagreement);
            continue;
        }
        std::string error;
        const HSPC::NodeOutput output{std::span(records.data(), size_t(node.pointCount) * stride), stride, actions};
        if (!HSPC::decompressNodeBlock(block, *decompressor, output, header,
                                       [&](const std::string& message) { error = message; }))
            problems.add(where, "does not decode: " + (error.empty() ? decompressor->lastError() : error));
    }
}

}  // namespace

int verifyHspcDataSet(const std::filesystem::path& argument)
{
    Problems problems;
    HspcDataSet dataSet;
    try
    {
        dataSet = openHspcDataSet(argument);
    }
    catch (const std::exception& e)
    {
        problems.add(argument.string(), e.what());
    }
    HSPC::Tree tree;
    if (dataSet.reader && loadInto(*dataSet.reader, HSPC::kQueryTreeName, tree, problems))
    {
        checkCompanions(*dataSet.reader, tree, problems);
        checkNodes(*dataSet.reader, tree, problems);
    }
    if (problems.count() == 0)
    {
        uint64_t points = 0;
        for (const HSPC::TreeNode& node : tree.nodes)
            points += node.pointCount;
        std::printf("data set is sound: %s holding %llu points, every one decoded\n",
                    counted(tree.nodes.size(), "node", "nodes").c_str(), static_cast<unsigned long long>(points));
        return 0;
    }
    std::printf("%s found in %s\n", counted(problems.count(), "problem", "problems").c_str(),
                argument.string().c_str());
    return 1;
}

}  // namespace pcprep
