// Arbitrary bytes as one tree file: loaded as a reader does (header, attributes, body, links, widened
// boxes, centre), then described the way the info file and a data set's checker use it.
#include <string>
#include <vector>

#include "hspc/tree/HspcInfo.h"
#include "hspc/tree/Tree.h"
#include "hspc/tree/TreeGeometry.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    HSPC::Tree tree;
    if (!HSPC::loadTree(std::span<const uint8_t>(data, size), tree, [](const std::string&) {}))
        return 0;
    const std::vector<std::array<uint64_t, 3>> corners = HSPC::nodeCorners(tree);
    std::string json;
    std::string error;
    HSPC::makeHspcInfo(tree, json, error);
    return corners.size() == tree.nodes.size() ? 0 : 1;
}
