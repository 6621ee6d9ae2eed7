// The tree file of a cache (VRM) and the conversion of a whole cache between plain and compressed node files.
// The VRM text is checked with jsoncpp, independently of the library's reader.
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>

#include "cachefiles/CacheCompression.h"
#include "cachefiles/PntFiles.h"
#include "cachefiles/PnzFiles.h"
#include "cachefiles/VrmFile.h"
#include "core/StringConversion.h"
#include "fuzz/VrmFuzzCase.h"
#include "support/ErrorText.h"
#include "support/FileText.h"
#include "support/FuzzCorpus.h"
#include "support/JsonText.h"
#include "support/SyntheticCache.h"
#include "support/TempFolder.h"
#include "support/ThreadFaults.h"

using namespace pc_preprocess;
using pcp_test::errorText;
using pcp_test::parseJson;
using pcp_test::readText;
namespace fs = std::filesystem;

namespace
{

VrmNode vrmNode(const std::wstring& file, uint32_t points, double radius, std::vector<VrmNode> children = {})
{
    VrmNode node;
    node.file = file;
    node.numPoints = points;
    node.maxRadius = radius;
    node.box = {-1.5 * points, 2.25, -3.0, 4.0, 5.5 + points, 6.125};
    node.children = std::move(children);
    return node;
}

void expectSameTree(const VrmNode& a, const VrmNode& b)
{
    EXPECT_EQ(ws2s(a.file), ws2s(b.file));
    EXPECT_EQ(a.numPoints, b.numPoints) << ws2s(a.file);
    EXPECT_EQ(a.maxRadius, b.maxRadius) << ws2s(a.file);
    EXPECT_EQ(a.box, b.box) << ws2s(a.file);
    ASSERT_EQ(a.children.size(), b.children.size()) << ws2s(a.file);
    for (size_t i = 0; i < a.children.size(); ++i)
        expectSameTree(a.children[i], b.children[i]);
}

void writeText(const fs::path& path, const std::string& text)
{
    std::ofstream(path, std::ios::binary) << text;
}

// Every file below the folder with its bytes: a failed conversion must leave this unchanged.
std::map<std::string, std::string> snapshot(const fs::path& folder)
{
    std::map<std::string, std::string> files;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(folder))
        if (entry.is_regular_file())
            files[entry.path().lexically_relative(folder).string()] = readText(entry.path());
    return files;
}

std::vector<IoLightPoint> readNode(const fs::path& file)
{
    IoTransfo transfo;
    std::vector<IoLightPoint> points;
    if (file.extension() == ".pnz")
        readPNZ(toWide(file), transfo, points);
    else
        readPNT(toWide(file), transfo, points);
    return points;
}

void expectSamePoints(const std::vector<IoLightPoint>& read, const std::vector<IoLightPoint>& written,
                      const std::string& node)
{
    ASSERT_EQ(read.size(), written.size()) << node;
    for (size_t i = 0; i < read.size(); ++i)
    {
        const IoLightPoint& a = read[i];
        const IoLightPoint& b = written[i];
        EXPECT_TRUE(a.x == b.x && a.y == b.y && a.z == b.z && a.r == b.r && a.g == b.g && a.b == b.b &&
                    a.intensity == b.intensity && a.scanId == b.scanId &&
                    std::memcmp(&a.radius, &b.radius, sizeof(float)) == 0)
            << node << " point " << i;
    }
}

}  // namespace

