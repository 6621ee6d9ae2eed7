// HSPC node blocks: the "APRN" header, the column payload byte for byte against blocks assembled here from
// the format tables, round trips of every attribute type, and refusal of broken blocks.
#include <gtest/gtest.h>
#include <zlib.h>
#include <zstd.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "hspc/format/AttributeRecord.h"
#include "hspc/format/MortonIndex3D.h"
#include "hspc/format/NodeCompressor.h"
#include "hspc/format/NodeDecompressor.h"
#include "hspc/format/NodeHeader.h"
#include "support/ArithmeticEncoder.h"
#include "support/FuzzCorpus.h"
#include "support/LittleEndianBytes.h"

using namespace HSPC;

namespace
{

using pcp_test::Bytes;
using pcp_test::get;
using pcp_test::put;

void setHeaderSize(Bytes& block, size_t at)
{
    const uint32_t size = uint32_t(block.size());
    std::memcpy(block.data() + at, &size, sizeof(size));
}

Attribute position(uint8_t type = AttributeType::M96)
{
    return {type, AttributeRole::POSITION, "POSITION"};
}

// The header of a version 22 block, field by field from the table.
Bytes handHeader(const std::vector<Attribute>& attributes, uint32_t recordSize, uint64_t count,
                 uint64_t chunkSize, uint64_t payloadSize, uint32_t headerSize)
{
    Bytes bytes{'A', 'P', 'R', 'N'};
    put<uint64_t>(bytes, chunkSize);
    put<uint32_t>(bytes, 22);
    Bytes idBlock;
    put<uint32_t>(idBlock, 22);
    put<uint32_t>(idBlock, recordSize);
    put<uint32_t>(idBlock, uint32_t(attributes.size()));
    Bytes records;
    for (const Attribute& attribute : attributes)
    {
        records.push_back(attribute.type);
        records.push_back(attribute.role);
        put<uint32_t>(records, 0);
        put<uint16_t>(records, uint16_t(attribute.name.size()));
        records.insert(records.end(), attribute.name.begin(), attribute.name.end());
    }
    idBlock.insert(idBlock.end(), records.begin(), records.end());
    put<uint32_t>(bytes, uint32_t(crc32(0, idBlock.data(), uInt(idBlock.size()))));
    put<uint64_t>(bytes, count);
    put<uint64_t>(bytes, payloadSize);
    for (uint64_t v : {0x80000000ull, 0x80000000ull, 0x80000000ull})
        put<uint64_t>(bytes, v);  // node x, y, z
    for (double v : {0.01, 0.01, 0.01})
        put<double>(bytes, v);  // scale
    for (double v : {0.0, 0.0, 0.0})
        put<double>(bytes, v);  // origin
    put<uint32_t>(bytes, 5);    // lod
    put<uint32_t>(bytes, headerSize);
    put<uint32_t>(bytes, 0);  // distribution
    for (int i = 0; i < 6; ++i)
        put<uint64_t>(bytes, 0);  // local box
    put<uint32_t>(bytes, uint32_t(attributes.size()));
    bytes.insert(bytes.end(), records.begin(), records.end());
    return bytes;
}

// A whole block from its groups of planes, each plane given as the bytes it must inflate to.
Bytes handBlock(const std::vector<Attribute>& attributes, uint32_t recordSize, uint64_t count,
                const std::vector<std::vector<Bytes>>& groups)
{
    Bytes payload{100, uint8_t(groups.size())};
    Bytes body;
    for (const std::vector<Bytes>& group : groups)
    {
        put<uint64_t>(payload, body.size());
        for (const Bytes& plane : group)
        {
            Bytes frame(ZSTD_compressBound(plane.size()));
            frame.resize(ZSTD_compress(frame.data(), frame.size(), plane.data(), plane.size(), 1));
            put<uint64_t>(body, frame.size());
            body.insert(body.end(), frame.begin(), frame.end());
        }
    }
    payload.insert(payload.end(), body.begin(), body.end());
    const uint32_t headerSize = uint32_t(handHeader(attributes, recordSize, count, 0, 0, 0).size());
    Bytes block =
        handHeader(attributes, recordSize, count, headerSize + payload.size(), payload.size(), headerSize);
    block.insert(block.end(), payload.begin(), payload.end());
    return block;
}

NodeHeader nodeAt5()
{
    NodeHeader header;
    header.node = {0x80000000ull, 0x80000000ull, 0x80000000ull};
    header.scale = {0.01, 0.01, 0.01};
    header.lod = 5;
    return header;
}

Bytes compress(const std::vector<Attribute>& attributes, const Bytes& records, bool rebase = false,
               NodeHeader header = nodeAt5(), int level = kNodeCompressionLevel)
{
    auto compressor = NodeCompressor::create(attributes, 4096, level);
    Bytes output;
    Bytes scratch;
    EXPECT_TRUE(compressNode(rebase, header, *compressor, records, output, scratch));
    return output;
}

// The planes of group `group` of a block, inflated with zstd alone.
std::vector<Bytes> inflatedPlanes(const Bytes& block, size_t group, size_t planeCount, size_t count)
{
    const size_t payload = get<uint32_t>(block, 112);
    const size_t tableEnd = payload + 2 + 8 * block[payload + 1];
    size_t at = tableEnd + get<uint64_t>(block, payload + 2 + 8 * group);
    std::vector<Bytes> planes;
    for (size_t j = 0; j < planeCount; ++j)
    {
        const uint64_t length = get<uint64_t>(block, at);
        Bytes plane(count + 16);
        plane.resize(ZSTD_decompress(plane.data(), plane.size(), block.data() + at + 8, length));
        planes.push_back(plane);
        at += 8 + length;
    }
    return planes;
}

// Records of an M96 code given as three words, and further bytes.
void putCode(Bytes& records, uint32_t w0, uint32_t w1 = 0, uint32_t w2 = 0)
{
    put<uint32_t>(records, w0);
    put<uint32_t>(records, w1);
    put<uint32_t>(records, w2);
}

std::vector<Bytes> zeroPlanes(size_t planes, size_t count)
{
    return std::vector<Bytes>(planes, Bytes(count, 0));
}

// What a reader of nodes of up to `limit` points (`count` when 0) makes of `block`: `count` records of
// `stride` bytes as `actions` ask for them, or the reason it refused the block.
struct Decoded
{
    bool ok = false;
    Bytes records;
    NodeHeader header;
    std::string error;
};

Decoded decode(const Bytes& block, size_t count, size_t stride, const std::vector<OutputAction>& actions,
               size_t limit = 0)
{
    auto decompressor = NodeDecompressor::create(limit != 0 ? limit : count);
    Decoded d;
    d.records.assign(count * stride, 0xAB);
    d.ok = decompressNodeBlock(block, *decompressor, {d.records, stride, actions}, d.header, printError);
    d.error = decompressor->lastError();
    return d;
}

// Whether the reader refuses `block` for a reason that mentions `reason`.
::testing::AssertionResult refused(const Bytes& block, size_t count, const std::vector<OutputAction>& actions,
                                   const std::string& reason)
{
    const Decoded d = decode(block, count, 64, actions);
    if (d.ok)
        return ::testing::AssertionFailure() << "the block was read";
    if (d.error.find(reason) == std::string::npos)
        return ::testing::AssertionFailure() << "\"" << d.error << "\" lacks \"" << reason << "\"";
    return ::testing::AssertionSuccess();
}

}  // namespace

