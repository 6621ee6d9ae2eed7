// What one thread needs to read the nodes of a data set: the block's bytes and a decompressor, reused node
// after node so that reading allocates only when a node is larger than any before it.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "hspc/format/NodeDecompressor.h"

namespace HSPC
{

struct NodeReading
{
    std::vector<uint8_t> block;
    std::unique_ptr<NodeDecompressor> decompressor;
};

}  // namespace HSPC