TEST(Vrm, RoundTripKeepsNestedTreeInCompactJson)
{
    pcp_test::TempFolder temp;
    const VrmNode root = vrmNode(L"0.pnt", 65536, 0.0125,
                                 {vrmNode(L"00.pnt", 4294967295u, 7.5),
                                  vrmNode(L"01.pnt", 17, -1.7976931348623157e308,
                                          {vrmNode(L"010.pnt", 9, 1.0), vrmNode(L"011.pnt", 8, 2.0)}),
                                  vrmNode(L"02.pnt", 0, 0.1)});
    const std::wstring path = temp.file(L"träd.vrm");
    writeVrm(path, root);
    expectSameTree(readVrm(path), root);

    const std::string text = readText(path);
    EXPECT_EQ(text.find_first_of(" \n\t"), std::string::npos) << text;
    const Json::Value json = parseJson(text);
    EXPECT_EQ(json["format"], 10);
    const Json::Value& content = json["content"];
    EXPECT_EQ(content["f"], "0.pnt");
    EXPECT_EQ(content["v"], 65536);
    ASSERT_EQ(content["o"].size(), 3u);
    EXPECT_EQ(content["o"][0]["v"].asUInt(), 4294967295u);
    EXPECT_EQ(content["o"][1]["o"][1]["f"], "011.pnt");
    // A leaf has no "o" at all, not an empty array.
    EXPECT_FALSE(content["o"][0].isMember("o"));
    EXPECT_FALSE(content["o"][1]["o"][0].isMember("o"));

    const std::wstring nowhere = temp.file(L"missing/cache.vrm");
    EXPECT_EQ(errorText([&] { writeVrm(nowhere, root); }),
              "buildTree : Could not (fully) write " + ws2s(nowhere) + "\nDisk full?");
}

TEST(Vrm, BoxIsOneGridStepLargerOnEachSide)
{
    IoTransfo transfo;
    transfo.scale = {0.001, 0.002, 0.5};
    transfo.offset = {100.0, -200.0, 3.0};
    const std::array<double, 6> box = vrmBox(ExtentsI32(-5, 0, 7, 10, 20, 30), transfo);
    EXPECT_DOUBLE_EQ(box[0], -6 * 0.001 + 100.0);
    EXPECT_DOUBLE_EQ(box[1], -1 * 0.002 - 200.0);
    EXPECT_DOUBLE_EQ(box[2], 6 * 0.5 + 3.0);
    EXPECT_DOUBLE_EQ(box[3], 11 * 0.001 + 100.0);
    EXPECT_DOUBLE_EQ(box[4], 21 * 0.002 - 200.0);
    EXPECT_DOUBLE_EQ(box[5], 31 * 0.5 + 3.0);

    // At the ends of the 32-bit range the step beyond does not wrap around.
    transfo.scale = {1.0, 1.0, 1.0};
    transfo.offset = {0.0, 0.0, 0.0};
    const std::array<double, 6> wide = vrmBox(ExtentsI32(INT_MIN, INT_MIN, 0, INT_MAX, 0, INT_MAX), transfo);
    EXPECT_EQ(wide[0], double(INT_MIN) - 1.0);
    EXPECT_EQ(wide[3], double(INT_MAX) + 1.0);
    EXPECT_EQ(wide[5], double(INT_MAX) + 1.0);
}