TEST(HspcNodeHeader, ReadsTheVersionDependentLayouts)
{
    const std::vector<Attribute> attributes{position(),
                                            {AttributeType::U8, AttributeRole::CLASSIFICATION, "C"}};
    Bytes block = handBlock(attributes, 13, 1, {zeroPlanes(12, 1), zeroPlanes(1, 1)});
    NodeHeader header;
    const size_t payloadStart = readNodeHeader(block, header);
    EXPECT_EQ(payloadStart, 172u + 8 + 8 + 8 + 1);
    EXPECT_EQ(header.version, 22u);
    EXPECT_EQ(header.lod, 5u);
    EXPECT_EQ(header.chunkSize, block.size());
    EXPECT_EQ(header.attributes, attributes);
    EXPECT_EQ(header.attributes[1].name, "C");

    // Version 7: no origin, no distribution, a float box in real units; full attribute records.
    Bytes old{'A', 'P', 'R', 'N'};
    put<uint64_t>(old, 0);
    put<uint32_t>(old, 7);
    put<uint32_t>(old, 0);
    put<uint64_t>(old, 3);
    put<uint64_t>(old, 0);
    for (uint64_t v : {8ull, 16ull, 24ull})
        put<uint64_t>(old, v);
    for (double v : {0.5, 0.25, 1.0})
        put<double>(old, v);
    put<uint32_t>(old, 2);  // lod
    const size_t headerSizeAt = old.size();
    put<uint32_t>(old, 0);
    for (float v : {1.2f, 0.6f, 2.0f, 3.1f, 1.3f, 4.0f})
        put<float>(old, v);
    put<uint32_t>(old, 1);
    old.insert(old.end(), {10, 0, 0, 0, 0, 0, 3, 0, 'p', 'o', 's'});
    setHeaderSize(old, headerSizeAt);
    const uint64_t chunk = old.size();
    std::memcpy(old.data() + 4, &chunk, 8);
    ASSERT_EQ(readNodeHeader(old, header), old.size());
    EXPECT_EQ(header.version, 7u);
    EXPECT_EQ(header.origin, (std::array<double, 3>{0, 0, 0}));
    EXPECT_EQ(header.distribution, 0u);
    EXPECT_EQ(header.localMin, (std::array<uint64_t, 3>{2, 2, 2}));
    EXPECT_EQ(header.localMax, (std::array<uint64_t, 3>{7, 6, 5}));
    EXPECT_EQ(header.attributes[0].name, "pos");

    // Version 6: one type byte per attribute, role CUSTOM.
    old[12] = 6;
    old.resize(old.size() - 10);
    setHeaderSize(old, headerSizeAt);
    const uint64_t shorter = old.size();
    std::memcpy(old.data() + 4, &shorter, 8);
    ASSERT_EQ(readNodeHeader(old, header), old.size());
    EXPECT_EQ(header.attributes[0].type, 10);
    EXPECT_EQ(header.attributes[0].role, AttributeRole::CUSTOM);
}

