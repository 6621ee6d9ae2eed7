// The compress job of the distribution for one finished node: its points enter the histograms, and its
// point records are replaced by its compressed block.
#pragma once

#include <array>
#include <vector>

#include "hspc/convert/DistributionNode.h"
#include "hspc/format/AttributeStatistics.h"
#include "hspc/format/Loggers.h"
#include "hspc/format/NodeCompressor.h"

namespace HSPC
{

// Where the data set lies in real units: real = cell * scale + origin per axis.
struct NodePlacement
{
    std::array<double, 3> scale{1.0, 1.0, 1.0};
    std::array<double, 3> origin{};
};

// On success node.data holds the block and node.compressedSize its size. Fails with "Could not compute
// histogram." when the node's bytes are not its point count of the compressor's records, and with "Could not
// compress node." when compressNode fails (a node above the compressor's point limit, for one), both on
// `errorLogger`; the node is left as it was. `scratch` is reused between nodes.
template <typename W>
bool compressDistributionNode(DistributionNode<W>& node, AttributeStatistics& statistics,
                              NodeCompressor& compressor, const NodePlacement& placement,
                              std::vector<uint8_t>& scratch, const LogFunction& errorLogger);

extern template bool compressDistributionNode(DistributionNode<uint32_t>&, AttributeStatistics&,
                                              NodeCompressor&, const NodePlacement&, std::vector<uint8_t>&,
                                              const LogFunction&);
extern template bool compressDistributionNode(DistributionNode<uint64_t>&, AttributeStatistics&,
                                              NodeCompressor&, const NodePlacement&, std::vector<uint8_t>&,
                                              const LogFunction&);

}  // namespace HSPC
