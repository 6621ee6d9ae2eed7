#include "support/SyntheticHspcDataSet.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "hspc/format/AttributeStatistics.h"
#include "hspc/format/MortonIndex3D.h"
#include "hspc/format/NodeBlobName.h"
#include "hspc/format/NodeCompressor.h"
#include "hspc/tree/SerializeTree.h"
#include "hspc/tree/TreeGeometry.h"

namespace pcp_test
{
namespace
{

using Morton = HSPC::MortonIndex3D<uint32_t>;

constexpr uint32_t kSignBit = 0x80000000u;
constexpr uint32_t kRecordSize = 14;

// `count` points of the node at `corner` (decoded, biased cells) and `lod`, spread along its diagonal and
// sorted by code; each point's intensity is 1000 times the lod plus its index.
std::vector<uint8_t> nodeRecords(const std::array<uint64_t, 3>& corner, unsigned lod, uint32_t count,
                                 HSPC::TreeNode& node)
{
    const uint32_t edge = 1u << lod;
    std::vector<Morton> codes;
    for (uint32_t i = 0; i < count; ++i)
    {
        const uint32_t step = (i * (edge - 1)) / std::max<uint32_t>(1, count - 1);
        codes.push_back(HSPC::encodeMorton<uint32_t>(uint32_t(corner[0]) + step, uint32_t(corner[1]) + step / 2,
                                                     uint32_t(corner[2]) + (edge - 1 - step)));
    }
    std::sort(codes.begin(), codes.end());
    std::vector<uint8_t> records(size_t(count) * kRecordSize);
    node.min = {~uint64_t(0), ~uint64_t(0), ~uint64_t(0)};
    node.max = {0, 0, 0};
    for (uint32_t i = 0; i < count; ++i)
    {
        std::memcpy(records.data() + i * kRecordSize, codes[i].words.data(), 12);
        const uint16_t intensity = uint16_t(1000 * lod + i);
        std::memcpy(records.data() + i * kRecordSize + 12, &intensity, 2);
        const std::array<uint32_t, 3> cell = HSPC::decodeMorton(codes[i]);
        for (unsigned axis = 0; axis < 3; ++axis)
        {
            node.min[axis] = std::min<uint64_t>(node.min[axis], cell[axis] - corner[axis]);
            node.max[axis] = std::max<uint64_t>(node.max[axis], cell[axis] - corner[axis]);
        }
    }
    node.pointCount = count;
    return records;
}

}  // namespace

SyntheticHspcDataSet writeSyntheticHspcDataSet(HSPC::RootWriter& writer)
{
    SyntheticHspcDataSet dataSet;
    HSPC::Tree& tree = dataSet.tree;
    HSPC::TreeHeader& header = tree.header;
    header.minLod = 3;
    header.maxLod = 4;
    header.nodeSize = 8;
    header.maxNodeSize = 10;
    header.densityBase = 10;
    header.rootOffset = {int64_t(kSignBit), int64_t(kSignBit), int64_t(kSignBit)};
    header.scale = {0.01, 0.01, 0.01};
    header.origin = {1000.0, 2000.0, 50.0};
    header.boxMin = {1000.0, 2000.0, 50.0};
    header.boxMax = {1000.15, 2000.15, 50.15};
    header.pointCount = 18;
    header.timeStamp = 1700000000000;
    header.name = "synthetic";
    tree.attributes.attributes = {{HSPC::AttributeType::M96, HSPC::AttributeRole::POSITION, "POSITION"},
                                  {HSPC::AttributeType::U16, HSPC::AttributeRole::INTENSITY, "INTENSITY"}};
    tree.lodNodeCounts = {1, 2};
    tree.nodes.resize(3);
    tree.nodes[0].childMask = 0x81;
    std::string error;
    EXPECT_TRUE(HSPC::linkChildren(tree, error)) << error;
    const std::vector<uint32_t> counts{6, 5, 7};
    const std::vector<std::array<uint64_t, 3>> corners = HSPC::nodeCorners(tree);
    const std::vector<uint8_t> lods = HSPC::nodeLods(tree);

    auto compressor = HSPC::NodeCompressor::create(tree.attributes.attributes, 16);
    std::vector<uint8_t> block;
    std::vector<uint8_t> scratch;
    for (size_t i = 0; i < tree.nodes.size(); ++i)
    {
        const std::vector<uint8_t> records = nodeRecords(corners[i], lods[i], counts[i], tree.nodes[i]);
        HSPC::NodeHeader node;
        node.node = corners[i];
        node.lod = lods[i];
        node.scale = header.scale;
        node.origin = header.origin;
        node.localMin = tree.nodes[i].min;
        node.localMax = tree.nodes[i].max;
        block.clear();
        EXPECT_TRUE(HSPC::compressNode(false, node, *compressor, records, block, scratch)) << i;
        dataSet.nodeNames.push_back(HSPC::nodeBlobName(lods[i], corners[i][0], corners[i][1], corners[i][2]));
        EXPECT_TRUE(writer.write(dataSet.nodeNames.back(), block)) << dataSet.nodeNames.back();
    }
    HSPC::AttributeStatistics statistics;
    EXPECT_TRUE(serializeTree(writer, tree, R"({"site": "synthetic"})", statistics, "tree",
                              {HSPC::printWarning, HSPC::printError}));
    return dataSet;
}

}  // namespace pcp_test