TEST(HspcNodeHeader, RefusesBrokenHeaders)
{
    const std::vector<Attribute> attributes{position()};
    const Bytes good = handBlock(attributes, 12, 1, {zeroPlanes(12, 1)});
    NodeHeader header;
    ASSERT_NE(readNodeHeader(good, header), 0u);
    EXPECT_EQ(readNodeHeader(std::span(good).first(11), header), 0u) << "shorter than a chunk header";
    EXPECT_EQ(readNodeHeader(std::span(good).first(100), header), 0u) << "cut inside the header";
    Bytes bad = good;
    bad[3] = 'T';
    EXPECT_EQ(readNodeHeader(bad, header), 0u) << "wrong tag";
    for (uint8_t version : {3, 23})
    {
        bad = good;
        bad[12] = version;
        EXPECT_EQ(readNodeHeader(bad, header), 0u) << "version " << int(version);
    }
    bad = good;
    bad[4] -= 1;
    EXPECT_EQ(readNodeHeader(bad, header), 0u) << "chunk size below the bytes at hand";
    bad = good;
    bad.push_back(0);
    bad[4] += 1;  // a longer chunk passes the header test, but is not what the reader was given
    std::vector<std::string> messages;
    auto decompressor = NodeDecompressor::create(16);
    EXPECT_FALSE(decompressNodeBlock(std::span(bad).first(good.size()), *decompressor, {}, header,
                                     [&](const std::string& m) { messages.push_back(m); }));
    EXPECT_EQ(messages,
              std::vector<std::string>{"decompress hspc node : input size : " + std::to_string(good.size()) +
                                       " is different than chunk.size : " + std::to_string(good.size() + 1)});
}

TEST(HspcNodeBytes, PositionDeltasArePairSwappedPlanes)
{
    const std::vector<Attribute> attributes{position()};
    // One point: its entry stays at 0. Three points: entries 0 and 1 swap, 2 stays. The third code is below
    // the second in word 0 but above it in word 1: the borrow reaches word 1.
    Bytes one;
    putCode(one, 0x01020304, 5, 6);
    std::vector<Bytes> onePlanes = zeroPlanes(12, 1);
    for (int j = 0; j < 4; ++j)
        onePlanes[j][0] = uint8_t(4 - j);
    onePlanes[4][0] = 5;
    onePlanes[8][0] = 6;
    EXPECT_EQ(compress(attributes, one), handBlock(attributes, 12, 1, {onePlanes}));

    Bytes three;
    putCode(three, 0x10);
    putCode(three, 0x30);
    putCode(three, 0x08, 1);
    std::vector<Bytes> threePlanes = zeroPlanes(12, 3);
    threePlanes[0] = {0x20, 0x10, 0xD8};  // 0x30 - 0x10 of point 1 first, then point 0, then 0x08 - 0x30
    threePlanes[1][2] = threePlanes[2][2] = threePlanes[3][2] = 0xFF;
    threePlanes[4][2] = 0;  // word 1: 1 - 0 - borrow
    const Bytes block = compress(attributes, three);
    EXPECT_EQ(block, handBlock(attributes, 12, 3, {threePlanes}));
    EXPECT_EQ(inflatedPlanes(block, 0, 12, 3), threePlanes);
    EXPECT_EQ(block[get<uint32_t>(block, 112) + 1], 1) << "position only: one group";

    // Two and five points of M192: only the low byte of word 0 moves.
    const std::vector<Attribute> wide{position(AttributeType::M192)};
    for (size_t count : {2u, 5u})
    {
        Bytes records;
        std::vector<Bytes> planes = zeroPlanes(24, count);
        for (size_t i = 0; i < count; ++i)
        {
            put<uint64_t>(records, 3 * i + 1);
            put<uint64_t>(records, 0);
            put<uint64_t>(records, 0);
            planes[0][(i ^ 1) < count ? i ^ 1 : i] = i == 0 ? 1 : 3;
        }
        EXPECT_EQ(compress(wide, records), handBlock(wide, 24, count, {planes})) << count << " points";
    }
}

