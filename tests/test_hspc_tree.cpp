// HSPC tree files: "APRT", "SPCA", "APRR" and "APRF" byte for byte against files assembled here from the
// format tables, old versions with their defaults, what loading derives (links, boxes, centre), the info
// file, serializeTree, the voxel frames, and refusal of broken files.
#include <gtest/gtest.h>
#include <json/json.h>
#include <zstd.h>

#include <cstring>
#include <limits>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "hspc/format/AttributeRecord.h"
#include "hspc/format/NodeBlobName.h"
#include "hspc/tree/HspcInfo.h"
#include "hspc/tree/SerializeTree.h"
#include "hspc/tree/Tree.h"
#include "hspc/tree/TreeBody.h"
#include "hspc/tree/TreeGeometry.h"
#include "hspc/tree/VoxelChunks.h"
#include "support/FuzzCorpus.h"
#include "support/JsonText.h"
#include "support/LittleEndianBytes.h"
#include "support/MessageLog.h"

using namespace HSPC;

namespace
{

using pcp_test::Bytes;
using pcp_test::get;
using pcp_test::put;

void putTag(Bytes& bytes, const char* tag)
{
    for (int i = 0; i < 4; ++i)
        bytes.push_back(uint8_t(tag[i]));
}

void putText(Bytes& bytes, const std::string& text)
{
    put<uint16_t>(bytes, uint16_t(text.size()));
    bytes.insert(bytes.end(), text.begin(), text.end());
}

template <typename T>
void putThree(Bytes& bytes, T a, T b, T c)
{
    put<T>(bytes, a);
    put<T>(bytes, b);
    put<T>(bytes, c);
}

void patchSize(Bytes& bytes, size_t start)
{
    const uint64_t size = bytes.size() - start;
    std::memcpy(bytes.data() + start + 4, &size, 8);
}

Bytes zstdFrame(const Bytes& input)
{
    Bytes frame(ZSTD_compressBound(input.size()));
    frame.resize(ZSTD_compress(frame.data(), frame.size(), input.data(), input.size(), 1));
    return frame;
}

Bytes asBytes(const std::string& text)
{
    return Bytes(text.begin(), text.end());
}

const std::vector<Attribute> kAttributes{{AttributeType::M96, AttributeRole::POSITION, "POSITION"},
                                         {AttributeType::U16, AttributeRole::INTENSITY, "I"}};

// The header that every test tree shares, each field distinct so that a swapped field shows.
TreeHeader sampleHeader()
{
    TreeHeader h;
    h.minLod = 3;
    h.maxLod = 5;
    h.nodeSize = 1000;
    h.maxNodeSize = 1200;
    h.rootOffset = {int64_t(0x80000000), int64_t(0x80000020), int64_t(0x7FFFFFE0)};
    h.boxMin = {-1.5, -2.5, -3.5};
    h.boxMax = {10.25, 20.25, 30.25};
    h.scale = {0.001, 0.002, 0.004};
    h.timeStamp = 1700000123456;
    h.name = "site";
    h.basePath = "/data/site";
    h.comment = R"({"project":"bridge"})";
    h.author = "surveyor";
    h.projectionWkt = "PROJCS[a]";
    h.sourceProjectionWkt = "GEOGCS[b]";
    h.projectionEpsg = 25832;
    h.sourceProjectionEpsg = 4326;
    h.centerProjected = {500.5, 600.5, 70.5};
    h.flag = 1;
    h.pointCount = 0x1'0000'0005;
    h.metaUrl = "https://example.invalid/meta";
    h.filteredPointCount = 17;
    h.revision = 4;
    h.progressive = 1;
    h.origin = {100.0, 200.0, 300.0};
    h.densityBase = 1020;
    return h;
}

// An "APRT" chunk of `version`, field by field from the table; the comment in the form of that version.
Bytes handHeader(uint32_t version, const TreeHeader& f)
{
    Bytes bytes;
    putTag(bytes, "APRT");
    put<uint64_t>(bytes, 0);
    put<uint32_t>(bytes, version);
    put<uint8_t>(bytes, f.minLod);
    put<uint8_t>(bytes, f.maxLod);
    put<uint32_t>(bytes, f.nodeSize);
    put<uint32_t>(bytes, f.maxNodeSize);
    putThree<int64_t>(bytes, f.rootOffset[0], f.rootOffset[1], f.rootOffset[2]);
    putThree<double>(bytes, f.boxMin[0], f.boxMin[1], f.boxMin[2]);
    putThree<double>(bytes, f.boxMax[0], f.boxMax[1], f.boxMax[2]);
    putThree<double>(bytes, f.scale[0], f.scale[1], f.scale[2]);
    put<uint32_t>(bytes, f.attributeId);
    put<uint64_t>(bytes, f.timeStamp);
    putText(bytes, f.name);
    putText(bytes, f.basePath);
    if (version >= 22)
    {
        const Bytes text = asBytes(f.comment);
        const Bytes frame = zstdFrame(text);
        putTag(bytes, "CJSO");
        put<uint8_t>(bytes, 100);
        put<uint64_t>(bytes, frame.size());
        put<uint64_t>(bytes, text.size());
        bytes.insert(bytes.end(), frame.begin(), frame.end());
    }
    else
        putText(bytes, f.comment);
    if (version >= 5)
    {
        putText(bytes, f.author);
        putText(bytes, f.projectionWkt);
        putText(bytes, f.sourceProjectionWkt);
        put<uint32_t>(bytes, f.projectionEpsg);
        put<uint32_t>(bytes, f.sourceProjectionEpsg);
        putThree<double>(bytes, f.centerProjected[0], f.centerProjected[1], f.centerProjected[2]);
        put<uint8_t>(bytes, f.flag);
        put<uint64_t>(bytes, f.pointCount);
    }
    if (version >= 6)
        putText(bytes, f.metaUrl);
    if (version >= 9)
    {
        put<uint64_t>(bytes, f.filteredPointCount);
        put<uint32_t>(bytes, f.revision);
    }
    if (version >= 10)
        put<uint8_t>(bytes, f.progressive);
    if (version >= 12)
        putThree<double>(bytes, f.origin[0], f.origin[1], f.origin[2]);
    if (version >= 13)
        put<uint32_t>(bytes, f.densityBase);
    patchSize(bytes, 0);
    return bytes;
}

Bytes handAttributes(uint32_t version, const std::vector<Attribute>& attributes)
{
    Bytes bytes;
    putTag(bytes, "SPCA");
    put<uint64_t>(bytes, 0);
    put<uint32_t>(bytes, version);
    put<uint32_t>(bytes, computeAttributeId(attributes, recordSize(attributes)));
    put<uint32_t>(bytes, recordSize(attributes));
    put<uint32_t>(bytes, uint32_t(attributes.size()));
    for (const Attribute& attribute : attributes)
    {
        put<uint8_t>(bytes, attribute.type);
        if (version < 7)
            continue;
        put<uint8_t>(bytes, attribute.role);
        put<uint32_t>(bytes, 0);
        putText(bytes, attribute.name);
    }
    patchSize(bytes, 0);
    return bytes;
}

// An "APRR" or "APRF" chunk around `body` in the form of `version`.
Bytes handBodyChunk(const char* tag, uint32_t version, const Bytes& body)
{
    Bytes bytes;
    putTag(bytes, tag);
    put<uint64_t>(bytes, 0);
    put<uint32_t>(bytes, version);
    if (version >= 11)
    {
        const Bytes frame = zstdFrame(body);
        put<uint64_t>(bytes, body.size());
        put<uint64_t>(bytes, frame.size());
        bytes.insert(bytes.end(), frame.begin(), frame.end());
    }
    else
    {
        if (version >= 9)
        {
            put<uint64_t>(bytes, body.size());
            put<uint64_t>(bytes, body.size());
        }
        bytes.insert(bytes.end(), body.begin(), body.end());
    }
    patchSize(bytes, 0);
    return bytes;
}

Bytes concat(std::initializer_list<Bytes> parts)
{
    Bytes all;
    for (const Bytes& part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

// Root at lod 5 with children 1 and 6 at lod 4; child 6 has child 0 at lod 3. Boxes relative to each
// node's corner, maxima inclusive.
Tree sampleTree()
{
    Tree tree;
    tree.header = sampleHeader();
    tree.attributes.attributes = kAttributes;
    tree.lodNodeCounts = {1, 2, 1};
    tree.nodes.resize(4);
    tree.nodes[0] = {1, 400, {0, 0, 0}, {31, 31, 31}, 0x42};
    tree.nodes[1] = {7, 300, {2, 3, 4}, {9, 10, 11}, 0};
    tree.nodes[2] = {3, 0, {0, 1, 1}, {15, 15, 15}, 0x01};
    tree.nodes[3] = {11, 1020, {0, 2, 4}, {6, 7, 7}, 0};
    return tree;
}

using pcp_test::MessageLog;

bool mentions(const MessageLog& log, const std::string& text)
{
    for (const std::string& line : log.lines)
        if (line.find(text) != std::string::npos)
            return true;
    return false;
}

Tree load(const Bytes& bytes, MessageLog* errors = nullptr)
{
    Tree tree;
    MessageLog local;
    MessageLog& sink = errors ? *errors : local;
    EXPECT_TRUE(loadTree(bytes, tree, sink.logger())) << (sink.lines.empty() ? "" : sink.lines.back());
    return tree;
}

bool refused(const Bytes& bytes, const std::string& reason)
{
    Tree tree;
    MessageLog errors;
    const bool loaded = loadTree(bytes, tree, errors.logger());
    EXPECT_FALSE(loaded) << reason;
    EXPECT_EQ(errors.lines.size(), loaded ? 0u : 1u) << reason;
    if (!errors.lines.empty())
    {
        EXPECT_EQ(errors.lines[0].rfind("loadTree: ", 0), 0u) << errors.lines[0];
        EXPECT_NE(errors.lines[0].find(reason), std::string::npos) << errors.lines[0];
    }
    return !loaded;
}

}  // namespace

TEST(HspcTreeBytes, WholeFilesMatchTheTables)
{
    Tree tree = sampleTree();
    tree.nodes[0].pointCount = 401;   // 100.25 / 255 of the base: density 101
    tree.nodes[1].pointCount = 310;   // 77.5: density 78
    tree.nodes[2].pointCount = 0;     // empty: density 0
    tree.nodes[3].pointCount = 2100;  // 525 wraps to 13: density 14
    TreeHeader f = sampleHeader();
    f.attributeId = computeAttributeId(kAttributes, 14);
    const Bytes header = handHeader(22, f);
    const Bytes attributes = handAttributes(22, kAttributes);

    Bytes counts;
    for (uint64_t count : {1, 2, 1})
        put<uint64_t>(counts, count);
    const Bytes masks{0x42, 0x00, 0x01, 0x00};

    Bytes full = concat({counts, masks});
    for (uint32_t count : {401u, 310u, 0u, 2100u})
        put<uint32_t>(full, count);
    full.resize(full.size() + 8, 0);
    for (const TreeNode& node : tree.nodes)
    {
        putThree<uint64_t>(full, node.min[0], node.min[1], node.min[2]);
        putThree<uint64_t>(full, node.max[0], node.max[1], node.max[2]);
    }
    for (uint32_t leaf : {0u, 7u, 0u, 11u})
        put<uint32_t>(full, leaf);

    Bytes reduced = concat({counts, masks, {101, 78, 0, 14}, Bytes(8, 0)});
    // Box bounds in 1/256 of the node's edge: x 8 at lod 5, x 16 at lod 4, x 32 at lod 3.
    const Bytes boxes{0, 0,  0,  248, 248, 248, 32, 48, 64,  144, 160, 176,
                      0, 16, 16, 240, 240, 240, 0,  64, 128, 192, 224, 224};
    reduced = concat({reduced, boxes, Bytes(16, 0)});

    Bytes written;
    std::string error;
    ASSERT_TRUE(writeTreeFile(tree, TreeForm::kFull, written, error)) << error;
    EXPECT_EQ(written, concat({header, attributes, handBodyChunk("APRF", 22, full)}));
    written.clear();
    ASSERT_TRUE(writeTreeFile(tree, TreeForm::kReduced, written, error)) << error;
    EXPECT_EQ(written, concat({header, attributes, handBodyChunk("APRR", 22, reduced)}));
}

TEST(HspcTreeRoundTrip, WrittenTreesReadBackFieldForField)
{
    Tree tree = sampleTree();
    // Beyond the 16-bit length of older versions: only the compressed form keeps it.
    tree.header.comment = R"({"notes":")" + std::string(70000, 'n') + R"("})";
    Bytes bytes;
    std::string error;
    ASSERT_TRUE(writeTreeFile(tree, TreeForm::kFull, bytes, error)) << error;
    // The writer matches the hand-assembled tables byte for byte, so a tree that writes back to the same
    // bytes was read field for field.
    const Tree loaded = load(bytes);
    EXPECT_EQ(loaded.header.comment, tree.header.comment);
    EXPECT_EQ(loaded.header.formatVersion, 22u);
    EXPECT_EQ(loaded.header.attributeId, computeAttributeId(kAttributes, 14));  // the writer derives its own
    EXPECT_EQ(loaded.attributes.recordSize, 14u);
    Bytes again;
    ASSERT_TRUE(writeTreeFile(loaded, TreeForm::kFull, again, error)) << error;
    EXPECT_EQ(again, bytes);

    // The reduced form keeps boxes to 1/256 of a node and counts as densities of the base.
    bytes.clear();
    ASSERT_TRUE(writeTreeFile(tree, TreeForm::kReduced, bytes, error)) << error;
    const Tree reduced = load(bytes);
    for (size_t i = 0; i < tree.nodes.size(); ++i)
    {
        EXPECT_EQ(reduced.nodes[i].min, tree.nodes[i].min) << i;
        EXPECT_EQ(reduced.nodes[i].max, tree.nodes[i].max) << i;
        const uint8_t density = densityOf(tree.nodes[i].pointCount, 1020);
        EXPECT_EQ(reduced.nodes[i].pointCount, countOfDensity(density, 1020)) << i;
        EXPECT_EQ(reduced.nodes[i].link, tree.nodes[i].childMask ? tree.nodes[i].link : 0u) << i;
    }
    EXPECT_EQ(reduced.nodes[2].pointCount, 0u);
    EXPECT_EQ(countOfDensity(255, 1020), 1020u);

    // A box whose minimum lies above its maximum is no box: it is written, and read back, as the whole node.
    tree.nodes[1].min = {5, 0, 0};
    tree.nodes[1].max = {4, 9, 9};
    bytes.clear();
    ASSERT_TRUE(writeTreeFile(tree, TreeForm::kReduced, bytes, error)) << error;
    const Tree whole = load(bytes);
    EXPECT_EQ(whole.nodes[1].min, (std::array<uint64_t, 3>{0, 0, 0}));
    EXPECT_EQ(whole.nodes[1].max, (std::array<uint64_t, 3>{16, 16, 16}));
}

namespace
{

// A root at lod 20 with child 0 at lod 19, in the body layout of `version`. Reduced boxes: root steps
// 4..200, child steps 8..255. Full boxes: root 7..(2^20 - 1), child 9..100. Each parent already holds its
// child, so loading widens nothing.
Bytes versionBody(const char* tag, uint32_t version)
{
    const bool reduced = std::string(tag) == "APRR";
    Bytes body;
    put<uint64_t>(body, 1);
    put<uint64_t>(body, 1);
    body.insert(body.end(), {0x01, 0x00});
    if (version < 9)
    {
        body.insert(body.end(), {0xEE, 0xEE, 4, 4, 4, 200, 200, 200});
        body.insert(body.end(), {0xEE, 0xEE, 8, 8, 8, 255, 255, 255});
        return body;
    }
    if (reduced)
        body.insert(body.end(), {200, 0});
    else
    {
        put<uint32_t>(body, 900);
        put<uint32_t>(body, 321);
    }
    body.resize(body.size() + 4, 0);
    if (reduced)
        body.insert(body.end(), {4, 4, 4, 200, 200, 200, 8, 8, 8, 255, 255, 255});
    else
    {
        putThree<uint64_t>(body, 7, 7, 7);
        putThree<uint64_t>(body, (1u << 20) - 1, (1u << 20) - 1, (1u << 20) - 1);
        putThree<uint64_t>(body, 9, 9, 9);
        putThree<uint64_t>(body, 100, 100, 100);
    }
    put<uint32_t>(body, 0);
    put<uint32_t>(body, reduced ? 0 : 55);
    return body;
}

Bytes versionFile(uint32_t version, const char* tag, const TreeHeader& fields)
{
    TreeHeader f = fields;
    f.minLod = 19;
    f.maxLod = 20;
    return concat({handHeader(version, f), handAttributes(version, kAttributes),
                   handBodyChunk(tag, version, versionBody(tag, version))});
}

}  // namespace

TEST(HspcTreeVersions, OldFilesReadWithTheirDefaults)
{
    const TreeHeader f = sampleHeader();
    const uint64_t edge19 = uint64_t(1) << 19;
    const uint64_t edge20 = uint64_t(1) << 20;

    // Version 4: no projection block, one type byte per attribute, 8-byte boxes, no point sections.
    {
        const Tree tree = load(versionFile(4, "APRR", f));
        const TreeHeader& h = tree.header;
        EXPECT_EQ(h.formatVersion, 4u);
        EXPECT_EQ(h.author, "unknown");
        EXPECT_TRUE(h.projectionWkt.empty() && h.sourceProjectionWkt.empty() && h.metaUrl.empty());
        EXPECT_EQ(h.projectionEpsg + h.sourceProjectionEpsg, 0u);
        EXPECT_EQ(h.centerProjected, (std::array<double, 3>{-666.0, -666.0, -666.0}));
        EXPECT_EQ(h.flag + h.pointCount + h.filteredPointCount + h.revision + h.progressive, 0u);
        EXPECT_EQ(h.origin, h.boxMin);
        EXPECT_EQ(h.densityBase, f.maxNodeSize);
        const Json::Value comment = pcp_test::parseJson(h.comment);
        EXPECT_TRUE(pcp_test::holdsJson(comment, R"({"name": "site", "base-path": "/data/site",
            "comment": "{\"project\":\"bridge\"}", "author": "unknown"})"));
        EXPECT_FALSE(comment.isMember("projection-epsg"));
        ASSERT_EQ(tree.attributes.attributes.size(), 2u);
        EXPECT_EQ(tree.attributes.attributes[1].type, AttributeType::U16);
        EXPECT_EQ(tree.attributes.attributes[1].role, AttributeRole::CUSTOM);
        // Each node counts 99/255 of the base; maxima two steps up below version 18.
        ASSERT_EQ(tree.nodes.size(), 2u);
        EXPECT_EQ(tree.nodes[1].pointCount, 465u);
        EXPECT_EQ(tree.nodes[0].min[0], 4 * edge20 / 256);
        EXPECT_EQ(tree.nodes[0].max[0], 202 * edge20 / 256);
        EXPECT_EQ(tree.nodes[1].max[2], edge19);
    }
    // Version 8: projections and meta URL now stored, and rebuilt into the comment; body as version 4.
    {
        const Tree tree = load(versionFile(8, "APRF", f));
        EXPECT_TRUE(pcp_test::holdsJson(pcp_test::parseJson(tree.header.comment),
                                        R"({"author": "surveyor", "projection-wkt": "PROJCS[a]",
            "source-projection-wkt": "GEOGCS[b]", "meta-url": "https://example.invalid/meta",
            "projection-epsg": 25832, "source-projection-epsg": 4326})"));
        EXPECT_EQ(tree.header.pointCount, f.pointCount);
        EXPECT_EQ(tree.header.filteredPointCount, 0u);
        EXPECT_EQ(tree.nodes[0].pointCount, 465u);
    }
    // Version 9: plain body with its sizes; every density reads as 99; full maxima one higher.
    {
        const Tree reduced = load(versionFile(9, "APRR", f));
        EXPECT_EQ(reduced.nodes[0].pointCount, 465u);
        EXPECT_EQ(reduced.nodes[1].pointCount, 465u);  // stored 0, still 99
        EXPECT_EQ(reduced.header.filteredPointCount, f.filteredPointCount);
        EXPECT_EQ(reduced.header.progressive, 0u);
        const Tree full = load(versionFile(9, "APRF", f));
        EXPECT_EQ(full.nodes[1].pointCount, 321u);
        EXPECT_EQ(full.nodes[1].min[0], 9u);
        EXPECT_EQ(full.nodes[1].max[0], 101u);
        EXPECT_EQ(full.nodes[1].link, 55u);
    }
    // Version 11: zstd body; densities are the node's own; full maxima one higher, at most 2^lod - 1.
    {
        const Tree reduced = load(versionFile(11, "APRR", f));
        EXPECT_EQ(reduced.nodes[0].pointCount, countOfDensity(200, f.maxNodeSize));
        EXPECT_EQ(reduced.nodes[1].pointCount, 0u);
        EXPECT_EQ(reduced.header.progressive, f.progressive);
        EXPECT_EQ(reduced.header.origin, reduced.header.boxMin);
        const Tree full = load(versionFile(11, "APRF", f));
        EXPECT_EQ(full.nodes[0].max[1], edge20 - 1);
        EXPECT_EQ(full.nodes[1].max[1], 101u);
    }
    // Version 12: the origin is stored and full maxima are inclusive as they stand.
    {
        const Tree full = load(versionFile(12, "APRF", f));
        EXPECT_EQ(full.header.origin, (std::array<double, 3>{100.0, 200.0, 300.0}));
        EXPECT_EQ(full.header.densityBase, f.maxNodeSize);
        EXPECT_EQ(full.nodes[1].max[2], 100u);
        const Tree reduced = load(versionFile(12, "APRR", f));
        EXPECT_EQ(reduced.nodes[0].max[0], 202 * edge20 / 256);
    }
    // Version 18: a reduced maximum is the top of its own step.
    {
        const Tree reduced = load(versionFile(18, "APRR", f));
        EXPECT_EQ(reduced.header.densityBase, f.densityBase);
        EXPECT_EQ(reduced.nodes[0].min[0], 4 * edge20 / 256);
        EXPECT_EQ(reduced.nodes[0].max[0], 201 * edge20 / 256);
        EXPECT_EQ(reduced.nodes[1].max[0], edge19);
        EXPECT_EQ(reduced.nodes[0].pointCount, countOfDensity(200, f.densityBase));
    }
    // Version 19: the comment is the client's JSON as stored, in its 16-bit form.
    {
        const Tree tree = load(versionFile(19, "APRF", f));
        EXPECT_EQ(tree.header.comment, f.comment);
        TreeHeader longest = f;
        longest.comment = std::string(65535, 'c');
        EXPECT_EQ(load(versionFile(21, "APRF", longest)).header.comment, longest.comment);
    }
    // Attribute lists older than version 4 hold no position: it is the Morton code, in front of the others.
    const std::vector<Attribute> stored{{AttributeType::F64, AttributeRole::X, "X"},
                                        {AttributeType::U8, AttributeRole::R, "R"}};
    const Tree v3 =
        load(concat({handHeader(22, f), handAttributes(3, stored), handBodyChunk("APRF", 22, Bytes(24, 0))}));
    ASSERT_EQ(v3.attributes.attributes.size(), 2u);
    EXPECT_EQ(v3.attributes.attributes[0],
              (Attribute{AttributeType::M96, AttributeRole::POSITION, "POSITION"}));
    EXPECT_EQ(v3.attributes.attributes[1].type, AttributeType::U8);
    EXPECT_TRUE(v3.nodes.empty());
    // Version 3 and 23 are outside what anyone wrote.
    Bytes old = versionFile(4, "APRF", f);
    old[12] = 3;
    refused(old, "version 3 is not supported");
    Bytes future = versionFile(22, "APRF", f);
    future[12] = 23;
    refused(future, "version 23 is not supported");
}

TEST(HspcTreeLoading, LinksBoxesAndCentreComeFromTheMasks)
{
    Tree tree = sampleTree();
    // A fourth lod under node 3, deeper than the centre looks, with many points.
    tree.header.minLod = 2;
    tree.lodNodeCounts = {1, 2, 1, 1};
    tree.nodes[3].childMask = 0x80;
    tree.nodes.push_back({9, 60000, {0, 0, 0}, {3, 3, 3}, 0});
    // Parents smaller than their children; inner links that the masks overrule.
    tree.nodes[0].min = {10, 10, 10};
    tree.nodes[0].max = {12, 12, 12};
    tree.nodes[0].pointCount = 500;
    tree.nodes[1].pointCount = 0;
    tree.nodes[2].min = {5, 5, 5};
    tree.nodes[2].max = {6, 6, 6};
    tree.nodes[3].pointCount = 0;
    tree.nodes[2].link = 99;
    Bytes bytes;
    std::string error;
    ASSERT_TRUE(writeTreeFile(tree, TreeForm::kFull, bytes, error)) << error;
    const Tree loaded = load(bytes);
    EXPECT_EQ(loaded.nodes[0].link, 1u);
    EXPECT_EQ(loaded.nodes[2].link, 3u);
    EXPECT_EQ(loaded.nodes[3].link, 4u);
    EXPECT_EQ(loaded.nodes[1].link, 7u);  // a leaf keeps its stored value
    // Node 3 (child 7 of its parent, edge 4 at lod 2) widens node 3 to (4, 4, 4)..(7, 7, 7) and node 2
    // to (0, 2, 4)..(6, 7, 7) around its child 0; the root takes child 1 (x + 16) and child 6 (y, z + 16).
    EXPECT_EQ(loaded.nodes[3].min, (std::array<uint64_t, 3>{0, 2, 4}));
    EXPECT_EQ(loaded.nodes[3].max, (std::array<uint64_t, 3>{7, 7, 7}));
    EXPECT_EQ(loaded.nodes[2].min, (std::array<uint64_t, 3>{0, 2, 4}));
    EXPECT_EQ(loaded.nodes[2].max, (std::array<uint64_t, 3>{7, 7, 7}));
    EXPECT_EQ(loaded.nodes[0].min, (std::array<uint64_t, 3>{0, 3, 4}));
    EXPECT_EQ(loaded.nodes[0].max, (std::array<uint64_t, 3>{25, 23, 23}));
    // Only the root has points near the top: the centre is its box's, from the corner cells
    // (0, 32, -32) of the root offset, in real units.
    EXPECT_NEAR(loaded.center[0], 100.0 + 12.5 * 0.001, 1e-9);
    EXPECT_NEAR(loaded.center[1], 200.0 + (32 + 13.0) * 0.002, 1e-9);
    EXPECT_NEAR(loaded.center[2], 300.0 + (-32 + 13.5) * 0.004, 1e-9);
    const std::vector<std::array<uint64_t, 3>> corners = nodeCorners(loaded);
    EXPECT_EQ(corners[4][0] - corners[0][0], 0u + 4);
    EXPECT_EQ(corners[4][1] - corners[0][1], 16u + 4);
    EXPECT_EQ(nodeBlobName(2, corners[4][0], corners[4][1], corners[4][2]),
              "/2/1/L2X80000004Y80000034Z7ffffff4.apr");
    // A node's blob lies in the folder of its lod and of its column (x >> lod) & 255: 0x1234 >> 3 = 0x246,
    // of which 0x46 = 70. The whole space of 64-bit positions is one column.
    EXPECT_EQ(nodeBlobName(3, 0x1234, 0xab, 0xcd), "/3/70/L3X1234YabZcd.apr");
    EXPECT_EQ(nodeBlobName(64, ~uint64_t(0), 0, 1), "/64/0/L64XffffffffffffffffY0Z1.apr");

    // No nodes: no centre and a box that any point widens.
    Tree empty = sampleTree();
    empty.lodNodeCounts = {0, 0, 0};
    empty.nodes.clear();
    bytes.clear();
    ASSERT_TRUE(writeTreeFile(empty, TreeForm::kReduced, bytes, error)) << error;
    const Tree none = load(bytes);
    EXPECT_EQ(none.center, (std::array<double, 3>{-666.6, -666.6, -666.6}));
    EXPECT_GT(none.header.boxMin[0], none.header.boxMax[0]);
    EXPECT_EQ(none.header.boxMin[2], std::numeric_limits<double>::max());
}

TEST(HspcTreeBadInput, BrokenFilesAreRefusedWithTheReason)
{
    const Tree tree = sampleTree();
    Bytes good;
    std::string error;
    ASSERT_TRUE(writeTreeFile(tree, TreeForm::kFull, good, error)) << error;
    const uint64_t aprtSize = get<uint64_t>(good, 4);
    const uint64_t spcaSize = get<uint64_t>(good, aprtSize + 4);
    const size_t bodyAt = size_t(aprtSize + spcaSize);
    ASSERT_LT(bodyAt, good.size());

    // Every truncation fails cleanly.
    for (size_t length = 0; length < good.size(); ++length)
    {
        Tree partial;
        EXPECT_FALSE(loadTree(Bytes(good.begin(), good.begin() + ptrdiff_t(length)), partial, nullptr))
            << length;
    }
    auto withU64 = [&](size_t at, uint64_t value)
    {
        Bytes bad = good;
        std::memcpy(bad.data() + at, &value, 8);
        return bad;
    };
    refused(withU64(4, aprtSize + 1), "\"APRT\" chunk says it is");
    refused(withU64(4, aprtSize - 1), "\"APRT\" chunk says it is");
    refused(withU64(aprtSize + 4, spcaSize + 2), "\"SPCA\" chunk says it is");
    refused(withU64(bodyAt + 24, uint64_t(1) << 62), "runs past the end of the file");
    refused(withU64(bodyAt + 16, uint64_t(1) << 40), "inflates to");
    refused(withU64(bodyAt + 16, 10), "more than the 10 bytes declared");
    Bytes trailing = good;
    trailing.push_back(0);
    refused(trailing, "1 bytes follow the tree body");
    Bytes tag = good;
    tag[bodyAt + 3] = 'X';
    refused(tag, "expected an \"APRR\" or \"APRF\" chunk");

    // Counts that lie, in a plain version 9 body where they can be set at will.
    const TreeHeader f = sampleHeader();
    Bytes body = versionBody("APRF", 9);
    std::memcpy(body.data(), "\xff\xff\xff\xff\xff\xff\xff\x7f", 8);
    refused(concat({handHeader(9, f), handAttributes(9, kAttributes), handBodyChunk("APRF", 9, body)}),
            "counts more nodes");
    body = versionBody("APRF", 9);
    body[16] = 0x03;  // the root names two children, the lod below has one node
    TreeHeader deep = f;
    deep.minLod = 19;
    deep.maxLod = 20;
    refused(concat({handHeader(9, deep), handAttributes(9, kAttributes), handBodyChunk("APRF", 9, body)}),
            "name 2 children, but the lod below has 1");
    deep.maxLod = 40;  // beyond the 32 lods of M96 positions
    refused(concat({handHeader(12, deep), handAttributes(12, kAttributes), handBodyChunk("APRF", 12, body)}),
            "deeper than the positions' 32 lods");
    body.insert(body.end(), {1, 2, 3});
    deep.maxLod = 20;
    refused(concat({handHeader(9, deep), handAttributes(9, kAttributes), handBodyChunk("APRF", 9, body)}),
            "3 bytes more than its nodes");
    // A comment frame that is not zstd.
    Bytes comment = handHeader(22, f);
    const size_t commentAt = 134 + 2 + f.name.size() + 2 + f.basePath.size();
    ASSERT_EQ(std::string(comment.begin() + ptrdiff_t(commentAt), comment.begin() + ptrdiff_t(commentAt) + 4),
              "CJSO");
    comment[commentAt + 21] ^= 0xFF;
    refused(concat({comment, handAttributes(22, kAttributes), handBodyChunk("APRF", 22, Bytes(24, 0))}),
            "tree comment: ");
}

TEST(HspcTreeBadInput, ReplaysTheFuzzCorpus)
{
    const size_t replayed = pcp_test::replayFuzzCorpus(
        "hspc_tree",
        [](const std::string& bytes, const std::filesystem::path& file)
        {
            Tree tree;
            const bool loaded = loadTree(
                std::span(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()), tree, nullptr);
            if (loaded)
            {
                EXPECT_EQ(nodeCorners(tree).size(), tree.nodes.size()) << file;
            }
        });
    EXPECT_GT(replayed, 0u);
}

namespace
{

// A blob store in memory that records the order of writes and can fail the n-th one.
class MemoryBlobs : public RootWriter
{
public:
    std::map<std::string, Bytes> blobs;
    std::vector<std::string> order;
    int failAt = -1;

    bool write(const std::string& name, std::span<const uint8_t> bytes) override
    {
        if (int(order.size()) == failAt)
            return false;
        order.push_back(name);
        blobs[name].assign(bytes.begin(), bytes.end());
        return true;
    }
    std::string location() const override { return "memory"; }
    bool remove(const std::string& name) override { return blobs.erase(name) == 1; }
};

}  // namespace

TEST(HspcSerializeTree, WritesBothTreesAndTheInfoInOrder)
{
    Tree tree = sampleTree();
    MemoryBlobs store;
    MessageLog warnings;
    MessageLog errors;
    AttributeStatistics none;
    ASSERT_TRUE(serializeTree(store, tree, R"({"project": "bridge", "max-lod": 9})", none, "tree",
                              {warnings.logger(), errors.logger()}));
    EXPECT_EQ(store.order, (std::vector<std::string>{"/tree.hspc", "/queryTree.hspc", "/hspcInfo.json"}));
    EXPECT_TRUE(
        mentions(errors, "serializeTree: could not add field with key=max-lod. This key is reserved."));

    const Tree reduced = load(store.blobs["/tree.hspc"]);
    const Tree full = load(store.blobs["/queryTree.hspc"]);
    EXPECT_EQ(reduced.header.comment, full.header.comment);
    EXPECT_EQ(full.nodes[3].pointCount, 1020u);

    const Bytes& infoBytes = store.blobs["/hspcInfo.json"];
    const Json::Value root = pcp_test::parseJson(std::string(infoBytes.begin(), infoBytes.end()));
    ASSERT_EQ(root.getMemberNames(), std::vector<std::string>{"tree-header-info"});
    const Json::Value& info = root["tree-header-info"];
    // The sample header's fields; the time stamp in seconds, the point count also in its two 32-bit halves.
    EXPECT_TRUE(pcp_test::holdsJson(info, R"({"project": "bridge", "format-version": 22, "max-lod": 5,
        "min-lod": 3, "lod-number-of-nodes": [1, 2, 1], "node-size": 1000, "max-node-size": 1200,
        "root-offset": [2147483648, 2147483680, 2147483616], "origin": [100, 200, 300],
        "scale": [0.001, 0.002, 0.004],
        "bounding-box": {"min": [-1.5, -2.5, -3.5], "max": [10.25, 20.25, 30.25]},
        "time-stamp": 1700000123, "point-count": 4294967301, "point-count-low-bits": 5,
        "point-count-high-bits": 1, "filtered-point-count": 17, "revision": 4, "attributes": [
            {"role": "POSITION", "type": "M96"}, {"role": "INTENSITY", "type": "U16", "name": "I"}]})"));
    EXPECT_EQ(info["attribute-id"].asUInt(), computeAttributeId(kAttributes, 14));

    // A failing store stops at the blob it could not take, with that blob's message.
    const char* messages[] = {"serializeTree: Failed to serialize tree.",
                              "serializeTree: Failed to serialize querytree.",
                              "serializeTree: Failed to serialize json info."};
    for (int failAt = 0; failAt < 3; ++failAt)
    {
        MemoryBlobs failing;
        failing.failAt = failAt;
        MessageLog failed;
        Tree copy = sampleTree();
        EXPECT_FALSE(serializeTree(failing, copy, "", none, "tree", {nullptr, failed.logger()}));
        EXPECT_EQ(failed.lines, std::vector<std::string>{messages[failAt]});
        EXPECT_EQ(failing.order.size(), size_t(failAt));
    }
    // Client text that is not JSON: both trees carry it, the info file can't be made.
    MemoryBlobs text;
    MessageLog textWarnings;
    MessageLog textErrors;
    Tree copy = sampleTree();
    EXPECT_FALSE(
        serializeTree(text, copy, "not json", none, "other", {textWarnings.logger(), textErrors.logger()}));
    EXPECT_EQ(text.order, (std::vector<std::string>{"/other.hspc", "/queryTree.hspc"}));
    EXPECT_TRUE(mentions(textWarnings,
                         "serializeTree: could not parse json config. No statistics information added."));
    EXPECT_EQ(textErrors.lines, std::vector<std::string>{messages[2]});
}

TEST(HspcSerializeTree, StatisticsGoIntoTheAttributeDescription)
{
    const std::vector<Attribute> attributes{kAttributes[0],
                                            kAttributes[1],
                                            {AttributeType::I16, AttributeRole::CUSTOM, "temperature"},
                                            {AttributeType::U8, AttributeRole::CLASSIFICATION, "C"}};
    AttributeStatistics statistics;
    std::vector<HistogramSpec> requests(2);
    requests[0] = {AttributeRole::INTENSITY, AttributeType::U16, "I", 0.0, 100.0, 4, true, true};
    requests[1] = {AttributeRole::CUSTOM, AttributeType::I16, "temperature", 0.0, 0.0, 0, false, true};
    ASSERT_TRUE(statistics.initialize(attributes, requests, nullptr));
    Bytes records;
    for (uint16_t i = 0; i < 4; ++i)
    {
        records.resize(records.size() + 12, 0);
        put<uint16_t>(records, uint16_t(10 + 30 * i));  // 10, 40, 70, 100
        put<int16_t>(records, int16_t(-20 + 15 * i));   // -20 .. 25
        put<uint8_t>(records, 2);
    }
    statistics.addRange(records.data(), 4);
    ASSERT_TRUE(statistics.beginHistograms(nullptr));
    statistics.addToHistograms(records.data(), 4);

    Tree tree = sampleTree();
    tree.attributes.attributes = attributes;
    const std::string client = R"({"attribute-description": [
        {"attribute": {"role": "I", "name": "ignored", "type": "U8"}, "scale": 0.5},
        {"attribute": {"role": "CUSTOM", "name": "pressure"}},
        {"scale": 2.0},
        {"attribute": {"role": "WIND"}},
        {"attribute": {"role": 7}},
        {"attribute": {"role": "CUSTOM"}},
        {"attribute": {"role": "NIR"}}]})";
    MemoryBlobs store;
    MessageLog errors;
    ASSERT_TRUE(serializeTree(store, tree, client, statistics, "tree", {nullptr, errors.logger()}));
    const char* member = " in attribute-description array";
    EXPECT_EQ(
        errors.lines,
        (std::vector<std::string>{
            std::string("serializeTree: attribute role=CUSTOM and name= pressure for member nr 1") + member +
                " not found in encoding attributes.",
            std::string("serializeTree: no attribute field present for member nr 2") + member + ".",
            std::string("serializeTree: attribute role=WIND for member nr 3") + member +
                " is not a valid role.",
            std::string("serializeTree: attribute role for member nr 4") + member + " is not of string type.",
            std::string("serializeTree: attribute role=CUSTOM for member nr 5") + member +
                " has no member name of type string.",
            std::string("serializeTree: attribute role=NIR for member nr 6") + member +
                " not found in encoding attributes."}));

    const Json::Value comment = pcp_test::parseJson(load(store.blobs["/queryTree.hspc"]).header.comment);
    const Json::Value& described = comment["attribute-description"];
    // The client's entry, with the attribute as stored and its statistics, and what the client added; then
    // the attributes nobody named, in their own order.
    EXPECT_TRUE(pcp_test::holdsJson(described, R"([
        {"attribute": {"role": "INTENSITY", "type": "U16", "name": "I"}, "scale": 0.5, "min": 10, "max": 100,
         "histogram": {"min": 0, "max": 100}},
        {"attribute": {"name": "temperature"}, "min": -20, "max": 25},
        {"attribute": {"role": "CLASSIFICATION"}}])"));
    ASSERT_EQ(described[0]["histogram"]["distribution"].size(), 4u);
    uint64_t counted = 0;
    for (const Json::Value& count : described[0]["histogram"]["distribution"])
        counted += count.asUInt64();
    EXPECT_EQ(counted, 4u);
    EXPECT_FALSE(described[1].isMember("histogram"));
}

