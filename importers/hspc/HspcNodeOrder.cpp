#include "importers/hspc/HspcNodeOrder.h"

#include <bit>

namespace pc_preprocess
{

namespace
{

// The recursion is as deep as the tree has lods, which a loaded tree bounds by its Morton width.
void visit(const HSPC::Tree& tree, uint32_t index, std::vector<uint32_t>& order)
{
    const HSPC::TreeNode& node = tree.nodes[index];
    if (node.pointCount > 0)
        order.push_back(index);
    if (node.childMask == 0)
        return;
    const uint32_t children = static_cast<uint32_t>(std::popcount(node.childMask));
    for (uint32_t child = 0; child < children; ++child)
        visit(tree, node.link + child, order);
}

}  // namespace

std::vector<uint32_t> hspcNodeOrder(const HSPC::Tree& tree)
{
    std::vector<uint32_t> order;
    order.reserve(tree.nodes.size());
    if (!tree.nodes.empty())
        visit(tree, 0, order);
    return order;
}

}  // namespace pc_preprocess