TEST(HspcNodeBytes, ColoursOfOneTypeFormTheLastGroup)
{
    const std::vector<Attribute> same{position(),
                                      {AttributeType::U8, AttributeRole::R, "R"},
                                      {AttributeType::U16, AttributeRole::INTENSITY, "I"},
                                      {AttributeType::U8, AttributeRole::G, "G"},
                                      {AttributeType::U8, AttributeRole::B, "B"}};
    Bytes records;
    const uint8_t rgb[3][3] = {{10, 20, 30}, {200, 100, 5}, {0, 0, 0}};
    const uint16_t intensity[3] = {1000, 900, 65535};
    for (int i = 0; i < 3; ++i)
    {
        putCode(records, uint32_t(i));
        records.push_back(rgb[i][0]);
        put<uint16_t>(records, intensity[i]);
        records.push_back(rgb[i][1]);
        records.push_back(rgb[i][2]);
    }
    std::vector<Bytes> positionPlanes = zeroPlanes(12, 3);
    positionPlanes[0] = {1, 0, 1};
    // Intensity deltas 1000, -100, 64635: bytes swapped by pairs.
    const std::vector<Bytes> intensityPlanes{{0x9C, 0xE8, 0x7B}, {0xFF, 0x03, 0xFC}};
    // green deltas 20, 80, -100; blue - green 10, -95, 0; red - green -10, 100, 0.
    const std::vector<Bytes> colorPlanes{{80, 20, 156}, {161, 10, 0}, {100, 246, 0}};
    EXPECT_EQ(compress(same, records),
              handBlock(same, 17, 3, {positionPlanes, intensityPlanes, colorPlanes}));

    std::vector<Attribute> differing = same;
    differing[4].type = AttributeType::I8;
    const Bytes block = compress(differing, records);
    EXPECT_EQ(block[get<uint32_t>(block, 112) + 1], 5) << "R, G, B of differing types are ordinary groups";
    // R alone: deltas 10, 190, 56.
    EXPECT_EQ(inflatedPlanes(block, 1, 1, 3), (std::vector<Bytes>{{190, 10, 56}}));
}

namespace
{

// A record of every attribute type, each value derived from the point number, with codes ascending.
template <typename W>
std::vector<Attribute> everyType()
{
    std::vector<Attribute> attributes{position(MortonIndex3D<W>::kAttributeTypeCode)};
    for (uint8_t type = AttributeType::U8; type <= AttributeType::F64; ++type)
        attributes.push_back({type, AttributeRole::CUSTOM, "value" + std::to_string(type)});
    attributes.push_back({AttributeType::U16, AttributeRole::G, "G"});
    attributes.push_back({AttributeType::U16, AttributeRole::B, "B"});
    attributes.push_back({AttributeType::U16, AttributeRole::R, "R"});
    return attributes;
}

template <typename W>
Bytes everyTypeRecords(size_t count, uint32_t recordSize)
{
    Bytes records(count * recordSize);
    uint64_t seed = 0x9E3779B97F4A7C15ull;
    for (size_t i = 0; i < count; ++i)
    {
        const MortonIndex3D<W> code{{W(i * 7919 + 3), W(i / 3), W(0x40000000)}};
        std::memcpy(records.data() + i * recordSize, code.words.data(), sizeof(code.words));
        for (size_t b = sizeof(code.words); b < recordSize; ++b)
        {
            seed = seed * 6364136223846793005ull + 1442695040888963407ull;
            records[i * recordSize + b] = uint8_t(seed >> 56);
        }
    }
    return records;
}

template <typename W>
void expectRoundTrip(size_t count)
{
    const std::vector<Attribute> attributes = everyType<W>();
    const uint32_t size = recordSize(attributes);
    const Bytes records = everyTypeRecords<W>(count, size);
    std::vector<OutputAction> actions;
    const std::vector<uint32_t> offsets = attributeOffsets(attributes);
    for (uint32_t i = 0; i < attributes.size(); ++i)
        actions.push_back({i, offsets[i], attributes[i].type});
    const Decoded d = decode(compress(attributes, records), count, size, actions);
    ASSERT_TRUE(d.ok) << d.error;
    EXPECT_EQ(d.header.version, 22u);
    EXPECT_EQ(d.header.pointCount, count);
    EXPECT_EQ(d.records, records) << count << " points of width " << sizeof(W);
}

}  // namespace

TEST(HspcNodeRoundTrip, EveryTypeAndBothWidths)
{
    // 2065 points: several blocks of the decoder, the last one odd and shorter than its vector steps.
    for (size_t count : {1u, 2u, 3u, 7u, 1000u, 2065u})
    {
        expectRoundTrip<uint32_t>(count);
        expectRoundTrip<uint64_t>(count);
    }
}