TEST(Vrm, MalformedFilesGiveClearErrors)
{
    pcp_test::TempFolder temp;
    const fs::path path = temp.path() / "bad.vrm";
    const std::string name = path.string();
    const std::string node = R"("f":"0.pnt","r":1.5,"v":10,"b":[0,0,0,1,1,1])";
    const auto content = [](const std::string& inner)
    { return R"({"format":10,"content":{)" + inner + "}}"; };
    const struct
    {
        std::string text;
        std::string error;
    } cases[] = {
        {"{\"format\":10,", " is not a JSON file: "},
        {"[1,2]", " is not a VRM file: no object at the top"},
        {R"({"format":10})", " is not a VRM file: \"content\" is missing or of the wrong type"},
        {R"({"format":10,"content":[]})", " is not a VRM file: \"content\" is missing or of the wrong type"},
        {R"({"format":9,"content":{)" + node + "}}", " is not a VRM file: format 9 instead of 10"},
        {content(R"("r":1,"v":1,"b":[0,0,0,1,1,1])"),
         " is not a VRM file: \"content\": \"f\" is missing or of the wrong type"},
        {content(R"("f":"../../etc/0.pnt","r":1,"v":1,"b":[0,0,0,1,1,1])"),
         " is not a VRM file: \"content\": \"f\" is no node file name: \"../../etc/0.pnt\""},
        {content(R"("f":"0.pnz","r":1,"v":1,"b":[0,0,0,1,1,1])"), "\"f\" is no node file name: \"0.pnz\""},
        {content(R"("f":".pnt","r":1,"v":1,"b":[0,0,0,1,1,1])"), "\"f\" is no node file name: \".pnt\""},
        {content(R"("f":"0.pnt","r":"big","v":1,"b":[0,0,0,1,1,1])"),
         " is not a VRM file: node 0.pnt: \"r\" is missing or of the wrong type"},
        {content(R"("f":"0.pnt","r":1,"v":-1,"b":[0,0,0,1,1,1])"),
         "node 0.pnt: \"v\" is missing or of the wrong"},
        {content(R"("f":"0.pnt","r":1,"v":4294967296,"b":[0,0,0,1,1,1])"), "node 0.pnt: \"v\" is missing or"},
        {content(R"("f":"0.pnt","r":1,"v":1,"b":[0,0,0,1,1])"), "node 0.pnt: \"b\" does not hold 6 numbers"},
        {content(R"("f":"0.pnt","r":1,"v":1,"b":[0,0,0,1,"1",1])"),
         "node 0.pnt: \"b\" holds something other than a number"},
        {content(R"("f":"0.pnt","r":1,"v":1,"b":[0,2,0,1,1,1])"),
         "node 0.pnt: \"b\" has a minimum above its"},
        {content(node + R"(,"o":{})"), "node 0.pnt: \"o\" is missing or of the wrong type"},
        {content(node + R"(,"o":[3])"), " is not a VRM file: a child of node 0.pnt: not an object"},
        {content(node + R"(,"o":[{"f":"00.pnt","r":1,"v":1,"b":[]}])"), "node 00.pnt: \"b\" does not hold 6"},
    };
    for (const auto& c : cases)
    {
        writeText(path, c.text);
        const std::string error = errorText([&] { readVrm(toWide(path)); });
        EXPECT_EQ(error.rfind("readVrm : " + name, 0), 0u) << c.text << "\n" << error;
        EXPECT_NE(error.find(c.error), std::string::npos) << c.text << "\n" << error;
    }
    EXPECT_EQ(errorText([&] { readVrm(temp.file(L"none.vrm")); })
                  .rfind("readVrm : Could not read " + ws2s(temp.file(L"none.vrm")), 0),
              0u);
}

TEST(Vrm, NestingIsBoundedForHostileFiles)
{
    pcp_test::TempFolder temp;
    const fs::path path = temp.path() / "deep.vrm";
    // A chain of nodes, each the only child of the one before.
    const auto chain = [](unsigned levels)
    {
        std::string text = R"({"format":10,"content":)";
        for (unsigned i = 0; i < levels; ++i)
            text += R"({"f":"0.pnt","r":1,"v":1,"b":[0,0,0,1,1,1])" +
                    std::string(i + 1 < levels ? ",\"o\":[" : "");
        for (unsigned i = 0; i < levels; ++i)
            text += i == 0 ? "}" : "]}";
        return text + "}";
    };
    writeText(path, chain(kMaxVrmDepth));
    VrmNode root = readVrm(toWide(path));
    unsigned levels = 1;
    for (const VrmNode* node = &root; !node->isLeaf(); node = &node->children[0])
        ++levels;
    EXPECT_EQ(levels, kMaxVrmDepth);

    writeText(path, chain(kMaxVrmDepth + 1));
    EXPECT_EQ(errorText([&] { readVrm(toWide(path)); }),
              "readVrm : " + path.string() + " is not a VRM file: nodes nested deeper than 64 levels");

    // Nesting far beyond anything reasonable is refused by the parser before any node is read.
    writeText(path, R"({"format":10,"content":)" + std::string(200000, '[') + std::string(200000, ']') + "}");
    EXPECT_NE(errorText([&] { readVrm(toWide(path)); }).find(" is not a JSON file: "), std::string::npos);
}

// Every input the fuzz target keeps, the ones that once failed among them, must pass its check here too.
TEST(Vrm, ReplaysTheFuzzCorpus)
{
    pcp_test::TempFolder temp;
    const size_t replayed = pcp_test::replayFuzzCorpus(
        "vrm",
        [&](const std::string& bytes, const fs::path& file) {
            EXPECT_EQ(pcp_fuzz::checkVrm(bytes, temp.file(L"fuzz.vrm"), temp.file(L"copy.vrm")), "") << file;
        });
    EXPECT_GE(replayed, 5u);
}