TEST(HspcVoxelChunks, ListAndBlockFramesKeepTheirBytes)
{
    VoxelTreeList list;
    list.origin = {1, 2, 3};
    list.scale = {0.5, 0.5, 0.25};
    list.box = {0, 0, 0, 9, 9, 9};
    list.value = 77;
    list.attributes = kAttributes;
    list.flags = {1, 0};
    list.entries = {{1, 2, 3, {1, 1, 1, 2, 2, 2}}, {4, 5, 6, {3, 3, 3, 4, 4, 4}}};
    Bytes bytes;
    appendVoxelTreeList(list, bytes);
    EXPECT_EQ(std::string(bytes.begin(), bytes.begin() + 4), "HSVL");
    EXPECT_EQ(get<uint64_t>(bytes, 4), bytes.size() - 12);
    EXPECT_EQ(get<uint32_t>(bytes, 12), 23u);
    EXPECT_EQ(get<uint64_t>(bytes, 120), bytes.size() - 128);
    // Entries stand in reverse order: the last one first, right behind the count.
    const size_t entriesAt = bytes.size() - 2 * 64;
    EXPECT_EQ(get<uint32_t>(bytes, entriesAt), 4u);
    VoxelTreeList read;
    std::string error;
    ASSERT_TRUE(readVoxelTreeList(bytes, read, error)) << error;
    EXPECT_EQ(read.entries.size(), 2u);
    EXPECT_EQ(read.entries[0].second, 2u);
    EXPECT_EQ(read.entries[1].box[5], 4.0);
    EXPECT_EQ(read.attributes, kAttributes);
    EXPECT_EQ(read.value, 77u);
    EXPECT_EQ(read.flags[0], 1u);
    Bytes lying = bytes;
    lying[entriesAt - 4] = 0xFF;  // an entry count of 255
    EXPECT_FALSE(readVoxelTreeList(lying, read, error));
    EXPECT_NE(error.find("entry count"), std::string::npos);
    bytes.pop_back();
    EXPECT_FALSE(readVoxelTreeList(bytes, read, error));

    const Bytes columns{9, 8, 7};
    Bytes block;
    appendVoxelBlock(columns, block);
    EXPECT_EQ(block, concat({{'H', 'S', 'V', 'B', 15, 0, 0, 0, 0, 0, 0, 0}, columns}));
    std::span<const uint8_t> inside;
    ASSERT_TRUE(readVoxelBlock(block, inside, error)) << error;
    EXPECT_EQ(Bytes(inside.begin(), inside.end()), columns);
    block.push_back(0);
    EXPECT_FALSE(readVoxelBlock(block, inside, error));
}