TEST(HspcNodeRoundTrip, BatchLevelDecodesToTheSamePoints)
{
    // Sorted codes and a slowly varying intensity with a long-period pattern: data on which zstd's strong
    // levels find matches that its fastest one misses.
    const std::vector<Attribute> attributes = {position(),
                                               {AttributeType::U16, AttributeRole::INTENSITY, ""}};
    const size_t count = 4096;
    Bytes records;
    for (size_t i = 0; i < count; ++i)
    {
        putCode(records, uint32_t(i * 5 + (i * i) % 7), uint32_t(i / 1000));
        put<uint16_t>(records, uint16_t(1000 + (i * 37) % 101 + (i / 97) * (i % 3)));
    }
    const Bytes fast = compress(attributes, records);
    const Bytes strong = compress(attributes, records, false, nodeAt5(), kBatchCompressionLevel);
    EXPECT_NE(strong, fast);
    EXPECT_LT(strong.size(), fast.size());

    std::vector<OutputAction> actions = {{0, 0, AttributeType::M96}, {1, 12, AttributeType::U16}};
    auto decompressor = NodeDecompressor::create(count);
    for (const Bytes* block : {&fast, &strong})
    {
        Bytes decoded(records.size(), 0xAB);
        NodeHeader header;
        ASSERT_TRUE(decompressNodeBlock(*block, *decompressor, {decoded, 14, actions}, header, printError))
            << decompressor->lastError();
        EXPECT_EQ(decoded, records);
    }
}

TEST(HspcNodeRoundTrip, PositionsRelativeToTheAnchor)
{
    // A node at lod 5 below zero on x (its anchor is the corner nearest zero, x = 0), above it on y and z;
    // the points arrive as cells relative to the anchor and come back as integer and float offsets and as
    // single axes.
    const std::vector<Attribute> attributes{position()};
    NodeHeader header = nodeAt5();
    header.node = {0x80000000ull - 32, 0x80000000ull + 64, 0x80000000ull};
    const std::vector<std::array<int32_t, 3>> cells{{-32, 0, 1}, {-31, 5, 2}, {-1, 31, 31}};
    Bytes records;
    for (const auto& cell : cells)
        for (int32_t v : cell)
            put<int32_t>(records, v);
    // Rebased input must come in Morton order; it does for these cells.
    const Bytes block = compress(attributes, records, true, header);
    const std::vector<OutputAction> actions{{0, 0, 13}, {0, 12, 15}, {0, 24, 20}, {0, 32, 10}};
    const size_t stride = 44;
    const Decoded d = decode(block, 3, stride, actions);
    ASSERT_TRUE(d.ok) << d.error;
    const Bytes& decoded = d.records;
    for (size_t i = 0; i < cells.size(); ++i)
    {
        for (unsigned axis = 0; axis < 3; ++axis)
        {
            EXPECT_EQ(get<int32_t>(decoded, i * stride + 4 * axis), cells[i][axis]) << i << " " << axis;
            EXPECT_FLOAT_EQ(get<float>(decoded, i * stride + 12 + 4 * axis), float(cells[i][axis] * 0.01));
        }
        EXPECT_DOUBLE_EQ(get<double>(decoded, i * stride + 24), cells[i][1] * 0.01);
        const auto code = encodeMortonSigned<uint32_t>(cells[i][0], 64 + cells[i][1], cells[i][2]);
        EXPECT_EQ(get<uint32_t>(decoded, i * stride + 32), code.words[0]);
    }

    // Out of order: refused.
    Bytes reversed;
    for (size_t i = cells.size(); i-- > 0;)
        for (int32_t v : cells[i])
            put<int32_t>(reversed, v);
    auto compressor = NodeCompressor::create(attributes, 16);
    Bytes output, scratch;
    NodeHeader again = nodeAt5();
    EXPECT_FALSE(compressNode(true, again, *compressor, reversed, output, scratch));
    EXPECT_FALSE(compressNode(false, again, *compressor, {}, output, scratch));
}

namespace
{

// At the lod of the whole space a decoded axis is the signed cell itself: every bit of every word counts.
template <typename W>
void expectWholeSpaceCells()
{
    const std::vector<Attribute> attributes{position(MortonIndex3D<W>::kAttributeTypeCode)};
    // Random codes over more than one block: their deltas carry and borrow across every word.
    const size_t count = 2500;
    std::vector<MortonIndex3D<W>> codes(count);
    uint64_t seed = 12345;
    for (auto& code : codes)
        for (W& word : code.words)
        {
            seed = seed * 6364136223846793005ull + 1442695040888963407ull;
            word = W(seed >> 17);
        }
    std::sort(codes.begin(), codes.end());
    Bytes records;
    for (const auto& code : codes)
        for (W word : code.words)
            put<W>(records, word);
    NodeHeader header = nodeAt5();
    header.lod = MortonIndex3D<W>::kBitsPerAxis;
    const Bytes block = compress(attributes, records, false, header);
    const std::vector<OutputAction> actions{{0, 0, 14}, {0, 24, 21}};
    const Decoded d = decode(block, count, 32, actions);
    ASSERT_TRUE(d.ok) << d.error;
    const Bytes& decoded = d.records;
    for (size_t i = 0; i < count; ++i)
    {
        const auto cells = decodeMortonSigned(codes[i]);
        for (unsigned axis = 0; axis < 3; ++axis)
            EXPECT_EQ(get<int64_t>(decoded, i * 32 + 8 * axis), int64_t(cells[axis])) << i << " " << axis;
        EXPECT_DOUBLE_EQ(get<double>(decoded, i * 32 + 24), double(cells[2]) * 0.01) << i;
    }
}

}  // namespace

