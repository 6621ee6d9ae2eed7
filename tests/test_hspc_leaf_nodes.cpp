// How the points of one leaf go to nodes: the fair division of a take over cells, the distribution of a
// sorted leaf buffer from the upper tree's nodes down to the leaf's finest nodes, and the compression of a
// finished node into a block that decodes back to its points.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <map>
#include <numeric>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "hspc/convert/DistributionNodeCompression.h"
#include "hspc/convert/EqualDistributionTake.h"
#include "hspc/convert/LeafDistribution.h"
#include "hspc/convert/MortonRecords.h"
#include "hspc/format/LittleEndian.h"
#include "hspc/format/NodeDecompressor.h"
#include "support/MessageLog.h"

using namespace HSPC;

namespace
{

// The fair division found the slow way: the highest level that the capped counts stay within, and what is
// left of the total given one point each to the cells above that level, in order.
std::vector<uint32_t> fairDivision(const std::vector<uint32_t>& counts, uint64_t total)
{
    auto cappedSum = [&](uint64_t level)
    {
        uint64_t sum = 0;
        for (uint32_t count : counts)
            sum += std::min<uint64_t>(count, level);
        return sum;
    };
    uint64_t level = 0;
    while (cappedSum(level + 1) <= total && level < total + 1)
        ++level;
    uint64_t rest = total - cappedSum(level);
    std::vector<uint32_t> takes;
    for (uint32_t count : counts)
    {
        uint64_t take = std::min<uint64_t>(count, level);
        if (count > level && rest > 0)
        {
            ++take;
            --rest;
        }
        takes.push_back(uint32_t(take));
    }
    return takes;
}

std::vector<uint32_t> equalTake(const std::vector<uint32_t>& counts, uint64_t total)
{
    std::vector<uint32_t> takes(counts.size(), 0xDEADu);
    EXPECT_TRUE(computeEqualDistributionTake(counts, total, takes)) << total;
    return takes;
}

}  // namespace

TEST(EqualDistributionTake, SmallCellsGiveAllAndTheRestIsSharedEqually)
{
    EXPECT_EQ(equalTake({1, 1, 10}, 6), (std::vector<uint32_t>{1, 1, 4}));
    EXPECT_EQ(equalTake({7, 3, 9, 1}, 20), (std::vector<uint32_t>{7, 3, 9, 1}));
    EXPECT_EQ(equalTake({5, 5, 5}, 7), (std::vector<uint32_t>{3, 2, 2}));
    EXPECT_EQ(equalTake({4, 0, 4}, 0), (std::vector<uint32_t>{0, 0, 0}));

    std::mt19937 random(18);
    for (int round = 0; round < 2000; ++round)
    {
        std::vector<uint32_t> counts(1 + random() % 12);
        for (uint32_t& count : counts)
            count = random() % 4 == 0 ? random() % 3 : random() % 200;
        const uint64_t sum = std::accumulate(counts.begin(), counts.end(), uint64_t(0));
        const uint64_t total = sum == 0 ? 0 : random() % (sum + 1);
        const std::vector<uint32_t> takes = equalTake(counts, total);
        EXPECT_EQ(takes, fairDivision(counts, total)) << "round " << round;
        for (std::size_t i = 0; i < counts.size(); ++i)
            EXPECT_LE(takes[i], counts[i]);
    }
}

TEST(EqualDistributionTake, MoreThanTheCellsHoldFailsWithoutEndingTheProcess)
{
    std::vector<uint32_t> takes(3);
    testing::internal::CaptureStderr();
    EXPECT_FALSE(computeEqualDistributionTake(std::vector<uint32_t>{1, 2, 3}, 7, takes));
    EXPECT_FALSE(computeEqualDistributionTake(std::vector<uint32_t>{}, 1, std::span<uint32_t>{}));
    const std::string printed = testing::internal::GetCapturedStderr();
    const std::string message = "computeEqualDistributionTake: nbOfLeafs is zero: not possible\n.";
    EXPECT_EQ(printed, message + message);
}

namespace
{

// Records as the distribution gets them: a code, a serial number that tells equal positions apart, and an
// intensity.
template <typename W>
constexpr uint32_t kRecordSize = 3 * sizeof(W) + 4 + 2;

template <typename W>
std::vector<Attribute> recordAttributes()
{
    return {{MortonIndex3D<W>::kAttributeTypeCode, AttributeRole::POSITION, "POSITION"},
            {AttributeType::U32, AttributeRole::CUSTOM, "serial"},
            {AttributeType::U16, AttributeRole::INTENSITY, ""}};
}

template <typename W>
struct Leaf
{
    MortonIndex3D<W> index;
    unsigned lod;
    std::vector<uint8_t> records;

