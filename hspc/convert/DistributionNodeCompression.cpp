#include "hspc/convert/DistributionNodeCompression.h"

namespace HSPC
{

template <typename W>
bool compressDistributionNode(DistributionNode<W>& node, AttributeStatistics& statistics,
                              NodeCompressor& compressor, const NodePlacement& placement,
                              std::vector<uint8_t>& scratch, const LogFunction& errorLogger)
{
    if (node.data.size() != uint64_t(node.pointCount) * compressor.recordSize())
    {
        reportTo(errorLogger, "Could not compute histogram.");
        return false;
    }
    NodeHeader header;
    const std::array<W, 3> corner = decodeMorton(node.index);
    for (unsigned axis = 0; axis < 3; ++axis)
    {
        header.node[axis] = corner[axis];
        header.localMin[axis] = node.localMin[axis];
        header.localMax[axis] = node.localMax[axis];
    }
    header.scale = placement.scale;
    header.origin = placement.origin;
    header.lod = node.lod;
    std::vector<uint8_t>& block = compressor.output();
    if (!compressNode(false, header, compressor, node.data, block, scratch))
    {
        reportTo(errorLogger, "Could not compress node.");
        return false;
    }
    // Counted only once the node is sure to go on: a failed node leaves the histograms as they were.
    statistics.addToHistograms(node.data.data(), node.pointCount);
    node.data.assign(block.begin(), block.end());
    node.compressedSize = uint32_t(block.size());
    return true;
}

template bool compressDistributionNode(DistributionNode<uint32_t>&, AttributeStatistics&, NodeCompressor&,
                                       const NodePlacement&, std::vector<uint8_t>&, const LogFunction&);
template bool compressDistributionNode(DistributionNode<uint64_t>&, AttributeStatistics&, NodeCompressor&,
                                       const NodePlacement&, std::vector<uint8_t>&, const LogFunction&);

}  // namespace HSPC
