// Node files: the PNT and PNZ byte layouts, their side files, the choice of form behind pc_disk, the
// buffering writer, and the errors on bad input and full disks.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

#include <cstring>
#include <fstream>
#include <functional>

#include "cachefiles/PcDisk.h"
#include "cachefiles/PntFiles.h"
#include "cachefiles/PnzCodec.h"
#include "cachefiles/PnzFiles.h"
#include "cachefiles/SerializedPoints.h"
#include "core/NodePaths.h"
#include "core/StringConversion.h"
#include "support/ErrorText.h"
#include "support/FileText.h"
#include "support/FuzzCorpus.h"
#include "support/TempFolder.h"

using namespace pc_preprocess;
using pcp_test::errorText;
using Bytes = std::vector<uint8_t>;

namespace
{

IoTransfo testTransfo()
{
    IoTransfo t;
    t.scale = {0.001, 0.002, 0.0005};
    t.offset = {-1000.5, 20.25, 3.0};
    return t;
}

// Every attribute derived from the index, negative coordinates and values of all byte widths included.
IoLightPoint pointFor(uint32_t i)
{
    IoLightPoint p;
    p.x = static_cast<int32_t>(i * 7919u) - 1000000;
    p.y = static_cast<int32_t>(0u - i * 65599u);
    p.z = static_cast<int32_t>(i % 1000) - 500;
    p.r = static_cast<uint16_t>(i * 13);
    p.g = static_cast<uint16_t>(65535 - i);
    p.b = static_cast<uint16_t>(i * 257);
    p.radius = 0.25f * static_cast<float>(i) - 3.0f;
    p.intensity = static_cast<uint16_t>(i * 31);
    p.scanId = static_cast<uint16_t>(i % 7 + 1);
    p.classification = static_cast<uint8_t>(i * 3);
    p.nx = 0.5f * static_cast<float>(i);
    p.ny = -1.0f;
    p.nz = static_cast<float>(i % 5);
    return p;
}

std::vector<IoLightPoint> pointsFor(uint32_t n)
{
    std::vector<IoLightPoint> points;
    for (uint32_t i = 0; i < n; ++i)
        points.push_back(pointFor(i));
    return points;
}

// Every field of a point, so that a mismatch prints both points whole.
auto fields(const IoLightPoint& p)
{
    return std::make_tuple(p.x, p.y, p.z, p.r, p.g, p.b, p.radius, p.intensity, p.scanId, +p.classification,
                           p.nx, p.ny, p.nz);
}

void expectSamePoints(const std::vector<IoLightPoint>& actual, const std::vector<IoLightPoint>& expected)
{
    ASSERT_EQ(actual.size(), expected.size());
    for (size_t i = 0; i < actual.size(); ++i)
        ASSERT_EQ(fields(actual[i]), fields(expected[i])) << "point " << i;
}

// The record bytes as the format describes them, built field by field.
Bytes recordBytes(const IoLightPoint& p)
{
    Bytes out;
    auto put = [&](auto value)
    {
        uint8_t raw[sizeof(value)];
        std::memcpy(raw, &value, sizeof(value));
        out.insert(out.end(), raw, raw + sizeof(value));
    };
    put(p.x), put(p.y), put(p.z), put(p.r), put(p.g), put(p.b), put(p.radius), put(p.intensity),
        put(p.scanId);
    return out;
}

Bytes headerBytes(const IoTransfo& t, uint8_t colour, uint8_t extended)
{
    Bytes out(50);
    std::memcpy(out.data(), t.scale.data(), 24);
    std::memcpy(out.data() + 24, t.offset.data(), 24);
    out[48] = colour;
    out[49] = extended;
    return out;
}

Bytes readBytes(const std::wstring& path)
{
    std::ifstream in(toPath(path), std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), {});
}