    std::size_t size() const { return records.size() / kRecordSize<W>; }
    MortonIndex3D<W> code(std::size_t i) const
    {
        return loadMortonKey<W>(records.data() + i * kRecordSize<W>);
    }
};

// Sorts cells (x, y, z) relative to the corner of the leaf at `lod` whose first cell is `base`.
template <typename W>
Leaf<W> makeLeaf(std::array<W, 3> base, unsigned lod, std::vector<std::array<W, 3>> cells)
{
    Leaf<W> leaf{cellStartAtLod(encodeMorton<W>(base[0], base[1], base[2]), lod), lod, {}};
    std::vector<MortonIndex3D<W>> codes;
    for (const auto& cell : cells)
        codes.push_back(encodeMorton<W>(base[0] + cell[0], base[1] + cell[1], base[2] + cell[2]));
    std::stable_sort(codes.begin(), codes.end());
    leaf.records.resize(codes.size() * kRecordSize<W>);
    for (std::size_t i = 0; i < codes.size(); ++i)
    {
        uint8_t* record = leaf.records.data() + i * kRecordSize<W>;
        storeMortonKey<W>(record, codes[i]);
        little_endian::store<uint32_t>(record + 3 * sizeof(W), uint32_t(i));
        little_endian::store<uint16_t>(record + 3 * sizeof(W) + 4, uint16_t(i * 7));
    }
    return leaf;
}

// Clusters of different density over a leaf of side 2^lod, with some positions repeated.
template <typename W>
Leaf<W> randomLeaf(std::mt19937_64& random, unsigned lod, std::size_t count)
{
    const W side = W(1) << lod;
    const std::array<W, 3> base{W(side * 5), W(side * 3), W(side * 9)};
    std::vector<std::array<W, 3>> cells;
    std::array<W, 3> center{};
    W spread = side;
    for (std::size_t i = 0; i < count; ++i)
    {
        if (i % 300 == 0)
        {
            for (W& axis : center)
                axis = W(random() % side);
            spread = W(1) << (random() % (lod + 1));
        }
        if (!cells.empty() && random() % 10 == 0)
        {
            cells.push_back(cells[random() % cells.size()]);
            continue;
        }
        std::array<W, 3> cell{};
        for (unsigned axis = 0; axis < 3; ++axis)
            cell[axis] = W((center[axis] + random() % spread) % side);
        cells.push_back(cell);
    }
    return makeLeaf<W>(base, lod, cells);
}

template <typename W>
LeafDistributionRequest<W> requestFor(const Leaf<W>& leaf, uint32_t nodeSize)
{
    LeafDistributionRequest<W> request;
    request.records = leaf.records;
    request.recordSize = kRecordSize<W>;
    request.leafIndex = leaf.index;
    request.leafEntryLod = leaf.lod;
    request.takes.fill(nodeSize);
    request.maxNodeSize = nodeSize;
    return request;
}

template <typename W>
std::vector<std::vector<uint8_t>> recordsOf(const DistributionNode<W>& node)
{
    std::vector<std::vector<uint8_t>> records;
    for (std::size_t at = 0; at < node.data.size(); at += kRecordSize<W>)
        records.emplace_back(node.data.begin() + at, node.data.begin() + at + kRecordSize<W>);
    return records;
}

// The points of a node lie in its cell, in Morton order, within the bounds it gives.
template <typename W>
void expectNodeHoldsItsCell(const DistributionNode<W>& node)
{
    ASSERT_EQ(node.data.size(), std::size_t(node.pointCount) * kRecordSize<W>);
    ASSERT_GT(node.pointCount, 0u);
    EXPECT_EQ(node.index, cellStartAtLod(node.index, node.lod));
    const std::array<W, 3> corner = decodeMorton(node.index);
    std::array<W, 3> low{}, high{};
    low.fill(~W(0));
    MortonIndex3D<W> previous{};
    for (const auto& record : recordsOf(node))
    {
        const MortonIndex3D<W> code = loadMortonKey<W>(record.data());
        EXPECT_EQ(cellStartAtLod(code, node.lod), node.index);
        EXPECT_LE(previous, code);
        previous = code;
        const std::array<W, 3> cell = decodeMorton(code);
        for (unsigned axis = 0; axis < 3; ++axis)
        {
            low[axis] = std::min(low[axis], W(cell[axis] - corner[axis]));
            high[axis] = std::max(high[axis], W(cell[axis] - corner[axis]));
        }
    }
    EXPECT_EQ(node.localMin, low);
    EXPECT_EQ(node.localMax, high);
}

template <typename W>
void checkRandomLeaves()
{
    std::mt19937_64 random(sizeof(W));
    for (int round = 0; round < 6; ++round)
    {
        const unsigned lod = 6 + unsigned(random() % 4);
        const Leaf<W> leaf = randomLeaf<W>(random, lod, 3000 + random() % 6000);
        const uint32_t nodeSize = 40 + uint32_t(random() % 200);
        LeafDistributionRequest<W> request = requestFor(leaf, nodeSize);
        // Nodes with points below them get smaller the coarser they are.
        for (unsigned at = 0; at < request.takes.size(); ++at)
            request.takes[at] = std::max<uint32_t>(nodeSize - 4 * at, 10);
        // The upper tree's three nodes above the leaf take a few points from it; the root takes none.
        std::map<unsigned, uint64_t> upper{{lod + 1, 17}, {lod + 2, 5}, {lod + 3, 60}};
        request.upperTake = [&](unsigned at) { return upper.count(at) ? upper[at] : 0; };
        pcp_test::MessageLog log;
        LeafDistribution<W> result;
        ASSERT_TRUE(distributeLeaf(request, result, log.logger())) << log.lines.front();

        // The first point of each position goes to exactly one node; the others are dropped.
        std::multiset<std::vector<uint8_t>> expected;
        for (std::size_t i = 0; i < leaf.size(); ++i)
            if (i == 0 || leaf.code(i) != leaf.code(i - 1))
                expected.emplace(leaf.records.begin() + i * kRecordSize<W>,
                                 leaf.records.begin() + (i + 1) * kRecordSize<W>);
        EXPECT_EQ(result.droppedDuplicates, leaf.size() - expected.size());
        std::multiset<std::vector<uint8_t>> distributed;

        ASSERT_EQ(result.upperPieces.size(), 3u);
        for (const DistributionNode<W>& piece : result.upperPieces)
        {
            expectNodeHoldsItsCell(piece);
            EXPECT_GT(piece.lod, lod);
            EXPECT_EQ(piece.pointCount, upper[piece.lod]);
            EXPECT_EQ(piece.index, cellStartAtLod(leaf.index, piece.lod));
            for (auto& record : recordsOf(piece))
                distributed.insert(record);
        }
        std::set<std::pair<unsigned, MortonIndex3D<W>>> seen;
        for (const DistributionNode<W>& node : result.nodes)
        {
            expectNodeHoldsItsCell(node);
            EXPECT_LE(node.pointCount, nodeSize);
            EXPECT_LE(node.lod, lod);
            EXPECT_GE(node.lod, result.leafLod);
            EXPECT_TRUE(seen.insert({node.lod, node.index}).second) << "one node per cell";
            for (auto& record : recordsOf(node))
                distributed.insert(record);
        }
        EXPECT_EQ(distributed, expected) << "round " << round;
        // A node with nodes below it holds no more than its take.
        for (const DistributionNode<W>& inner : result.nodes)
        {
            const bool hasNodesBelow = std::any_of(
                result.nodes.begin(), result.nodes.end(),
                [&](const auto& node)
                { return node.lod < inner.lod && cellStartAtLod(node.index, inner.lod) == inner.index; });
            EXPECT_TRUE(!hasNodesBelow || inner.pointCount <= request.takes[inner.lod])
                << inner.pointCount << " points at lod " << unsigned(inner.lod);
        }
    }
}

}  // namespace