TEST(HspcNodeRoundTrip, WholeSpacePositionsAreSignedCells)
{
    expectWholeSpaceCells<uint32_t>();
    expectWholeSpaceCells<uint64_t>();
}

TEST(HspcNodeBadInput, BrokenPayloadsAreRefused)
{
    const std::vector<Attribute> attributes{position(),
                                            {AttributeType::U8, AttributeRole::CLASSIFICATION, "C"}};
    Bytes records;
    for (uint32_t i = 0; i < 5; ++i)
    {
        putCode(records, i);
        records.push_back(uint8_t(i));
    }
    const Bytes good = compress(attributes, records);
    const size_t payload = get<uint32_t>(good, 112);
    const std::vector<OutputAction> actions{{0, 0, 10}, {1, 12, 0}};
    EXPECT_EQ(decode(good, 5, 13, actions).records, records);
    // Each break of the payload at the byte that holds it: the start of group 1 far beyond the payload, the
    // payload kind, the group count, the length of the first plane.
    const std::pair<std::vector<std::pair<size_t, uint8_t>>, std::string> breaks[] = {
        {{{payload + 2 + 8, 0xF0}}, "group 1 starts past the end"},
        {{{payload, 7}}, "unknown payload kind 7"},
        {{{payload + 1, 3}}, "group count"},
        {{{payload + 18, 0xFF}, {payload + 19, 0xFF}}, "longer than the payload"},
    };
    for (const auto& [bytes, reason] : breaks)
    {
        Bytes bad = good;
        for (const auto& [at, value] : bytes)
            bad[at] = value;
        EXPECT_TRUE(refused(bad, 5, actions, reason));
    }
    // A frame that inflates to 4 bytes where the node has 5 points.
    Bytes bad = handBlock(attributes, 13, 4, {zeroPlanes(12, 4), zeroPlanes(1, 4)});
    const uint64_t five = 5;
    std::memcpy(bad.data() + 20, &five, 8);
    EXPECT_TRUE(refused(bad, 5, actions, "inflates to 4 bytes, not 5"));
    const Decoded tooMany = decode(good, 5, 13, actions, 4);
    EXPECT_FALSE(tooMany.ok);
    EXPECT_NE(tooMany.error.find("above the reader's limit"), std::string::npos) << tooMany.error;
}

