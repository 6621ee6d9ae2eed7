// The files beside the nodes of a cache: names, meta, key, scan positions (VRP) and regions (RGN), and what a
// folder tells about the cache in it. JSON is read back with jsoncpp, independently of the library's reader.
#include <gtest/gtest.h>
#include <json/value.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>

#include "cachefiles/BubbleJson.h"
#include "cachefiles/CacheFiles.h"
#include "cachefiles/CacheFolder.h"
#include "cachefiles/KeyFile.h"
#include "cachefiles/MetaFile.h"
#include "cachefiles/RegionJson.h"
#include "core/StringConversion.h"
#include "support/ErrorText.h"
#include "support/FileText.h"
#include "support/JsonText.h"
#include "support/TempFolder.h"

using namespace pc_preprocess;
using pcp_test::errorText;
using pcp_test::parseJson;
namespace fs = std::filesystem;

using pcp_test::readText;

namespace
{

constexpr double kMark = std::numeric_limits<double>::max();

void writeText(const std::wstring& path, const std::string& text)
{
    std::ofstream(toPath(path), std::ios::binary) << text;
}

MetaData panoramaMeta(uint64_t width)
{
    MetaData meta;
    meta.extents = ExtentsI32(-5, -6, -7, 8, 9, 10);
    meta.position = {1.5, -2.25, 3.0};
    for (size_t i = 0; i < 9; ++i)
        meta.matrix[i] = 0.125 * double(i) - 0.5;
    meta.maxDistance = 42.5;
    meta.filledArea = 0.75;
    meta.viewWidth = width;
    meta.numPoints = 123456789012ull;
    meta.validTandSize = true;
    return meta;
}

// Every field of a meta file, so that a mismatch prints both whole.
auto fields(const MetaData& m)
{
    return std::tie(m.extents, m.position, m.matrix, m.maxDistance, m.filledArea, m.viewWidth, m.numPoints,
                    m.validTandSize);
}

ScanFiles scanFiles(const std::wstring& pnt, const std::wstring& meta, const std::wstring& view = L"",
                    const std::wstring& normal = L"")
{
    ScanFiles scan;
    scan.pntFile = pnt;
    scan.metaFile = meta;
    scan.viewPng = view;
    scan.normalPng = normal;
    return scan;
}

std::vector<double> doublesOf(const Json::Value& array)
{
    std::vector<double> values;
    for (const Json::Value& v : array)
        values.push_back(v.asDouble());
    return values;
}

}  // namespace

TEST(SideFiles, CacheFilesNamesTheFilesOfEachKind)
{
    const CacheFiles octree(L"/caches/räume", L"büro-点", false, false);
    EXPECT_EQ(octree.getKeyFile(), L"/caches/räume/büro-点.key");
    EXPECT_EQ(octree.getTreeFile(), L"/caches/räume/büro-点.vrm");
    EXPECT_EQ(octree.getVrpFile(), L"/caches/räume/büro-点.vrp");
    EXPECT_EQ(octree.getRgnFile(), L"/caches/räume/büro-点.rgn");
    EXPECT_EQ(octree.getResultFile(), octree.getTreeFile());

    const CacheFiles hspc(L"/caches/h/", L"/elsewhere/b", true, false);
    EXPECT_EQ(hspc.getKeyFile(), L"/elsewhere/b.key");
    EXPECT_EQ(hspc.getTreeFile(), L"/caches/h/queryTree.hspc");
    EXPECT_EQ(hspc.getVrpFile(), L"/caches/h/queryTree.vrp");
    EXPECT_EQ(hspc.getRgnFile(), L"/caches/h/queryTree.rgn");
    EXPECT_EQ(hspc.getResultFile(), L"/caches/h/queryTree.hspc");

    const CacheFiles packed(L"/caches/p", L"b", true, true);
    EXPECT_EQ(packed.getTreeFile(), L"/caches/p/b.hspc.pack");
    EXPECT_EQ(packed.getVrpFile(), L"/caches/p/queryTree.vrp");
}

