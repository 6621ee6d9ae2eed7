// pcprep info on an HSPC data set: what its tree files say about it.
#include <cstdio>
#include <string>

#include "hspc/format/Attribute.h"
#include "hspc/tree/SerializeTree.h"
#include "pcprep/CacheTree.h"
#include "pcprep/Command.h"
#include "pcprep/HspcDataSet.h"

namespace pcprep
{
namespace
{

void printTriple(const char* label, const std::array<double, 3>& values)
{
    std::printf("%-13s %.17g %.17g %.17g\n", label, values[0], values[1], values[2]);
}

std::string lodText(const HSPC::Tree& tree)
{
    std::string text;
    unsigned lod = tree.header.maxLod;
    for (const uint64_t count : tree.lodNodeCounts)
    {
        text += (text.empty() ? "" : ", ") + std::string("lod ") + std::to_string(lod--) + ": " +
                counted(count, "node", "nodes");
    }
    return text.empty() ? "none" : text;
}

std::string attributeText(const std::vector<HSPC::Attribute>& attributes)
{
    std::string text;
    for (const HSPC::Attribute& attribute : attributes)
    {
        const std::string role = HSPC::getRoleName(attribute.role);
        text += (text.empty() ? "" : ", ") + (role.empty() ? "role " + std::to_string(attribute.role) : role) +
                " " + HSPC::getTypeName(attribute.type) + " \"" + attribute.name + "\"";
    }
    return text;
}

}  // namespace

int describeHspcDataSet(const std::filesystem::path& argument)
{
    const HspcDataSet dataSet = openHspcDataSet(argument);
    // A tree file named on the command line is the one described; otherwise the full tree, whose counts are
    // exact, or the reduced one when it is all there is.
    std::string name = HSPC::kQueryTreeName;
    std::vector<uint8_t> probe;
    if (argument.filename() == "tree.hspc" ||
        (!dataSet.reader->read(name, probe) && argument.filename() != "queryTree.hspc"))
        name = HSPC::treeBlobName("tree");
    const HSPC::Tree tree = loadHspcTree(*dataSet.reader, name);
    const HSPC::TreeHeader& header = tree.header;

    std::printf("%-13s %s (%s)\n", "Data set", argument.string().c_str(), dataSet.form.c_str());
    std::printf("%-13s %s (%s)\n", "Tree file", name.substr(1).c_str(),
                name == HSPC::kQueryTreeName ? "full: exact counts and boxes" : "reduced");
    std::printf("%-13s %u\n", "Version", header.formatVersion);
    std::printf("%-13s %llu (%llu filtered out)\n", "Points", static_cast<unsigned long long>(header.pointCount),
                static_cast<unsigned long long>(header.filteredPointCount));
    printTriple("Origin", header.origin);
    printTriple("Scale", header.scale);
    std::printf("%-13s (%.6f, %.6f, %.6f) .. (%.6f, %.6f, %.6f)\n", "Box", header.boxMin[0], header.boxMin[1],
                header.boxMin[2], header.boxMax[0], header.boxMax[1], header.boxMax[2]);
    std::printf("%-13s %s\n", "Lods", lodText(tree).c_str());
    std::printf("%-13s %u points (at most %u; densities count against %u)\n", "Node size", header.nodeSize,
                header.maxNodeSize, header.densityBase);
    std::printf("%-13s %s (%u bytes a point)\n", "Attributes", attributeText(tree.attributes.attributes).c_str(),
                tree.attributes.recordSize);
    if (!tree.nodes.empty())
        printTriple("Centre", tree.center);
    std::printf("%-13s %s\n", "Comment", header.comment.empty() ? "none" : header.comment.c_str());
    return 0;
}

}  // namespace pcprep