TEST(CacheCompression, RoundTripKeepsEveryByteAndCountsFiles)
{
    pcp_test::TempFolder temp;
    const pcp_test::SyntheticCache cache = pcp_test::writeSyntheticCache(temp.path() / "cache", true);
    // A file of removed points and the root's side file come along too.
    const std::vector<IoLightPoint> removed(cache.points.at("01").begin(), cache.points.at("01").begin() + 7);
    writeTuncatePNT(toWide(cache.nodeFile("01_rm", ".pnt")), cache.transfo, removed);
    writeText(cache.nodeFile("0-class", ".pnt"), std::string(cache.points.at("0").size(), '\x02'));
    const std::map<std::string, std::string> before = snapshot(cache.folder);

    const uint64_t files = cache.nodeCount() + 1;
    uint64_t plainBytes = 0;
    for (const auto& [file, bytes] : before)
        if (file.ends_with(".pnt") && !file.ends_with("-class.pnt"))
            plainBytes += bytes.size();

    // No workers: the files are counted, and none is converted.
    const CompressInfo counted = compressor(toWide(cache.vrm), 0);
    EXPECT_EQ(counted.numPnt, files);
    EXPECT_EQ(counted.newNumPnz + counted.newSizePnz, 0u);
    EXPECT_EQ(snapshot(cache.folder), before);

    const CompressInfo compressed = compressor(toWide(cache.vrm), 3);
    EXPECT_EQ(compressed.numPnt, files);
    EXPECT_EQ(compressed.numPnz, 0u);
    EXPECT_EQ(compressed.sizePnt, plainBytes);
    EXPECT_EQ(compressed.sizePnz, 0u);
    EXPECT_EQ(compressed.newNumPnt, 0u);
    EXPECT_EQ(compressed.newNumPnz, files);
    EXPECT_EQ(compressed.newSizePnt, 0u);

    uint64_t compressedBytes = 0;
    for (const auto& [stem, points] : cache.points)
    {
        EXPECT_FALSE(fs::exists(cache.nodeFile(stem, ".pnt"))) << stem;
        expectSamePoints(readNode(cache.nodeFile(stem, ".pnz")), points, stem);
        compressedBytes += fs::file_size(cache.nodeFile(stem, ".pnz"));
    }
    expectSamePoints(readNode(cache.nodeFile("01_rm", ".pnz")), removed, "01_rm");
    compressedBytes += fs::file_size(cache.nodeFile("01_rm", ".pnz"));
    EXPECT_EQ(compressed.newSizePnz, compressedBytes);
    EXPECT_LT(compressedBytes, plainBytes);
    EXPECT_EQ(readText(cache.nodeFile("0-class", ".pnt")), before.at("Data/0-class.pnt"));

    const CompressInfo plain = decompressor(toWide(cache.vrm), 2);
    EXPECT_EQ(plain.numPnz, files);
    EXPECT_EQ(plain.sizePnz, compressedBytes);
    EXPECT_EQ(plain.newNumPnt, files);
    EXPECT_EQ(plain.newSizePnt, plainBytes);
    EXPECT_EQ(plain.newNumPnz + plain.newSizePnz, 0u);
    EXPECT_EQ(snapshot(cache.folder), before);
}