TEST(SideFiles, MetaFileRoundTripsBothFormsAndRefusesOtherSizes)
{
    pcp_test::TempFolder folder;
    const std::wstring path = folder.file(L"scan-0000-temp.meta");
    const MetaData meta = panoramaMeta(4096);
    writeMetaFile(path, meta);
    EXPECT_EQ(fields(readMetaFile(path)), fields(meta));

    // The packed layout: the width at 64, the flag at 72, the count straight after it at 73.
    const std::string bytes = readText(path);
    ASSERT_EQ(bytes.size(), 153u);
    uint64_t width = 0, count = 0;
    std::memcpy(&width, bytes.data() + 64, 8);
    std::memcpy(&count, bytes.data() + 73, 8);
    EXPECT_EQ(width, 4096u);
    EXPECT_EQ(bytes[72], 1);
    EXPECT_EQ(count, meta.numPoints);

    // The older form ends before the matrix.
    writeText(path, bytes.substr(0, 81));
    MetaData expected = meta;
    expected.matrix.fill(0.0);
    EXPECT_EQ(fields(readMetaFile(path)), fields(expected));

    // Without a panorama the marks survive; the empty box of a scan without points reads as the all-zero box.
    writeMetaFile(path, MetaData());
    MetaData withoutView;
    withoutView.extents = ExtentsI32(0, 0, 0, 0, 0, 0);
    EXPECT_EQ(fields(readMetaFile(path)), fields(withoutView));

    writeText(path, bytes.substr(0, 100));
    EXPECT_EQ(errorText([&] { readMetaFile(path); }),
              "readMetaFile : " + ws2s(path) + " holds 100 bytes, not 153 or 81.");
    const std::wstring nowhere = folder.file(L"gone/x.meta");
    EXPECT_EQ(errorText([&] { writeMetaFile(nowhere, meta); }),
              "writeMetaFile : Could not (fully) write " + ws2s(nowhere) + "\nDisk full?");
}

TEST(SideFiles, KeyFileIsFinishedWithTheFolderSizeOnlyWhenATreeExists)
{
    pcp_test::TempFolder folder;
    const std::wstring key = folder.file(L"räume.key");
    const std::wstring name = L"Räume 点云";
    ASSERT_TRUE(initEmptyKeyFile(key, name));
    EXPECT_EQ(readText(key), ws2s(name) + "\n0");
    EXPECT_FALSE(readKeyFile(key).complete());

    EXPECT_FALSE(finishKeyFile(key, name));
    EXPECT_EQ(readText(key), ws2s(name) + "\n0");

    fs::create_directory(folder.path() / "Data");
    writeText(folder.file(L"Data/0.pnz"), std::string(1000, 'x'));
    writeText(folder.file(L"räume.vrm"), "{}");
    const uint64_t expected = 1000 + 2 + readText(key).size();
    ASSERT_TRUE(finishKeyFile(key, name));
    const KeyFileContent content = readKeyFile(key);
    EXPECT_EQ(content.name, name);
    EXPECT_EQ(content.size, expected);
    EXPECT_TRUE(content.complete());

    writeKeyFile(key, name, std::numeric_limits<uint64_t>::max());
    EXPECT_EQ(readKeyFile(key).size, std::numeric_limits<uint64_t>::max());

    for (const char* bad : {"no line end", "name\n", "name\n12x", "name\n18446744073709551616"})
    {
        writeText(key, bad);
        EXPECT_EQ(errorText([&] { readKeyFile(key); })
                      .rfind("readKeyFile : " + ws2s(key) + " is not a key file: ", 0),
                  0u)
            << bad;
    }
}