TEST(HspcNodeBadInput, ReplaysTheFuzzCorpus)
{
    auto decompressor = NodeDecompressor::create(1024);
    const size_t replayed = pcp_test::replayFuzzCorpus(
        "hspc_node",
        [&](const std::string& bytes, const std::filesystem::path& file)
        {
            const std::span block(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
            NodeHeader header;
            if (readNodeHeader(block, header) == 0 || header.attributes.empty())
                return;
            std::vector<OutputAction> actions;
            const std::vector<uint32_t> offsets = attributeOffsets(header.attributes);
            for (uint32_t i = 0; i < header.attributes.size(); ++i)
                actions.push_back({i, offsets[i], header.attributes[i].type});
            const uint32_t stride = std::max<uint32_t>(1, recordSize(header.attributes));
            Bytes out(size_t(stride) * 1024);
            decompressNodeBlock(block, *decompressor, {out, stride, actions}, header,
                                [](const std::string&) {});
            SUCCEED() << file;
        });
    EXPECT_GT(replayed, 0u);
}

TEST(HspcNodeRoundTrip, StoredTypesWidenOnRead)
{
    // R, G, B of U8 as one colour group, an I16 and an F64: read as wider or float types, each value equal to
    // the stored one converted.
    const std::vector<Attribute> attributes{position(),
                                            {AttributeType::U8, AttributeRole::R, "R"},
                                            {AttributeType::U8, AttributeRole::G, "G"},
                                            {AttributeType::U8, AttributeRole::B, "B"},
                                            {AttributeType::I16, AttributeRole::SCAN_ANGLE, "A"},
                                            {AttributeType::F64, AttributeRole::TIMESTAMP, "T"}};
    const size_t count = 5;
    Bytes records;
    for (uint32_t i = 0; i < count; ++i)
    {
        putCode(records, 3 * i);
        records.insert(records.end(), {uint8_t(250 - 40 * i), uint8_t(7 * i), uint8_t(200 + 11 * i)});
        put<int16_t>(records, int16_t(-30000 + 14000 * int(i)));
        put<double>(records, 1.0e9 + 0.125 * i);
    }
    const Bytes block = compress(attributes, records);
    // R as U16 and F32, G as U64, B as F64, the angle as I64 and F32, the time as F32.
    const std::vector<OutputAction> actions{{1, 0, AttributeType::U16},  {1, 2, AttributeType::F32},
                                            {2, 6, AttributeType::U64},  {3, 14, AttributeType::F64},
                                            {4, 22, AttributeType::I64}, {4, 30, AttributeType::F32},
                                            {5, 34, AttributeType::F32}};
    const size_t stride = 38;
    const Decoded d = decode(block, count, stride, actions);
    ASSERT_TRUE(d.ok) << d.error;
    const Bytes& decoded = d.records;
    for (size_t i = 0; i < count; ++i)
    {
        const uint8_t* record = records.data() + i * 25;
        const size_t at = i * stride;
        EXPECT_EQ(get<uint16_t>(decoded, at), record[12]) << i;
        EXPECT_EQ(get<float>(decoded, at + 2), float(record[12])) << i;
        EXPECT_EQ(get<uint64_t>(decoded, at + 6), record[13]) << i;
        EXPECT_EQ(get<double>(decoded, at + 14), double(record[14])) << i;
        EXPECT_EQ(get<int64_t>(decoded, at + 22), get<int16_t>(records, i * 25 + 15)) << i;
        EXPECT_EQ(get<float>(decoded, at + 30), float(get<int16_t>(records, i * 25 + 15))) << i;
        EXPECT_EQ(get<float>(decoded, at + 34), float(get<double>(records, i * 25 + 17))) << i;
    }

    // No conversion across signedness, from a float to an integer, or to a narrower integer.
    for (const OutputAction& action :
         {OutputAction{1, 0, AttributeType::I16}, OutputAction{4, 0, AttributeType::U32},
          OutputAction{5, 0, AttributeType::I64}, OutputAction{4, 0, AttributeType::I8}})
        EXPECT_TRUE(refused(block, count, {action}, "does not apply to attribute"));
}

namespace
{

// A kind 26 node of seven points: an M96 position, R, G, B of U8 in one colour-triple block and a U16
// intensity, each value its minimum plus an offset coded byte by byte under its own models.
struct Kind26Node
{
    std::vector<Attribute> attributes{position(),
                                      {AttributeType::U8, AttributeRole::R, "R"},
                                      {AttributeType::U8, AttributeRole::G, "G"},
                                      {AttributeType::U8, AttributeRole::B, "B"},
                                      {AttributeType::U16, AttributeRole::INTENSITY, "I"}};
    static constexpr size_t kCount = 7;
    std::vector<uint64_t> minimum{0x100, 10, 20, 30, 1000};
    std::vector<uint64_t> range{0x12345, 200, 200, 200, 60000};
    std::vector<uint32_t> blockKinds{1, 3, 1};

    uint64_t offset(size_t attribute, size_t point) const
    {
        return point + 1 == kCount ? range[attribute]
                                   : (point * (0x2000 + 37 * attribute)) % range[attribute];
    }

    Bytes payload() const
    {
        Bytes bytes{26};
        put<uint64_t>(bytes, kCount);
        for (const std::vector<uint64_t>* table : {&minimum, &range})
        {
            for (size_t a = 0; a < attributes.size(); ++a)
            {
                put<uint64_t>(bytes, (*table)[a]);
                if (a == 0)
                    put<uint32_t>(bytes, 0);  // the position's third word
            }
        }
        std::vector<Bytes> streams;
        size_t first = 0;
        for (uint32_t kind : blockKinds)
        {
            streams.push_back(encodeBlock(first, kind == 2 ? 1 : kind));
            put<uint32_t>(bytes, kind);
            put<uint32_t>(bytes, uint32_t(streams.back().size()));
            first += kind == 2 ? 1 : kind;
        }
        for (const Bytes& stream : streams)
            bytes.insert(bytes.end(), stream.begin(), stream.end());
        return bytes;
    }

    Bytes encodeBlock(size_t first, size_t count) const
    {
        std::vector<std::vector<AdaptiveDataModel>> models;
        for (size_t a = first; a < first + count; ++a)
        {
            const unsigned bytes = unsigned(std::bit_width(range[a]) + 7) / 8;
            models.emplace_back(bytes);
            if (bytes > 0)
                models.back().back() = AdaptiveDataModel(uint32_t(range[a] >> (8 * (bytes - 1))) + 1);
        }
        pcp_test::ArithmeticEncoder encoder;
        for (size_t point = 0; point < kCount; ++point)
            for (size_t a = first; a < first + count; ++a)
                for (size_t b = 0; b < models[a - first].size(); ++b)
                    encoder.encode(models[a - first][b], uint32_t(offset(a, point) >> (8 * b)) & 0xFF);
        return encoder.finish();
    }

    Bytes block() const { return blockOf(payload()); }

    Bytes blockOf(const Bytes& body) const
    {
        const uint32_t headerSize = uint32_t(handHeader(attributes, 17, kCount, 0, 0, 0).size());
        Bytes bytes = handHeader(attributes, 17, kCount, headerSize + body.size(), body.size(), headerSize);
        bytes.insert(bytes.end(), body.begin(), body.end());
        return bytes;
    }
};

}  // namespace

TEST(HspcNodeArithmetic, DecodesEveryBlockKindIntoTheWantedForms)
{
    const Kind26Node node;
    // The code, R, G, B, the intensity as stored and as F32, and the cells relative to the node's corner.
    const std::vector<OutputAction> actions{{0, 0, 10}, {1, 12, 0}, {2, 13, 0}, {3, 14, 0},
                                            {4, 15, 1}, {4, 17, 8}, {0, 21, 13}};
    const size_t stride = 33;
    const Decoded d = decode(node.block(), node.kCount, stride, actions);
    ASSERT_TRUE(d.ok) << d.error;
    const Bytes& decoded = d.records;
    for (size_t i = 0; i < node.kCount; ++i)
    {
        const size_t at = i * stride;
        const uint64_t code = node.minimum[0] + node.offset(0, i);
        EXPECT_EQ(get<uint32_t>(decoded, at), uint32_t(code)) << i;
        EXPECT_EQ(get<uint64_t>(decoded, at + 4), 0u) << i;
        for (size_t a = 1; a <= 3; ++a)
            EXPECT_EQ(decoded[at + 11 + a], node.minimum[a] + node.offset(a, i)) << i << " " << a;
        const uint16_t intensity = uint16_t(node.minimum[4] + node.offset(4, i));
        EXPECT_EQ(get<uint16_t>(decoded, at + 15), intensity) << i;
        EXPECT_EQ(get<float>(decoded, at + 17), float(intensity)) << i;
        const auto axes = decodeMorton(MortonIndex3D<uint32_t>{{uint32_t(code), uint32_t(code >> 32), 0}});
        for (unsigned axis = 0; axis < 3; ++axis)
            EXPECT_EQ(get<int32_t>(decoded, at + 21 + 4 * axis), int32_t(axes[axis] & 31)) << i;
    }
}

TEST(HspcNodeArithmetic, RefusesPayloadsThatDoNotAddUp)
{
    const Kind26Node good;
    const std::vector<OutputAction> actions{{0, 0, 10}, {4, 12, 1}};
    const auto refusedFor =
        [&](const Bytes& block, const std::string& reason, const std::vector<OutputAction>& wanted)
    { EXPECT_TRUE(refused(block, good.kCount, wanted, reason)); };
    Bytes body = good.payload();
    body.push_back(0);
    refusedFor(good.blockOf(body), "sizes add up to " + std::to_string(body.size() - 1), actions);
    body = good.payload();
    body[1] = 6;
    refusedFor(good.blockOf(body), "point count 6 differs", actions);
    Kind26Node kinds = good;
    kinds.blockKinds = {1, 2, 1, 1};
    refusedFor(kinds.block(), "block kind 2", actions);
    Kind26Node flat = good;
    flat.range[4] = 0;
    refusedFor(flat.block(), "range of zero", actions);
    refusedFor(good.block(), "no single-axis output", {{0, 0, 19}});
    // The last block's stream cut by two bytes, its size field and the payload with it: the sizes add up,
    // but the decoder runs out of bytes.
    body = good.payload();
    const size_t lastSizeAt = 1 + 8 + 2 * (12 + 8 * 4) + 8 * 2 + 4;
    const uint32_t lastSize = get<uint32_t>(body, lastSizeAt) - 2;
    std::memcpy(body.data() + lastSizeAt, &lastSize, 4);
    body.resize(body.size() - 2);
    refusedFor(good.blockOf(body), "ends early", actions);

    // Blocks that would decode into more planes than their values have: the position inside a block of
    // three, and a Morton code that is not the position.
    Kind26Node triple = good;
    triple.blockKinds = {3, 1, 1};
    refusedFor(triple.block(), "a block of three is R, G and B of one type", actions);
    Kind26Node wide = good;
    wide.attributes[4].type = AttributeType::M96;
    refusedFor(wide.block(), "block of attribute 4: type M96 is no value of at most eight bytes",
               {{0, 0, 10}});
}

TEST(HspcNodeBadInput, CompressorRefusesAttributesThatHaveNoPlanes)
{
    const Attribute second{AttributeType::M96, AttributeRole::CUSTOM, "second"};
    EXPECT_EQ(NodeCompressor::create({position(), second}, 16), nullptr);
    const std::vector<Attribute> mortonColour{position(),
                                              {AttributeType::M192, AttributeRole::R, "R"},
                                              {AttributeType::M192, AttributeRole::G, "G"},
                                              {AttributeType::M192, AttributeRole::B, "B"}};
    EXPECT_EQ(NodeCompressor::create(mortonColour, 16), nullptr);
    const std::vector<Attribute> wideColour{position(AttributeType::M192),
                                            {AttributeType::F64, AttributeRole::R, "R"},
                                            {AttributeType::F64, AttributeRole::G, "G"},
                                            {AttributeType::F64, AttributeRole::B, "B"}};
    EXPECT_NE(NodeCompressor::create(wideColour, 16), nullptr);
}