TEST(CacheCompression, BadCachesFailBeforeAnyConversion)
{
    pcp_test::TempFolder temp;
    const pcp_test::SyntheticCache cache = pcp_test::writeSyntheticCache(temp.path() / "cache", true);
    const std::wstring vrm = toWide(cache.vrm);
    const std::string pnt = cache.nodeFile("011", ".pnt").string();
    const std::string pnz = cache.nodeFile("011", ".pnz").string();

    // The last node of the tree is missing: the nodes before it stay as they are.
    const std::string moved = readText(cache.nodeFile("011", ".pnt"));
    fs::remove(cache.nodeFile("011", ".pnt"));
    std::map<std::string, std::string> before = snapshot(cache.folder);
    EXPECT_EQ(errorText([&] { compressor(vrm, 4); }), "Both " + pnt + " and " + pnz + " do NOT exist.");
    EXPECT_EQ(snapshot(cache.folder), before);

    // The node in both forms.
    writeText(cache.nodeFile("011", ".pnt"), moved);
    fs::copy_file(cache.nodeFile("011", ".pnt"), cache.nodeFile("011", ".pnz"));
    before = snapshot(cache.folder);
    EXPECT_EQ(errorText([&] { compressor(vrm, 4); }), "Both " + pnt + " and " + pnz + "exist.");
    EXPECT_EQ(errorText([&] { decompressor(vrm, 4); }), "Both " + pnt + " and " + pnz + "exist.");
    EXPECT_EQ(snapshot(cache.folder), before);
    fs::remove(cache.nodeFile("011", ".pnz"));

    // A file of removed points in both forms fails the same way.
    writeText(cache.nodeFile("02_rm", ".pnt"), moved);
    writeText(cache.nodeFile("02_rm", ".pnz"), moved);
    EXPECT_EQ(errorText([&] { compressor(vrm, 4); }), "Both " + cache.nodeFile("02_rm", ".pnt").string() +
                                                          " and " + cache.nodeFile("02_rm", ".pnz").string() +
                                                          "exist.");
    fs::remove(cache.nodeFile("02_rm", ".pnz"));
    fs::remove(cache.nodeFile("02_rm", ".pnt"));

    EXPECT_EQ(errorText([&] { compressor(temp.file(L"none.vrm"), 1); }),
              "The VRM file " + ws2s(temp.file(L"none.vrm")) + " does not exist.");
    for (const std::string text :
         {"{\"format\":10,\"cont", "{\"format\":10}", "{\"format\":10,\"content\":{}}"})
    {
        writeText(temp.path() / "bad.vrm", text);
        EXPECT_EQ(errorText([&] { decompressor(temp.file(L"bad.vrm"), 1); }), "COMPRESS: VRM parse error.")
            << text;
    }
}

TEST(CacheCompression, FailedWorkersAreReportedTogether)
{
    pcp_test::TempFolder temp;
    const pcp_test::SyntheticCache cache = pcp_test::writeSyntheticCache(temp.path() / "cache", true);
    // The root, first in the list, is cut short; the one worker stops there and converts nothing else.
    const fs::path root = cache.nodeFile("0", ".pnt");
    fs::resize_file(root, 49);
    const std::string rootError =
        errorText([&] { directPntToPnz(toWide(root), toWide(temp.path() / "probe.pnz")); });
    ASSERT_NE(rootError, "(no exception)");
    fs::remove(temp.path() / "probe.pnz");
    const std::map<std::string, std::string> before = snapshot(cache.folder);
    EXPECT_EQ(errorText([&] { compressor(toWide(cache.vrm), 1); }), "thread[0]: " + rootError + "\n");
    EXPECT_EQ(snapshot(cache.folder), before);

    // With more workers the others go on: every other node is converted, and the broken one stays as it was.
    const std::string error = errorText([&] { compressor(toWide(cache.vrm), 3); });
    EXPECT_EQ(error.find("thread["), 0u) << error;
    EXPECT_NE(error.find("]: " + rootError + "\n"), std::string::npos) << error;
    EXPECT_EQ(readText(root), before.at("Data/0.pnt"));
    EXPECT_FALSE(fs::exists(cache.nodeFile("0", ".pnz")));
    for (const auto& [stem, points] : cache.points)
        if (stem != "0")
            expectSamePoints(readNode(cache.nodeFile(stem, ".pnz")), points, stem);

    // A worker that cannot be started: the one already running stops after its file and is joined, and each
    // node is left in one form.
    EXPECT_EQ(errorText([&] { decompressor(toWide(cache.vrm), 3, pcp_test::threadStartFailingAt(2)); }),
              "Could not start worker thread 2 of 3: thread start: Resource temporarily unavailable");
    for (const auto& [stem, points] : cache.points)
        EXPECT_NE(fs::exists(cache.nodeFile(stem, ".pnt")), fs::exists(cache.nodeFile(stem, ".pnz"))) << stem;
}