TEST(SideFiles, CheckSubFolderItemTellsTheKindOfCache)
{
    pcp_test::TempFolder folder;
    auto cache = [&](const std::wstring& name, std::initializer_list<const wchar_t*> files)
    {
        const std::wstring path = folder.file(name);
        fs::create_directories(toPath(path) / "Data" / "deep");
        writeText(path + L"/Data/deep/1.pnz", std::string(300, 'p'));
        for (const wchar_t* file : files)
            writeText(path + L"/" + file, "12345");
        return path;
    };

    const std::wstring octree = cache(L"octree", {L"c.VRM", L"c.vrp", L"c.log"});
    writeKeyFile(octree + L"/c.key", L"Büro", 0);
    const pointcloud_def::PcCacheEntry entry = checkSubFolderItem(octree);
    EXPECT_TRUE(entry.valid);
    EXPECT_EQ(entry.kind, pointcloud_def::PcCacheKind::kOctree);
    EXPECT_EQ(entry.treeFile, octree + L"/c.VRM");
    EXPECT_EQ(entry.vrpFile, octree + L"/c.vrp");
    EXPECT_EQ(entry.keyName, L"Büro");
    EXPECT_FALSE(entry.complete);
    EXPECT_EQ(entry.size, 300u + 3 * 5 + readText(octree + L"/c.key").size());
    uint64_t size = 7;
    EXPECT_TRUE(getFoldersize(octree, size));
    EXPECT_EQ(size, 7 + entry.size);

    for (const wchar_t* tree : {L"queryTree.hspc", L"c.hspc.pack"})
    {
        const pointcloud_def::PcCacheEntry hspc =
            checkSubFolderItem(cache(tree + std::wstring(L"-dir"), {tree}));
        EXPECT_TRUE(hspc.valid);
        EXPECT_EQ(hspc.kind, pointcloud_def::PcCacheKind::kHspc);
    }

    const pointcloud_def::PcCacheEntry failed = checkSubFolderItem(cache(L"failed", {L"c.log"}));
    EXPECT_FALSE(failed.valid);
    EXPECT_TRUE(failed.hasMembers);
    EXPECT_EQ(failed.kind, pointcloud_def::PcCacheKind::kNone);
    EXPECT_EQ(failed.size, 305u);

    const pointcloud_def::PcCacheEntry foreign = checkSubFolderItem(cache(L"foreign", {L"notes.txt"}));
    EXPECT_FALSE(foreign.valid || foreign.hasMembers);
    EXPECT_FALSE(checkSubFolderItem(folder.file(L"missing")).valid);
    uint64_t untouched = 3;
    EXPECT_FALSE(getFoldersize(folder.file(L"missing"), untouched));
    EXPECT_EQ(untouched, 3u);
}