TEST(LeafDistribution, EveryPointInExactlyOneNodeOfBoundedSize)
{
    checkRandomLeaves<uint32_t>();
    checkRandomLeaves<uint64_t>();
}

TEST(LeafDistribution, TakeIsSpreadOverCellsFairlyAndEvenly)
{
    // In a leaf of side 8: one point in octant 0, one in octant 1, and ten in octant 7 spread over all eight
    // of its sub-cells (two in two of them). Ten cells one level further down are more than the take of 6,
    // so the top node takes from the three octants: 1, 1 and 4.
    std::vector<std::array<uint32_t, 3>> cells{{0, 0, 0}, {4, 0, 0}};
    for (uint32_t k = 0; k < 10; ++k)
        cells.push_back({4 + 2 * (k & 1) + (k >> 3), 4 + 2 * ((k >> 1) & 1), 4 + 2 * ((k >> 2) & 1)});
    const Leaf<uint32_t> leaf = makeLeaf<uint32_t>({64, 64, 64}, 3, cells);
    LeafDistributionRequest<uint32_t> request = requestFor(leaf, 8);
    request.takes[3] = 6;
    LeafDistribution<uint32_t> result;
    pcp_test::MessageLog log;
    ASSERT_TRUE(distributeLeaf(request, result, log.logger()));
    EXPECT_EQ(result.leafLod, 1u);
    ASSERT_EQ(result.nodes.size(), 2u);
    const DistributionNode<uint32_t>& top = result.nodes[0];
    EXPECT_EQ(top.lod, 3u);
    EXPECT_EQ(top.index, leaf.index);
    std::vector<uint32_t> serials;
    for (const auto& record : recordsOf(top))
        serials.push_back(little_endian::load<uint32_t>(record.data() + 12));
    // Serials follow the sorted order: 0 and 1 are the lone points, 2..11 the ten of octant 7, of which the
    // picks are the middles of four equal stretches.
    EXPECT_EQ(serials, (std::vector<uint32_t>{0, 1, 2 + 1, 2 + 3, 2 + 6, 2 + 8}));
    // The rest of octant 7 fits one node.
    EXPECT_EQ(result.nodes[1].lod, 2u);
    EXPECT_EQ(result.nodes[1].pointCount, 6u);
}

