// Arbitrary bytes as one HSPC node block: the header parsed, then the payload decoded with every attribute
// wanted in its stored form and the position also as integer, float and single-axis offsets.
#include <algorithm>
#include <string>
#include <vector>

#include "hspc/format/NodeDecompressor.h"

namespace
{

constexpr size_t kPointLimit = 100000;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const auto decompressor = HSPC::NodeDecompressor::create(kPointLimit);
    const std::span<const uint8_t> block(data, size);
    HSPC::NodeHeader header;
    if (HSPC::readNodeHeader(block, header) == 0 || header.attributes.empty() ||
        header.pointCount > kPointLimit)
        return 0;
    const std::vector<uint32_t> offsets = HSPC::attributeOffsets(header.attributes);
    std::vector<HSPC::OutputAction> actions;
    for (uint32_t i = 0; i < header.attributes.size(); ++i)
        actions.push_back({i, offsets[i], header.attributes[i].type});
    const uint32_t recordSize = HSPC::recordSize(header.attributes);
    const bool wide = header.attributes.front().type == 11;
    actions.push_back({0, recordSize, uint8_t(wide ? 14 : 13)});
    actions.push_back({0, recordSize + 24, uint8_t(wide ? 16 : 15)});
    actions.push_back({0, recordSize + 48, uint8_t(19 + size % 3)});
    const size_t stride = size_t(recordSize) + 56;
    std::vector<uint8_t> records(std::max<uint64_t>(header.pointCount, 1) * stride);
    HSPC::decompressNodeBlock(block, *decompressor, {records, stride, actions}, header,
                              [](const std::string&) {});
    return 0;
}