TEST(SideFiles, VrpHoldsScansWithAndWithoutPanoramaAndTheirImagesAsWaypoints)
{
    pcp_test::TempFolder folder;
    fs::create_directory(folder.path() / "Data");
    fs::create_directory(folder.path() / "Bubbles");
    auto meta = [&](const std::wstring& name, const MetaData& data)
    {
        writeMetaFile(folder.file(L"Data/" + name), data);
        return folder.file(L"Data/" + name);
    };
    ScanFiles panorama =
        scanFiles(folder.file(L"Data/raum-0000-temp.pnt"), meta(L"raum-0000-temp.meta", panoramaMeta(2048)),
                  folder.file(L"Bubbles/raum-0000-view.png"), folder.file(L"Bubbles/raum-0000-norm.png"));
    panorama.images.push_back({meta(L"raum-0000_image-0000-temp.meta", panoramaMeta(1024)),
                               folder.file(L"Bubbles/raum-0000_image-0000-view.png"), L""});
    panorama.images.push_back({meta(L"raum-0000_image-0001-temp.meta", panoramaMeta(1024)), L"", L""});
    const ScanFiles plain =
        scanFiles(folder.file(L"Data/raum-0001-temp.pnt"), meta(L"raum-0001-temp.meta", {}));
    ScanFiles onlyImages = scanFiles(folder.file(L"Data/raum-0002-temp.pnt"), L"");
    onlyImages.images.push_back({meta(L"raum-0002_image-0000-temp.meta", panoramaMeta(512)),
                                 folder.file(L"Bubbles/raum-0002_image-0000-view.png"), L""});

    const std::wstring vrp = folder.file(L"räume.vrp");
    bubbleJson({panorama, plain, onlyImages}, vrp);
    const std::string text = readText(vrp);
    EXPECT_EQ(text.find_first_of(" \n\t"), std::string::npos) << "not compact";
    EXPECT_NE(text.find("täst-点云"), std::string::npos) << "names are not plain UTF-8";

    const Json::Value root = parseJson(text);
    ASSERT_EQ(root["staticscans"].size(), 2u);
    const Json::Value& first = root["staticscans"][0];
    EXPECT_EQ(first["name"].asString(), ws2s(panorama.pntFile));
    EXPECT_EQ(doublesOf(first["scannerposition"]), std::vector<double>({1.5, -2.25, 3.0}));
    const std::array<double, 9> matrix = panoramaMeta(1).matrix;
    EXPECT_EQ(doublesOf(first["rotationmatrix"]), std::vector<double>(matrix.begin(), matrix.end()));
    ASSERT_EQ(first["data"].size(), 1u);
    EXPECT_EQ(first["data"][0]["file"].asString(), "Bubbles/raum-0000-view.png");
    EXPECT_EQ(first["data"][0]["w"].asUInt64(), 2048u);
    EXPECT_EQ(first["data"][0]["h"].asUInt64(), 1024u);
    EXPECT_EQ(first["data"][0]["maxdist"].asDouble(), 42.5);
    EXPECT_EQ(first["normals"][0]["file"].asString(), "Bubbles/raum-0000-norm.png");

    const Json::Value& second = root["staticscans"][1];
    EXPECT_FALSE(second.isMember("data") || second.isMember("normals"));
    EXPECT_EQ(doublesOf(second["scannerposition"]), std::vector<double>(3, kMark));

    ASSERT_EQ(root["waypoints"].size(), 2u);
    EXPECT_EQ(root["waypoints"][0]["name"].asString(), "raum-0000_image-0000-view");
    EXPECT_EQ(root["waypoints"][0]["data"][0]["h"].asUInt64(), 512u);
    EXPECT_FALSE(root["waypoints"][0].isMember("normals"));
    EXPECT_EQ(root["waypoints"][1]["data"][0]["file"].asString(), "Bubbles/raum-0002_image-0000-view.png");

    // The library's own reader, as the example host uses it, sees the same.
    const BubbleFile read = readBubbleJson(vrp);
    ASSERT_EQ(read.staticScans.size(), 2u);
    EXPECT_EQ(read.staticScans[1].scannerPosition[2], kMark);
    EXPECT_FALSE(read.staticScans[1].data.has_value());
    ASSERT_EQ(read.waypoints.size(), 2u);
    EXPECT_EQ(read.waypoints[1].data->file, L"Bubbles/raum-0002_image-0000-view.png");

    writeText(vrp,
              R"({"staticscans":[{"name":"x","scannerposition":[1,2],"rotationmatrix":[]}],"waypoints":[]})");
    EXPECT_EQ(
        errorText([&] { readBubbleJson(vrp); }),
        "readBubbleJson : " + ws2s(vrp) + " is not a VRP file: \"scannerposition\" does not hold 3 numbers");
    writeText(vrp, "{\"staticscans\":[");
    EXPECT_EQ(
        errorText([&] { readBubbleJson(vrp); }).rfind("readBubbleJson : " + ws2s(vrp) + " is not a JSON", 0),
        0u);
}