TEST(LeafDistribution, EqualPositionsStayInOneCellDownToLodZero)
{
    const std::vector<std::array<uint32_t, 3>> cells(2000, {3, 1, 4});
    const Leaf<uint32_t> leaf = makeLeaf<uint32_t>({256, 0, 512}, 5, cells);
    LeafDistributionRequest<uint32_t> request = requestFor(leaf, 1000);
    request.takes.fill(100);
    request.filterDuplicates = false;

    // Five lods above lod 0 take 100 each; the 1500 left cannot be split further.
    pcp_test::MessageLog log;
    LeafDistribution<uint32_t> failed;
    EXPECT_FALSE(distributeLeaf(request, failed, log.logger()));
    EXPECT_EQ(log.lines, (std::vector<std::string>{"Failed to distribute points",
                                                   "Could not distribute points onto nodes."}));

    // A buffer that ends inside a record fails the same way.
    LeafDistributionRequest<uint32_t> torn = request;
    torn.records = torn.records.first(torn.records.size() - 1);
    torn.maxNodeSize = 5000;
    EXPECT_FALSE(distributeLeaf(torn, failed, log.logger()));
    EXPECT_EQ(log.lines.size(), 4u);

    // Allowed 1500 points a node, lod 0 holds the rest.
    request.maxNodeSize = 1500;
    LeafDistribution<uint32_t> fits;
    ASSERT_TRUE(distributeLeaf(request, fits, log.logger()));
    EXPECT_EQ(fits.leafLod, 0u);
    ASSERT_EQ(fits.nodes.size(), 6u);
    EXPECT_EQ(fits.nodes.back().pointCount, 1500u);

    // With the filter they are one point, and one node.
    request.filterDuplicates = true;
    LeafDistribution<uint32_t> filtered;
    ASSERT_TRUE(distributeLeaf(request, filtered, log.logger()));
    EXPECT_EQ(filtered.droppedDuplicates, 1999u);
    ASSERT_EQ(filtered.nodes.size(), 1u);
    EXPECT_EQ(filtered.nodes[0].lod, 5u);
    EXPECT_EQ(filtered.nodes[0].pointCount, 1u);
}

TEST(LeafDistribution, FewerPointsThanANodeHoldsMakeOneNode)
{
    std::mt19937_64 random(7);
    const Leaf<uint64_t> leaf = randomLeaf<uint64_t>(random, 12, 900);
    pcp_test::MessageLog log;
    LeafDistribution<uint64_t> result;
    ASSERT_TRUE(distributeLeaf(requestFor(leaf, 1000), result, log.logger()));
    ASSERT_EQ(result.nodes.size(), 1u);
    EXPECT_EQ(result.nodes[0].lod, 12u);
    EXPECT_EQ(result.nodes[0].pointCount + result.droppedDuplicates, 900u);
    EXPECT_TRUE(result.upperPieces.empty());
}