void writeBytes(const std::wstring& path, const Bytes& bytes)
{
    std::ofstream out(toPath(path), std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

void writeSideFiles(const std::wstring& node, const std::vector<IoLightPoint>& points)
{
    Bytes classes, normals;
    for (const IoLightPoint& p : points)
    {
        classes.push_back(p.classification);
        for (float v : {p.nx, p.ny, p.nz})
        {
            uint8_t raw[4];
            std::memcpy(raw, &v, 4);
            normals.insert(normals.end(), raw, raw + 4);
        }
    }
    writeBytes(getClassPathFromPnt(node), classes);
    writeBytes(getNormalPathFromPnt(node), normals);
}

// What a node reads as without side files: no class, no normal.
std::vector<IoLightPoint> withoutSideValues(std::vector<IoLightPoint> points)
{
    for (IoLightPoint& p : points)
    {
        p.classification = 0;
        p.nx = p.ny = p.nz = 0.0f;
    }
    return points;
}

Bytes inflateWithZlib(const Bytes& compressed, size_t expectedSize)
{
    Bytes out(expectedSize + 1);
    uLongf size = out.size();
    EXPECT_EQ(uncompress(out.data(), &size, compressed.data(), compressed.size()), Z_OK);
    out.resize(size);
    return out;
}

}  // namespace

// One byte short of a header, one byte beyond the last whole record, and a colour flag of 0.
TEST(PntFiles, BrokenFilesHaveExactErrors)
{
    pcp_test::TempFolder folder;
    const std::wstring pnt = folder.file(L"broken.pnt");
    IoTransfo transfo;
    std::vector<IoLightPoint> points;
    writeBytes(pnt, Bytes(49, 1));
    EXPECT_EQ(errorText([&] { readPNT(pnt, transfo, points); }),
              "ERROR PNT READER: File size is smaller than header size.");
    EXPECT_EQ(errorText([&] { readPntHeader(pnt); }),
              "ERROR PNT READER: File size is smaller than header size.");

    Bytes file = headerBytes(testTransfo(), 1, 1);
    file.push_back(7);
    writeBytes(pnt, file);
    for (auto read :
         std::initializer_list<std::function<void()>>{[&] { readPNT(pnt, transfo, points); },
                                                      [&] { readPartialPNT(pnt, 0, 1, transfo, points); },
                                                      [&] { runPNT(pnt, [](const IoLightPoint&) {}); }})
        EXPECT_EQ(errorText(read), "ERROR PNT READER: File does not contain an integer number of points.");

    // A colour flag of 0 is refused by every reader and by the compression.
    file = headerBytes(testTransfo(), 0, 1);
    const Bytes record = recordBytes(pointFor(1));
    file.insert(file.end(), record.begin(), record.end());
    writeBytes(pnt, file);
    for (auto read :
         std::initializer_list<std::function<void()>>{
             [&] { readPNT(pnt, transfo, points); }, [&] { readPartialPNT(pnt, 0, 1, transfo, points); },
             [&] { runPNT(pnt, [](const IoLightPoint&) {}); }, [&] { pc_disk::readNode(pnt); }})
        EXPECT_EQ(errorText(read), "ERROR PNT READER: Only colorful PNT are supported.");
    EXPECT_EQ(errorText([&] { directPntToPnz(pnt, folder.file(L"c.pnz")); }),
              "ERROR PNT 2 PNZ: Only colorful PNT are supported.");
    EXPECT_FALSE(readPntHeader(pnt).colourFlag);

    const std::wstring missing = folder.file(L"missing.pnt");
    EXPECT_EQ(errorText([&] { readPartialPNT(missing, 0, 1, transfo, points); }),
              "ERROR PNT READER: Could not open file" + ws2s(missing) + ".");
}

TEST(PntFiles, RoundTripEveryFieldWithSideFiles)
{
    pcp_test::TempFolder folder;
    const std::wstring pnt = folder.file(L"節点-ä.pnt");
    const std::vector<IoLightPoint> written = pointsFor(1000);
    writeTuncatePNT(pnt, testTransfo(), written);

    // The bytes on disk, checked against the table and not against our own decoder.
    const Bytes file = readBytes(pnt);
    ASSERT_EQ(file.size(), 50u + 26u * 1000u);
    EXPECT_EQ(Bytes(file.begin(), file.begin() + 50), headerBytes(testTransfo(), 1, 1));
    EXPECT_EQ(Bytes(file.begin() + 50 + 26 * 999, file.end()), recordBytes(written[999]));

    IoTransfo transfo;
    std::vector<IoLightPoint> read;
    readPNT(pnt, transfo, read);
    EXPECT_EQ(transfo, testTransfo());
    expectSamePoints(read, withoutSideValues(written));

    writeSideFiles(pnt, written);
    readPNT(pnt, transfo, read);
    expectSamePoints(read, written);

    const PntFileInfo info = readPntHeader(pnt);
    EXPECT_EQ(info.numPoints, 1000u);
    EXPECT_TRUE(info.extended);
    EXPECT_EQ(info.transfo, testTransfo());

    // Partial reads stop at the end of the file, side values from the same index.
    readPartialPNT(pnt, 997, 10, transfo, read);
    expectSamePoints(read, {written[997], written[998], written[999]});
    readPartialPNT(pnt, 1000, 5, transfo, read);
    EXPECT_TRUE(read.empty());
    readPartialPNT(pnt, 5000, 5, transfo, read);
    EXPECT_TRUE(read.empty());

    // A side file that is too short is refused instead of being read past its end.
    writeBytes(getClassPathFromPnt(pnt), Bytes(999, 1));
    EXPECT_NE(errorText([&] { readPNT(pnt, transfo, read); }).find("shorter than its node"),
              std::string::npos);
}

// Appends, and the readers that go through the file in blocks of 65536 points, across a block's end.
TEST(PntFiles, AppendsStreamsAndReadsShortRecords)
{
    pcp_test::TempFolder folder;
    const std::wstring pnt = folder.file(L"追加.pnt");
    const std::vector<IoLightPoint> all = pointsFor(70000);
    writeTuncatePNT(pnt, testTransfo(), std::vector<IoLightPoint>(all.begin(), all.begin() + 10));
    writeAppendPNT(pnt, std::vector<IoLightPoint>(all.begin() + 10, all.end()));
    writeSideFiles(pnt, all);
    IoTransfo transfo;
    std::vector<IoLightPoint> read;
    readPNT(pnt, transfo, read);
    expectSamePoints(read, all);
    std::vector<IoLightPoint> streamed;
    runPNT(pnt, [&](const IoLightPoint& p) { streamed.push_back(p); });
    expectSamePoints(streamed, all);
    // Consuming the file gives the same points and leaves it its size, but hardly a block on the disk.
    const auto allocatedBytes = [&]
    {
        struct stat status
        {
        };
        EXPECT_EQ(stat(toPath(pnt).c_str(), &status), 0);
        return uint64_t(status.st_blocks) * 512;
    };
    const uint64_t size = std::filesystem::file_size(toPath(pnt));
    ASSERT_GE(allocatedBytes(), size);
    streamed.clear();
    consumePNT(pnt, [&](const IoLightPoint& p) { streamed.push_back(p); });
    expectSamePoints(streamed, all);
    EXPECT_EQ(std::filesystem::file_size(toPath(pnt)), size);
    EXPECT_LT(allocatedBytes(), size / 100);
    writeTuncatePNT(pnt, testTransfo(), all);
    readPartialPNT(pnt, 3, 69990, transfo, read);
    expectSamePoints(read, std::vector<IoLightPoint>(all.begin() + 3, all.begin() + 69993));

    // Files of 22-byte records read with intensity and scanId 0, and appends keep that record size.
    std::filesystem::remove(toPath(getClassPathFromPnt(pnt)));
    std::filesystem::remove(toPath(getNormalPathFromPnt(pnt)));
    Bytes file = headerBytes(testTransfo(), 1, 0);
    for (int i = 0; i < 2; ++i)
    {
        const Bytes record = recordBytes(all[i]);
        file.insert(file.end(), record.begin(), record.begin() + 22);
    }
    writeBytes(pnt, file);
    writeAppendPNT(pnt, {all[2]});
    EXPECT_EQ(readBytes(pnt).size(), 50u + 3 * 22);
    EXPECT_EQ(fileSizePNT(3, false), 50u + 3 * 22);
    readPNT(pnt, transfo, read);
    std::vector<IoLightPoint> expected = withoutSideValues({all[0], all[1], all[2]});
    for (IoLightPoint& p : expected)
        p.intensity = p.scanId = 0;
    expectSamePoints(read, expected);
}

// Whatever the planes hold, the compressed form is one standard zlib stream that plain zlib inflates to
// exactly the input and that stays within zlib's own bound: incompressible bytes, which deflate can only
// store, and a single byte. Inflating stops at the size the caller accepts, even one byte beyond it.
TEST(PnzCodec, AnyInputBecomesAStandardZlibStreamAndInflatingIsBounded)
{
    Bytes noise(size_t(1) << 20);
    uint32_t state = 99;
    for (uint8_t& b : noise)
    {
        state = state * 1664525u + 1013904223u;
        b = static_cast<uint8_t>(state >> 24);
    }
    for (const Bytes& input : {noise, Bytes{42}})
    {
        const Bytes compressed = deflatePnz(input);
        EXPECT_LE(compressed.size(), compressBound(static_cast<uLong>(input.size())));
        EXPECT_EQ(inflateWithZlib(compressed, input.size()), input);
    }
    for (const size_t size : {size_t(1001), size_t(1) << 20})
        EXPECT_EQ(errorText([&] { inflatePnz(deflatePnz(Bytes(size, 0)), 1000); }),
                  "ERROR PNZ DECOMPRESS: inflated data larger than 1000 bytes.");
    EXPECT_EQ(inflatePnz(deflatePnz(Bytes(1000, 0)), 1000).size(), 1000u);
}

// Both writers of PNZ files give one zlib stream of the PNT header and then every byte of the records in a
// plane of its own; the writer of merged nodes sets the scan index to 0, the direct conversion keeps it.
TEST(PnzFiles, BytePlanesOfBothWritersAndDirectConversionsAreExact)
{
    pcp_test::TempFolder folder;
    const std::wstring pnt = folder.file(L"ä.pnt");
    const std::wstring pnz = folder.file(L"ä.pnz");
    const std::wstring merged = folder.file(L"07.pnz");
    const std::wstring back = folder.file(L"back.pnt");
    writeTuncatePNT(pnt, testTransfo(), pointsFor(70000));
    const Bytes original = readBytes(pnt);
    // The record bytes that do not stand in their plane; the scanId planes are bytes 24 and 25.
    const auto misplaced = [&](const std::wstring& file, bool scanIds)
    {
        const Bytes inflated = inflateWithZlib(readBytes(file), original.size());
        EXPECT_EQ(Bytes(inflated.begin(), inflated.begin() + 50), headerBytes(testTransfo(), 1, 1));
        size_t wrong = inflated.size() == original.size() ? 0 : original.size();
        for (size_t i = 0; i < 70000 && wrong == 0; ++i)
            for (size_t j = 0; j < 26; ++j)
                wrong +=
                    inflated[50 + j * 70000 + i] != (j >= 24 && !scanIds ? 0 : original[50 + 26 * i + j]);
        return wrong;
    };
    const uint64_t mergedSize = writeTuncatePNZ(merged, testTransfo(), pointsFor(70000));
    EXPECT_EQ(mergedSize, readBytes(merged).size());
    EXPECT_EQ(misplaced(merged, false), 0u);

    const uint64_t pnzSize = directPntToPnz(pnt, pnz);
    EXPECT_EQ(pnzSize, readBytes(pnz).size());
    EXPECT_EQ(misplaced(pnz, true), 0u);
    EXPECT_EQ(directPnzToPnt(pnz, back), original.size());
    EXPECT_EQ(readBytes(back), original);
    EXPECT_TRUE(std::filesystem::exists(toPath(pnt)));
    EXPECT_FALSE(std::filesystem::exists(toPath(getClassPathFromPnt(pnz))));

    // Short records stay short through both conversions.
    Bytes shortFile = headerBytes(testTransfo(), 1, 0);
    const Bytes record = recordBytes(pointFor(9));
    shortFile.insert(shortFile.end(), record.begin(), record.begin() + 22);
    writeBytes(pnt, shortFile);
    directPntToPnz(pnt, pnz);
    EXPECT_EQ(directPnzToPnt(pnz, back), 72u);
    EXPECT_EQ(readBytes(back), shortFile);
}

TEST(PnzFiles, SeparateArraysRoundTripWithScanIdZero)
{
    pcp_test::TempFolder folder;
    const IoTransfo transfo = testTransfo();
    const std::vector<geom::Point3d> points = {
        {-1000.5, 20.25, 3.0}, {-3.25, -7.5, 12.125}, {4242.001, 0.0, -1.5}};
    const std::vector<float> colours = {0.0f, 0.5f, 0.25f, 65535.0f / 65536.0f, 0.125f, 0.75f,
                                        0.1f, 0.2f, 0.3f};
    const std::vector<float> intensities = {0.0f, 0.5f, 0.9f};
    const std::vector<float> radii = {1.5f, -2.0f, 3.25f};

    for (const bool compressed : {false, true})
    {
        const std::wstring node = folder.file(compressed ? L"z.pnt" : L"p.pnt");
        pc_disk::overwriteNode(node, transfo, points, colours, intensities, radii, compressed);
        auto [readTransfo, grid] = pc_disk::readNode(node);
        ASSERT_EQ(grid.size(), 3u);
        EXPECT_EQ(grid[1].x, 997250);
        EXPECT_EQ(grid[2].z, -9000);
        EXPECT_EQ(grid[0].g, 32768);
        EXPECT_EQ(grid[1].r, 65535);
        for (const IoLightPoint& p : grid)
            EXPECT_EQ(p.scanId, 0);

        std::vector<geom::Point3d> realBack(3);
        std::vector<float> coloursBack(9), intensitiesBack(3), radiiBack(3);
        IoTransfo t;
        pc_disk::readNode(node, t, realBack, coloursBack, intensitiesBack, radiiBack);
        for (size_t i = 0; i < 3; ++i)
        {
            EXPECT_NEAR(realBack[i].x, points[i].x, 0.0005);
            EXPECT_NEAR(realBack[i].y, points[i].y, 0.001);
            EXPECT_NEAR(realBack[i].z, points[i].z, 0.00025);
            EXPECT_NEAR(intensitiesBack[i], intensities[i], 1.0 / 65536);
            EXPECT_EQ(radiiBack[i], radii[i]);
        }
        for (size_t k = 0; k < 9; ++k)
            EXPECT_NEAR(coloursBack[k], colours[k], 1.0 / 65536) << k;

        std::vector<float> tooFew(2);
        EXPECT_EQ(
            errorText([&] { pc_disk::readNode(node, t, realBack, coloursBack, intensitiesBack, tooFew); }),
            compressed ? "ERROR PNZ READER: vector<OdGePoint3d> and/or vector<float> incompatible size!"
                       : "ERROR PNT READER: vector<OdGePoint3d> and/or vector<float> incompatible size!");
    }

    const std::wstring pnt = folder.file(L"w.pnt");
    EXPECT_EQ(errorText([&] { writeTuncatePNT(pnt, transfo, points, colours, {0.0f}, radii); }),
              "ERROR PNT WRITER: sizes of vector<OdGePoint3d> and vector<float> incompatible.");
    IoTransfo flat = transfo;
    flat.scale[2] = 0.0;
    EXPECT_EQ(errorText([&] { writeTuncatePNT(pnt, flat, points, colours, intensities, radii); }),
              "ERROR PNT WRITER: transfo has non-positive scale factors.");
}

TEST(PcDisk, ChoosesTheFormAndReplacesTheOther)
{
    pcp_test::TempFolder folder;
    const std::wstring pnt = folder.file(L"7.pnt");
    const std::wstring pnz = folder.file(L"7.pnz");
    const std::vector<IoLightPoint> plain = withoutSideValues(pointsFor(4));
    std::vector<IoLightPoint> merged = withoutSideValues(pointsFor(9));
    for (IoLightPoint& p : merged)
        p.scanId = 0;

    const uint64_t pnzSize = pc_disk::overwriteNode(pnt, testTransfo(), merged, true);
    EXPECT_EQ(pnzSize, readBytes(pnz).size());
    EXPECT_FALSE(std::filesystem::exists(toPath(pnt)));
    expectSamePoints(pc_disk::readNode(pnt).second, merged);  // only the PNZ exists

    writeTuncatePNT(pnt, testTransfo(), plain);  // both exist: the PNT wins
    expectSamePoints(pc_disk::readNode(pnt).second, plain);

    EXPECT_EQ(pc_disk::overwriteNode(pnt, testTransfo(), plain, false), fileSizePNT(4, true));
    EXPECT_FALSE(std::filesystem::exists(toPath(pnz)));
    pc_disk::overwriteNode(pnt, testTransfo(), merged, true);
    EXPECT_FALSE(std::filesystem::exists(toPath(pnt)));

    std::vector<IoLightPoint> run;
    pc_disk::runNode(pnt, [&](const IoLightPoint& p) { run.push_back(p); });
    expectSamePoints(run, merged);

    EXPECT_EQ(errorText([&] { pc_disk::appendNode(pnt, plain); }),
              "ERROR PNT IO ANY: append node requires pre-existence of " + ws2s(pnt));
    pc_disk::overwriteNode(pnt, testTransfo(), plain, false);
    pc_disk::appendNode(pnt, plain);
    EXPECT_EQ(pc_disk::readNode(pnt).second.size(), 8u);

    const std::wstring other = folder.file(L"8.pnt");
    EXPECT_EQ(errorText([&] { pc_disk::readNode(other); }),
              "ERROR PNT IO ANY: None of " + ws2s(other) + " or " + ws2s(folder.file(L"8.pnz")) + " exists.");
    EXPECT_EQ(errorText([&] { pc_disk::readNode(pnz); }),
              "ERROR PNT IO ANY: Input paths should have the extension *.pnt (" + ws2s(pnz) + ").");
}

TEST(NodeFiles, WrongExtensionsAndBrokenStreams)
{
    pcp_test::TempFolder folder;
    const std::wstring upper = folder.file(L"n.PNT");
    const std::wstring pnz = folder.file(L"n.pnz");
    IoTransfo t;
    std::vector<IoLightPoint> points;
    EXPECT_EQ(errorText([&] { readPNT(upper, t, points); }), "ERROR PNT READER: Extension was .PNT");
    EXPECT_EQ(errorText([&] { writeTuncatePNT(pnz, t, points); }), "ERROR PNT WRITER: Extension was .pnz");
    EXPECT_EQ(errorText([&] { writeAppendPNT(pnz, points); }), "ERROR PNT WRITER: Extension was .pnz");
    EXPECT_EQ(errorText([&] { readPNZ(upper, t, points); }), "ERROR PNZ READER: Extension was .PNT");
    EXPECT_EQ(errorText([&] { writeTuncatePNZ(upper, t, points); }), "ERROR PNZ WRITER: Extension was .PNT");
    EXPECT_EQ(errorText([&] { directPntToPnz(pnz, pnz); }), "ERROR PNT 2 PNZ: Extension PNT file was .pnz");
    EXPECT_EQ(errorText([&] { directPntToPnz(upper + L"x.pnt", upper); }),
              "ERROR PNT 2 PNZ: Extension PNZ file was .PNT");
    EXPECT_EQ(errorText([&] { directPnzToPnt(upper, upper); }),
              "ERROR PNZ 2 PNT: Extension PNZ file was .PNT");
    EXPECT_EQ(errorText([&] { directPnzToPnt(pnz, pnz); }), "ERROR PNZ 2 PNT: Extension PNT file was .pnz");

    EXPECT_EQ(errorText([&] { readPNZ(pnz, t, points); }),
              "ERROR PNZ READER: File " + ws2s(pnz) + " does not exist.");
    writeBytes(pnz, Bytes{'n', 'o', 't', ' ', 'z', 'l', 'i', 'b'});
    EXPECT_EQ(errorText([&] { readPNZ(pnz, t, points); }), "ERROR PNZ DECOMPRESS: Z_DATA_ERROR.");

    writeTuncatePNZ(pnz, testTransfo(), pointsFor(100));
    Bytes truncated = readBytes(pnz);
    truncated.resize(truncated.size() / 2);
    writeBytes(pnz, truncated);
    EXPECT_EQ(errorText([&] { readPNZ(pnz, t, points); }), "ERROR PNZ DECOMPRESS: ret != Z_STREAM_END.");

    // A valid stream whose content is no whole number of records.
    const Bytes content(50 + 27, 1);
    Bytes compressed(compressBound(content.size()));
    uLongf size = compressed.size();
    ASSERT_EQ(compress(compressed.data(), &size, content.data(), content.size()), Z_OK);
    compressed.resize(size);
    writeBytes(pnz, compressed);
    EXPECT_EQ(errorText([&] { readPNZ(pnz, t, points); }),
              "ERROR PNT READER: File does not contain an integer number of points.");
}

TEST(SerializedPoints, BuffersFlushAndWriteDirectPnz)
{
    pcp_test::TempFolder folder;
    const std::vector<IoLightPoint> points = pointsFor(5);
    SerializedPoints buffer(true, true);
    buffer.add(std::vector<IoLightPoint>(points.begin(), points.begin() + 4));
    buffer.add(points[4]);
    EXPECT_EQ(buffer.m_numBuffered, 5u);
    EXPECT_EQ(errorText([&] { buffer.clear(); }),
              "pc_preprocess::SerializedPoints: m_buffer still contains unwritten data.");

    // Header plus flushed records give the same file as the direct writer.
    const std::wstring pnt = folder.file(L"0.pnt");
    {
        std::ofstream file(toPath(pnt), std::ios::binary),
            classes(toPath(getClassPathFromPnt(pnt)), std::ios::binary),
            normals(toPath(getNormalPathFromPnt(pnt)), std::ios::binary);
        SerializedPoints::writeHeader(file, testTransfo());
        EXPECT_EQ(errorText([&] { SerializedPoints::writeHeader(file, testTransfo()); }),
                  "pc_preprocess::SerializedPoints: Header should be at the start of the file!");
        buffer.flush(file, classes, normals);
        buffer.flush(file, classes, normals);  // nothing waits: writes nothing
    }
    EXPECT_EQ(buffer.m_numBuffered, 0u);
    buffer.clear();
    IoTransfo t;
    std::vector<IoLightPoint> read;
    readPNT(pnt, t, read);
    expectSamePoints(read, points);

    // A direct PNZ keeps the scan index and writes the side files beside it.
    const std::wstring pnz = folder.file(L"1.pnz");
    buffer.add(points);
    const uint64_t pnzSize = buffer.writeDirectPnz(pnz, testTransfo());
    EXPECT_EQ(pnzSize, readBytes(pnz).size());
    EXPECT_EQ(buffer.m_numBuffered, 0u);
    readPNZ(pnz, t, read);
    expectSamePoints(read, points);
    EXPECT_EQ(t, testTransfo());

    // An empty root is an empty node.
    SerializedPoints empty;
    empty.writeDirectPnz(pnz, testTransfo());
    EXPECT_EQ(inflateWithZlib(readBytes(pnz), 50), headerBytes(testTransfo(), 1, 1));
}

// Each writer on a full disk: the file size limit makes the kernel refuse blocks as a full disk would, and
// the writers must report that with their message instead of dying of a signal on a store into the mapping.
TEST(NodeFiles, FullDiskIsReportedByEveryWriter)
{
    pcp_test::TempFolder folder;
    const std::wstring pnt = folder.file(L"full.pnt");
    const std::wstring fresh = folder.file(L"fresh.pnt");
    const std::wstring pnz = folder.file(L"full.pnz");
    const std::wstring source = folder.file(L"source.pnt");
    std::vector<IoLightPoint> points = pointsFor(4000);
    for (IoLightPoint& p : points)  // noise that deflate cannot shrink below the limit
    {
        p.x = static_cast<int32_t>(static_cast<uint32_t>(p.x) * 2654435761u);
        p.radius = static_cast<float>(p.y) * 1.37f;
    }
    writeTuncatePNT(source, testTransfo(), points);
    writeTuncatePNT(pnt, testTransfo(), {points[0]});

    const std::vector<std::pair<std::string, std::function<void()>>> writers = {
        {"writeTuncatePNT : Could not (fully) write " + ws2s(fresh) + "\nDisk full?",
         [&] { writeTuncatePNT(fresh, testTransfo(), points); }},
        {"writeAppendPNT : Could not (fully) write " + ws2s(pnt) + "\nDisk full?",
         [&] { writeAppendPNT(pnt, points); }},
        {"writeTuncatePNZ : Could not (fully) write " + ws2s(pnz) + "\nDisk full?",
         [&] { writeTuncatePNZ(pnz, testTransfo(), points); }},
        {"directPntToPnz : Could not (fully) write " + ws2s(pnz) + "\nDisk full?",
         [&] { directPntToPnz(source, pnz); }},
        {"SerializedPoints: Could not (fully) write " + ws2s(pnz) + "\nDisk full?",
         [&]
         {
             SerializedPoints buffer;
             buffer.add(points);
             buffer.writeDirectPnz(pnz, testTransfo());
         }},
    };
    const std::wstring outcome = folder.file(L"outcome.txt");  // short enough to pass the limit
    for (const auto& [expected, write] : writers)
    {
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0)
        {
            signal(SIGXFSZ, SIG_IGN);
            const rlimit limit{8192, 8192};
            setrlimit(RLIMIT_FSIZE, &limit);
            const std::string text = errorText(write);
            std::ofstream(toPath(outcome), std::ios::trunc) << text;
            _exit(0);
        }
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_TRUE(WIFEXITED(status)) << "the writer died of signal " << WTERMSIG(status);
        EXPECT_EQ(pcp_test::readText(outcome), expected);
    }

    // A folder that does not exist fails the same way, in this process.
    const std::wstring nowhere = folder.file(L"no-folder/x.pnt");
    EXPECT_EQ(errorText([&] { writeTuncatePNT(nowhere, testTransfo(), points); }),
              "writeTuncatePNT : Could not (fully) write " + ws2s(nowhere) + "\nDisk full?");
}

// The fuzzing seeds and every input that once upset the fuzz target, through the file readers: each one reads
// or fails with the library's error, never worse (the sanitizer build makes "worse" visible).
TEST(NodeFiles, FuzzInputsReadOrFailCleanly)
{
    pcp_test::TempFolder folder;
    const std::wstring pnt = folder.file(L"f.pnt");
    const std::wstring pnz = folder.file(L"f.pnz");
    size_t decoded = 0;
    const auto readBoth = [&](const std::string& bytes, const std::filesystem::path&)
    {
        IoTransfo t;
        std::vector<IoLightPoint> points;
        for (const std::wstring& file : {pnt, pnz})
        {
            writeBytes(file, Bytes(bytes.begin(), bytes.end()));
            try
            {
                file == pnt ? readPNT(file, t, points) : readPNZ(file, t, points);
                ++decoded;
            }
            catch (const std::runtime_error&)
            {
            }
        }
    };
    pcp_test::replayFuzzCorpus("nodefiles", readBoth);
    EXPECT_GE(decoded, 8u);  // the seeds of 0, 1 and 3 points and of short records, each in its own form
}