TEST(SideFiles, RgnHoldsRegionsWithTheirClips)
{
    pcp_test::TempFolder folder;
    pointcloud_def::PcRegion region;
    region.name = L"Wand ä 墙";
    region.idx = 7;
    region.overlaps = {1, 4000000000u};
    region.visible = false;
    region.locked = true;
    pointcloud_def::PcClip clip;
    clip.planes = {{1, 0, 0, -2.5}, {0, 1, 0, 3}};
    clip.vertices = {{1, 2, 3}, {-4, 5.5, 6}};
    clip.id = 9;
    clip.in = false;
    region.clips = {clip, pointcloud_def::PcClip()};

    const std::wstring rgn = folder.file(L"räume.rgn");
    regionJson({region, pointcloud_def::PcRegion()}, rgn);
    const Json::Value root = parseJson(readText(rgn));
    ASSERT_EQ(root["regions"].size(), 2u);
    const Json::Value& first = root["regions"][0];
    EXPECT_EQ(first["name"].asString(), ws2s(region.name));
    EXPECT_EQ(first["idx"].asUInt(), 7u);
    EXPECT_EQ(first["overlaps"][1].asUInt(), 4000000000u);
    EXPECT_FALSE(first["visible"].asBool());
    EXPECT_TRUE(first["locked"].asBool());
    EXPECT_FALSE(first["removed"].asBool());
    ASSERT_EQ(first["clips"].size(), 2u);
    EXPECT_EQ(doublesOf(first["clips"][0]["p"]), std::vector<double>({1, 0, 0, -2.5, 0, 1, 0, 3}));
    EXPECT_EQ(doublesOf(first["clips"][0]["v"]), std::vector<double>({1, 2, 3, -4, 5.5, 6}));
    EXPECT_FALSE(first["clips"][0]["in"].asBool());
    EXPECT_EQ(first["clips"][0]["id"].asUInt(), 9u);
    EXPECT_TRUE(first["clips"][1]["p"].isArray() && first["clips"][1]["p"].empty());
    EXPECT_TRUE(root["regions"][1]["name"].isString());

    regionJson({}, rgn);
    EXPECT_EQ(readText(rgn), R"({"regions":[]})");
}

TEST(SideFiles, JsonWritersRefuseWrongNamesAndReportFailedWrites)
{
    pcp_test::TempFolder folder;
    const std::wstring json = folder.file(L"scans.json");
    EXPECT_EQ(errorText([&] { bubbleJson({}, json); }),
              "Expected *.vrp filename; received " + ws2s(json) + "\n");
    EXPECT_EQ(errorText([&] { regionJson({}, json); }),
              "Expected *.rgn filename; received " + ws2s(json) + "\n");
    const std::wstring gone = folder.file(L"gone");
    EXPECT_EQ(errorText([&] { bubbleJson({}, gone + L"/x.vrp"); }), "Cannot convert path " + ws2s(gone));
    EXPECT_EQ(errorText([&] { regionJson({}, gone + L"/x.rgn"); }), "Cannot convert path " + ws2s(gone));

    const ScanFiles withoutMeta = scanFiles(folder.file(L"a.pnt"), folder.file(L"a.meta"));
    EXPECT_EQ(errorText([&] { bubbleJson({withoutMeta}, folder.file(L"a.vrp")); })
                  .rfind("readMetaFile : Could not read " + ws2s(withoutMeta.metaFile), 0),
              0u);

    // A full disk, through links to the device that is always full.
    if (!fs::exists("/dev/full"))
        GTEST_SKIP() << "no /dev/full on this machine";
    for (const wchar_t* name : {L"full.vrp", L"full.rgn", L"full.key"})
        fs::create_symlink("/dev/full", toPath(folder.file(name)));
    const std::wstring vrp = folder.file(L"full.vrp"), rgn = folder.file(L"full.rgn"),
                       key = folder.file(L"full.key");
    EXPECT_EQ(errorText([&] { bubbleJson({}, vrp); }),
              "bubbleJson : Could not (fully) write " + ws2s(vrp) + "\nDisk full?");
    EXPECT_EQ(errorText([&] { regionJson({}, rgn); }),
              "regionJson : Could not (fully) write " + ws2s(rgn) + "\nDisk full?");
    EXPECT_EQ(errorText([&] { writeKeyFile(key, L"k", 1); }),
              "writeKeyFile : Could not (fully) write " + ws2s(key) + "\nDisk full?");
}