namespace
{

template <typename W>
void checkCompressedNodesDecode()
{
    std::mt19937_64 random(3 * sizeof(W));
    const Leaf<W> leaf = randomLeaf<W>(random, 8, 5000);
    const uint32_t nodeSize = 300;
    pcp_test::MessageLog log;
    LeafDistribution<W> result;
    ASSERT_TRUE(distributeLeaf(requestFor(leaf, nodeSize), result, log.logger()));
    ASSERT_GT(result.nodes.size(), 3u);

    const std::vector<Attribute> attributes = recordAttributes<W>();
    HistogramSpec histogram;
    histogram.role = AttributeRole::INTENSITY;
    histogram.type = AttributeType::U16;
    histogram.bucketCount = 4;
    histogram.min = 0;
    histogram.max = 65536;
    histogram.hasMin = histogram.hasMax = true;
    AttributeStatistics statistics;
    ASSERT_TRUE(statistics.initialize(attributes, {histogram}, log.logger()));
    ASSERT_TRUE(statistics.beginHistograms(log.logger()));
    auto compressor = NodeCompressor::create(attributes, nodeSize);
    auto decompressor = NodeDecompressor::create(nodeSize);
    const NodePlacement placement{{0.5, 0.25, 2.0}, {10.0, -20.0, 30.0}};
    std::vector<uint8_t> scratch;
    uint64_t points = 0;
    for (DistributionNode<W>& node : result.nodes)
    {
        const DistributionNode<W> original{node.data,     node.index,    node.pointCount, 0,
                                           node.localMin, node.localMax, node.lod};
        ASSERT_TRUE(
            compressDistributionNode(node, statistics, *compressor, placement, scratch, log.logger()));
        EXPECT_EQ(node.compressedSize, node.data.size());
        points += node.pointCount;

        std::vector<uint8_t> decoded(original.data.size());
        const std::vector<OutputAction> actions{{0, 0, attributes[0].type},
                                                {1, 3 * sizeof(W), AttributeType::U32},
                                                {2, 3 * sizeof(W) + 4, AttributeType::U16}};
        NodeHeader header;
        ASSERT_TRUE(decompressNodeBlock(std::span<const uint8_t>(node.data.data(), node.data.size()),
                                        *decompressor, {decoded, kRecordSize<W>, actions}, header,
                                        log.logger()))
            << decompressor->lastError();
        EXPECT_TRUE(std::equal(decoded.begin(), decoded.end(), original.data.begin(), original.data.end()));
        EXPECT_EQ(header.lod, node.lod);
        EXPECT_EQ(header.pointCount, node.pointCount);
        EXPECT_EQ(header.scale, placement.scale);
        EXPECT_EQ(header.origin, placement.origin);
        const std::array<W, 3> corner = decodeMorton(node.index);
        for (unsigned axis = 0; axis < 3; ++axis)
        {
            EXPECT_EQ(header.node[axis], corner[axis]);
            EXPECT_EQ(header.localMin[axis], node.localMin[axis]);
            EXPECT_EQ(header.localMax[axis], node.localMax[axis]);
        }
    }
    const std::vector<uint64_t>& buckets = statistics.find(attributes[2])->distribution;
    EXPECT_EQ(std::accumulate(buckets.begin(), buckets.end(), uint64_t(0)), points);
    EXPECT_TRUE(log.lines.empty());

    // A node whose bytes are not its points, and one beyond the compressor's limit, are left as they were.
    DistributionNode<W> torn = result.nodes.front();
    torn.data.resize(kRecordSize<W> * 3);
    torn.pointCount = 4;
    EXPECT_FALSE(compressDistributionNode(torn, statistics, *compressor, placement, scratch, log.logger()));
    auto small = NodeCompressor::create(attributes, 2);
    LeafDistribution<W> again;
    ASSERT_TRUE(distributeLeaf(requestFor(leaf, nodeSize), again, log.logger()));
    DistributionNode<W>& big = again.nodes.front();
    const HSPCBuffer<uint8_t> before = big.data;
    testing::internal::CaptureStderr();
    EXPECT_FALSE(compressDistributionNode(big, statistics, *small, placement, scratch, log.logger()));
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(big.data, before);
    EXPECT_EQ(big.compressedSize, 0u);
    EXPECT_EQ(log.lines,
              (std::vector<std::string>{"Could not compute histogram.", "Could not compress node."}));
    EXPECT_EQ(std::accumulate(buckets.begin(), buckets.end(), uint64_t(0)), points);
}

}  // namespace

TEST(DistributionNodeCompression, NodesDecodeBackToTheirPoints)
{
    checkCompressedNodesDecode<uint32_t>();
    checkCompressedNodesDecode<uint64_t>();
}
