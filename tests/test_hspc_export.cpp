// Points out of the library into an HSPC data set: the records the converter pulls, the exporter's checks
// and outcomes, and a tree build that ends in a data set instead of an octree.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <stdexcept>

#include "cachefiles/CacheFiles.h"
#include "cachefiles/MetaFile.h"
#include "cachefiles/PntFiles.h"
#include "core/StringConversion.h"
#include "exporters/HspcExporter.h"
#include "hspc/format/MortonIndex3D.h"
#include "importers/TandToHspcImporter.h"
#include "octree/BuildTree.h"
#include "scanview/NormalCodes.h"
#include "services/Logger.h"
#include "support/ErrorText.h"
#include "support/FileText.h"
#include "support/HspcDataSetPoints.h"
#include "support/TempFolder.h"

using namespace pc_preprocess;
namespace fs = std::filesystem;
using pcp_test::DataSetPoint;
using pcp_test::allAttributes;
using pcp_test::errorText;
using pcp_test::millimetreGrid;
using pcp_test::expectSamePointsLessDuplicates;

namespace
{

// Hands out `points` in batches of the given sizes, then nothing.
Exporter::BatchSource batchesOf(const std::vector<ExportPoint>& points, std::vector<size_t> sizes)
{
    auto next = std::make_shared<size_t>(0);
    auto batch = std::make_shared<size_t>(0);
    return [points, sizes, next, batch](std::vector<ExportPoint>& out)
    {
        if (*batch >= sizes.size())
            return false;
        for (size_t i = 0; i < sizes[*batch]; ++i)
            out.push_back(points.at((*next)++));
        ++*batch;
        return true;
    };
}

template <typename T>
T field(const uint8_t* record, size_t offset)
{
    T value;
    std::memcpy(&value, record + offset, sizeof value);
    return value;
}

std::array<int32_t, 3> cellOf(const uint8_t* record)
{
    HSPC::MortonIndex3D<uint32_t> code;
    std::memcpy(code.words.data(), record, 12);
    const auto cell = HSPC::decodeMortonSigned(code);
    return {cell[0], cell[1], cell[2]};
}

// Points on a millimetre grid around (100, 200, 10), with attributes derived from their number so that any
// point can be checked; cells repeat every `distinct` points, and a repeat differs from the first only in its
// intensity, so that the converter's duplicate filter has something to drop.
std::vector<ExportPoint> gridPoints(size_t count, size_t distinct)
{
    std::vector<ExportPoint> points;
    for (size_t n = 0; n < count; ++n)
    {
        const size_t i = n % distinct;
        ExportPoint p;
        p.position = {100.0 + 0.001 * double(i % 97) * 7, 200.0 + 0.001 * double(i / 97 % 89) * 5,
                      10.0 + 0.001 * double(i / (97 * 89))};
        p.radius = float(i % 13) * 0.125f;
        p.classification = int32_t(i % 5);
        p.scanId = int32_t(i % 3);
        p.r = uint16_t(i * 3);
        p.g = uint16_t(i * 5);
        p.b = uint16_t(i * 7);
        p.intensity = uint16_t(n / distinct);
        p.normal = i % 2 ? geom::Vector3d{0.0, 0.0, 1.0} : geom::Vector3d{0.6, 0.0, -0.8};
        points.push_back(p);
    }
    return points;
}

DataSetPoint expectedOf(const ExportPoint& p, const IoTransfo& grid)
{
    DataSetPoint d;
    d.cell = {int32_t(std::llround((p.position.x - grid.offset[0]) / grid.scale[0])),
              int32_t(std::llround((p.position.y - grid.offset[1]) / grid.scale[1])),
              int32_t(std::llround((p.position.z - grid.offset[2]) / grid.scale[2]))};
    d.radius = p.radius;
    d.r = p.r;
    d.g = p.g;
    d.b = p.b;
    d.intensity = p.intensity;
    d.classification = uint8_t(p.classification);
    d.scanId = uint16_t(p.scanId);
    d.normal = encodeNormal(p.normal);
    return d;
}

std::string fileText(const fs::path& path)
{
    return pcp_test::readText(path);
}

}  // namespace

TEST(TandToHspcImporter, RecordsFollowTheFlagsTheGridAndTheBatchLimit)
{
    EXPECT_EQ(TandToHspcImporter::recordSize({}), 12u);
    EXPECT_EQ(TandToHspcImporter::recordSize(allAttributes()), 29u);
    std::vector<std::string> names;
    for (const HSPC::Attribute& attribute : TandToHspcImporter::attributes(allAttributes()))
        names.push_back(std::to_string(attribute.type) + " " + std::to_string(attribute.role) + " " + attribute.name);
    EXPECT_EQ(names, (std::vector<std::string>{"10 0 Position", "8 100 TandorelPointSize", "1 4 Red", "1 5 Green",
                                               "1 6 Blue", "1 8 Intensity", "0 9 Classification", "1 24 ScanID",
                                               "1 100 Normal"}));

    // Five points in source batches of 3 and 2, moved by the transform onto a grid of uneven steps; point k
    // lands in cell (k, -k, 2k). A sixth far away leaves the 32-bit grid and is left out.
    std::vector<ExportPoint> points;
    for (int k = 0; k < 6; ++k)
    {
        ExportPoint p;
        p.position = {9.0 + 0.01 * k, 18.0 - 0.02 * k, 27.0 + 1.0 * k};
        if (k == 3)
            p.position.x = 1e12;
        p.radius = 0.25f * float(k);
        p.classification = k == 1 ? -1 : 7 + k;
        p.scanId = k == 2 ? -1 : k;
        p.r = uint16_t(1000 + k);
        p.g = uint16_t(2000 + k);
        p.b = uint16_t(3000 + k);
        p.intensity = uint16_t(40000 + k);
        p.normal = {0.0, 0.0, -1.0};
        points.push_back(p);
    }
    TandToHspcImporter importer(batchesOf(points, {3, 3}), allAttributes(), {10.0, 20.0, 30.0}, {0.01, 0.02, 0.5},
                                geom::Matrix3d::translation({1.0, 2.0, 3.0}));
    EXPECT_EQ(importer.origin(), (std::array<double, 3>{10.0, 20.0, 30.0}));
    EXPECT_EQ(importer.scale(), (std::array<double, 3>{0.01, 0.02, 0.5}));

    HSPC::HSPCBuffer<uint8_t> buffer;
    EXPECT_EQ(importer.readBatch(buffer, 28), HSPC::ReadResult::kRequestFailed) << "not one record fits";
    std::vector<std::vector<uint8_t>> batches;
    HSPC::ReadResult result;
    while ((result = importer.readBatch(buffer, 2 * 29 + 28)) == HSPC::ReadResult::kData)
        batches.emplace_back(buffer.begin(), buffer.end());
    EXPECT_EQ(result, HSPC::ReadResult::kEnd);
    EXPECT_EQ(importer.readBatch(buffer, 1000), HSPC::ReadResult::kEnd) << "the end stays the end";
    // Two records a batch, across the source's batches; the point off the grid takes no room.
    ASSERT_EQ(batches.size(), 3u);
    EXPECT_EQ(batches[0].size(), 2 * 29u);
    EXPECT_EQ(batches[1].size(), 2 * 29u);
    EXPECT_EQ(batches[2].size(), 1 * 29u);
    EXPECT_EQ(importer.totalPoints(), 6u);
    EXPECT_EQ(importer.pointsOffGrid(), 1u);

    std::vector<uint8_t> records;
    for (const auto& batch : batches)
        records.insert(records.end(), batch.begin(), batch.end());
    size_t record = 0;
    for (int k : {0, 1, 2, 4, 5})
    {
        SCOPED_TRACE(k);
        const uint8_t* r = records.data() + 29 * record++;
        EXPECT_EQ(cellOf(r), (std::array<int32_t, 3>{k, -k, 2 * k}));
        EXPECT_EQ(field<float>(r, 12), 0.25f * float(k));
        EXPECT_EQ(field<uint16_t>(r, 16), 1000 + k);
        EXPECT_EQ(field<uint16_t>(r, 18), 2000 + k);
        EXPECT_EQ(field<uint16_t>(r, 20), 3000 + k);
        EXPECT_EQ(field<uint16_t>(r, 22), 40000 + k);
        EXPECT_EQ(field<uint8_t>(r, 24), k == 1 ? 0 : 7 + k) << "a point without class has class 0";
        EXPECT_EQ(field<uint16_t>(r, 25), k == 2 ? 0 : k) << "a point without scan has scan 0";
        EXPECT_EQ(field<uint16_t>(r, 27), 65143) << "the south pole's code";
    }

    // The converter's workers get the records as they are.
    HSPC::HSPCBuffer<uint8_t> input(records.begin(), records.end());
    HSPC::HSPCBuffer<uint8_t> output;
    EXPECT_TRUE(importer.convertBatch(input, output));
    EXPECT_TRUE(std::equal(output.begin(), output.end(), records.begin(), records.end()));

    // Without flags a record is the position alone.
    TandToHspcImporter bare(batchesOf(points, {2}), {}, {10.0, 20.0, 30.0}, {0.01, 0.02, 0.5},
                            geom::Matrix3d::translation({1.0, 2.0, 3.0}));
    ASSERT_EQ(bare.readBatch(buffer, 1000), HSPC::ReadResult::kData);
    ASSERT_EQ(buffer.size(), 24u);
    EXPECT_EQ(cellOf(buffer.data() + 12), (std::array<int32_t, 3>{1, -1, 2}));
}

TEST(TandToHspcImporter, ASourceThatThrowsEndsTheInputAsFailed)
{
    int calls = 0;
    TandToHspcImporter importer(
        [&calls](std::vector<ExportPoint>& out)
        {
            if (++calls > 1)
                throw std::runtime_error("scan file vanished");
            out.resize(3);
            return true;
        },
        {}, {0.0, 0.0, 0.0}, {1.0, 1.0, 1.0}, geom::Matrix3d::identity());
    HSPC::HSPCBuffer<uint8_t> buffer;
    EXPECT_EQ(importer.readBatch(buffer, 1000), HSPC::ReadResult::kRequestFailed);
    ASSERT_TRUE(importer.sourceError());
    EXPECT_EQ(errorText([&] { std::rethrow_exception(importer.sourceError()); }), "scan file vanished");
    EXPECT_EQ(importer.totalPoints(), 3u);
    EXPECT_EQ(importer.readBatch(buffer, 1000), HSPC::ReadResult::kRequestFailed) << "and is not asked again";
    EXPECT_EQ(calls, 2);
}

TEST(HspcExporter, ConstructorRefusesWhatCannotHoldADataSet)
{
    pcp_test::TempFolder temp;
    const fs::path empty = temp.path() / "empty";
    const fs::path full = temp.path() / "full";
    fs::create_directory(empty);
    fs::create_directory(full);
    std::ofstream(full / "a.txt") << "x";
    const fs::path missing = temp.path() / "missing";
    IoTransfo flat = millimetreGrid();
    flat.scale[1] = 0.0;

    EXPECT_EQ(errorText([&] { HspcExporter(toWide(empty), {}, flat, false, nullptr); }),
              "HspcExporter: scale{X,Y,Z} not all positive.");
    for (const fs::path& folder : {full, missing})
        EXPECT_EQ(errorText([&] { HspcExporter(toWide(folder), {}, millimetreGrid(), false, nullptr); }),
                  "HspcExporter: " + folder.string() + " is not an existing empty folder.");
    EXPECT_EQ(errorText([&] { HspcExporter(toWide(missing), {}, millimetreGrid(), true, nullptr); }),
              "HspcExporter: " + missing.string() + " is not an existing empty folder.");
    EXPECT_EQ(errorText([&] { HspcExporter(toWide(full), {}, millimetreGrid(), true, nullptr); }), "(no exception)");
    EXPECT_EQ(errorText([&] { HspcExporter(toWide(empty), {}, millimetreGrid(), false, nullptr); }),
              "(no exception)");
}

TEST(HspcExporter, DataSetHoldsThePointsWithTheirAttributesAsFolderOrArchive)
{
    pcp_test::TempFolder temp;
    const IoTransfo grid = millimetreGrid();
    // 30000 cells, 6000 of them twice.
    const std::vector<ExportPoint> points = gridPoints(36000, 30000);
    std::vector<DataSetPoint> expected;
    for (const ExportPoint& p : points)
        expected.push_back(expectedOf(p, grid));

    for (const bool pack : {false, true})
    {
        SCOPED_TRACE(pack ? "pack" : "folder");
        const fs::path folder = temp.path() / (pack ? "pack" : "folder");
        fs::create_directory(folder);
        auto logger = std::make_shared<Logger>(toWide(folder.parent_path() / (folder.filename().string() + ".log")),
                                               true, false);
        HspcExporter exporter(toWide(folder), geom::Matrix3d::identity(), grid, false, logger);
        exporter.setSupportedAttributes(allAttributes());
        exporter.setWkt("LOCAL_CS[\"site\"]");
        exporter.setSourceUnits(geom::kUnitsMeters);
        exporter.setThreads(2);
        if (pack)
            exporter.setPackArchiveName("site");
        ASSERT_EQ(exporter.run(batchesOf(points, std::vector<size_t>(36, 1000))), points.size());

        EXPECT_FALSE(fs::exists(folder / "temp"));
        const pcp_test::DataSetContent content =
            pcp_test::readDataSetPoints(pack ? folder / "site.hspc.pack" : folder);
        expectSamePointsLessDuplicates(expected, content.points);
        EXPECT_EQ(content.tree.header.origin, grid.offset);
        EXPECT_EQ(content.tree.header.scale, grid.scale);
        if (!pack)
        {
            const std::string info = fileText(folder / "hspcInfo.json");
            EXPECT_NE(info.find("\"projection-wkt\""), std::string::npos) << info;
            EXPECT_NE(info.find("LOCAL_CS"), std::string::npos) << info;
            EXPECT_NE(info.find("\"coordinates-unit\""), std::string::npos) << info;
            EXPECT_NE(info.find("Meters"), std::string::npos) << info;
        }
        // The converter speaks through the run's log.
        const std::string log = fileText(folder.parent_path() / (folder.filename().string() + ".log"));
        EXPECT_NE(log.find("\tHSPC Library info: "), std::string::npos) << log;
    }
}

TEST(HspcExporter, EmptySourceCancelAndFailuresLeaveNoScratch)
{
    pcp_test::TempFolder temp;
    const auto folderFor = [&](const std::string& name)
    {
        fs::create_directory(temp.path() / name);
        return temp.path() / name;
    };
    {
        // No points at all: an empty data set, and 0.
        const fs::path folder = folderFor("empty");
        HspcExporter exporter(toWide(folder), {}, millimetreGrid(), false, nullptr);
        EXPECT_EQ(exporter.run([](std::vector<ExportPoint>&) { return false; }), 0u);
        EXPECT_FALSE(fs::exists(folder / "temp"));
    }
    {
        // Cancelled from the start: the conversion fails, with the converter's failures in the log.
        const fs::path folder = folderFor("cancelled");
        const fs::path logPath = temp.path() / "cancelled.log";
        auto logger = std::make_shared<Logger>(toWide(logPath), true, false);
        HspcExporter exporter(toWide(folder), {}, millimetreGrid(), false, logger);
        exporter.setCancelPredicate([] { return true; });
        EXPECT_EQ(errorText([&] { exporter.run(batchesOf(gridPoints(5000, 5000), {5000})); }),
                  "HSPCExport ERROR: Failure during the hspc conversion process.");
        EXPECT_FALSE(fs::exists(folder / "temp"));
        EXPECT_NE(fileText(logPath).find("\tHSPC Library error: "), std::string::npos) << fileText(logPath);
    }
    {
        // A source that fails: its own error, not the converter's.
        const fs::path folder = folderFor("broken");
        HspcExporter exporter(toWide(folder), {}, millimetreGrid(), false, nullptr);
        EXPECT_EQ(errorText([&]
                            { exporter.run([](std::vector<ExportPoint>&) -> bool { throw std::runtime_error("gone"); }); }),
                  "gone");
        EXPECT_FALSE(fs::exists(folder / "temp"));
    }
    {
        // Something in the way of the scratch folder.
        const fs::path folder = folderFor("blocked");
        HspcExporter exporter(toWide(folder), {}, millimetreGrid(), true, nullptr);
        std::ofstream(folder / "temp") << "x";
        EXPECT_EQ(errorText([&] { exporter.run([](std::vector<ExportPoint>&) { return false; }); }),
                  "HspcExport ERROR: Could not create " + (folder / "temp").string());
    }
}

namespace
{

// A cache folder whose scans' files are written as a run leaves them, built into an HSPC data set.
struct HspcBuild
{
    HspcBuild(const pcp_test::TempFolder& temp, const std::string& name, bool pack)
        : folder(temp.path() / name), files(toWide(folder), L"cache", true, pack)
    {
        fs::create_directories(folder / "Data");
        logger = std::make_shared<Logger>(files.getLogFile(), true, false);
        logger->increaseStep("Read");
    }

    void addScan(const std::vector<IoLightPoint>& points)
    {
        const std::wstring stem =
            toWide(folder / "Data" / ("scan-" + std::to_string(scans.size()) + "-0000-temp"));
        ScanFiles scan;
        scan.pntFile = stem + L".pnt";
        scan.metaFile = stem + L".meta";
        writeTuncatePNT(scan.pntFile, transfo, points);
        MetaData meta;
        for (const IoLightPoint& p : points)
            meta.extents.extend(p);
        meta.numPoints = points.size();
        writeMetaFile(scan.metaFile, meta);
        scans.push_back(scan);
    }

    void run(const std::function<bool()>& cancel = nullptr)
    {
        buildTree(scans, toWide(folder), files, transfo, attributes, 2, logger, false, true, false, "",
                  geom::kUnitsMeters, cancel);
    }

    std::string log() const { return fileText(toPath(files.getLogFile())); }

    std::string finalPercentage()
    {
        logger.reset();
        return fileText(toPath(files.getLogFile()).replace_extension(".pct"));
    }

    // The folder's entries apart from the log, the percentage file and the emptied "Data" folder.
    std::set<std::string> leftovers() const
    {
        std::set<std::string> names;
        for (const auto& entry : fs::directory_iterator(folder))
            names.insert(entry.path().filename().string());
        for (const char* name : {"cache.log", "cache.pct", "Data"})
            names.erase(name);
        return names;
    }

    fs::path folder;
    CacheFiles files;
    IoTransfo transfo = millimetreGrid();
    SupportedAttributes attributes;
    std::shared_ptr<Logger> logger;
    std::vector<ScanFiles> scans;
};

std::vector<IoLightPoint> scanPoints(size_t count, int32_t shift)
{
    std::vector<IoLightPoint> points;
    for (size_t i = 0; i < count; ++i)
    {
        IoLightPoint p;
        p.x = int32_t(i % 211) * 3 + shift;
        p.y = int32_t(i / 211 % 199) * 2;
        p.z = int32_t(i / (211 * 199));
        p.radius = 0.5f;
        p.r = p.g = p.b = 0;
        p.intensity = uint16_t(i);
        points.push_back(p);
    }
    return points;
}

}  // namespace

TEST(BuildHspc, ScansBecomeTheDataSetThatTheCacheFilesName)
{
    pcp_test::TempFolder temp;
    for (const bool pack : {false, true})
    {
        SCOPED_TRACE(pack ? "pack" : "folder");
        HspcBuild build(temp, pack ? "packed" : "plain", pack);
        build.attributes.intensity = true;
        build.addScan(scanPoints(40000, 0));
        build.addScan(scanPoints(30000, 1));
        build.run();

        // Colour comes with intensity; a run without normals in its scans and none asked for gets none.
        EXPECT_TRUE(build.attributes.color);
        EXPECT_FALSE(build.attributes.normals);
        const std::string log = build.log();
        for (const char* line : {"Running preprocessing HSPC-style", "Started converting to HSPC",
                                 "Finished converting HSPC : Elapsed time = "})
            EXPECT_NE(log.find(line), std::string::npos) << line << "\n" << log;
        EXPECT_EQ(log.find("failed to create hspc file"), std::string::npos) << log;
        // The scans' files are consumed; the data set stands where the cache files say.
        EXPECT_TRUE(fs::is_empty(build.folder / "Data"));
        EXPECT_TRUE(fs::exists(toPath(build.files.getTreeFile())));
        EXPECT_EQ(fs::path(toPath(build.files.getTreeFile())).filename(), pack ? "cache.hspc.pack" : "queryTree.hspc");
        EXPECT_FALSE(fs::exists(build.folder / "temp"));

        const pcp_test::DataSetContent content =
            pcp_test::readDataSetPoints(pack ? toPath(build.files.getTreeFile()) : build.folder);
        std::vector<DataSetPoint> expected;
        for (int32_t shift : {0, 1})
            for (const IoLightPoint& p : scanPoints(shift == 0 ? 40000 : 30000, shift))
            {
                DataSetPoint d;
                d.cell = {p.x, p.y, p.z};
                d.intensity = p.intensity;
                expected.push_back(d);
            }
        expectSamePointsLessDuplicates(expected, content.points);
    }
}

TEST(BuildHspc, CancelAndBrokenScansLeaveNoDataSet)
{
    pcp_test::TempFolder temp;
    {
        // The cancel comes once the first scan has been read: the conversion stops, and nothing of it stays.
        HspcBuild build(temp, "cancelled", false);
        build.addScan(scanPoints(50000, 0));
        build.addScan(scanPoints(50000, 1));
        const fs::path firstScan = toPath(build.scans[0].pntFile);
        EXPECT_EQ(errorText([&] { build.run([&] { return !fs::exists(firstScan); }); }),
                  "Preprocessing cancelled by user.");
        EXPECT_EQ(build.leftovers(), std::set<std::string>{});
        EXPECT_EQ(build.finalPercentage(), "CANCEL");
    }
    {
        // A scan file that cannot be read fails the build with its reason, and again nothing stays.
        HspcBuild build(temp, "broken", false);
        build.addScan(scanPoints(1000, 0));
        build.addScan(scanPoints(1000, 1));
        fs::resize_file(toPath(build.scans[1].pntFile), 20);
        const std::string error = errorText([&] { build.run(); });
        EXPECT_NE(error, "(no exception)");
        build.logger->outputErrors({});
        EXPECT_NE(build.log().find("ERROR converting HSPC :\n\t" + error), std::string::npos) << build.log();
        EXPECT_EQ(build.leftovers(), std::set<std::string>{});
        EXPECT_EQ(build.finalPercentage(), "FAIL");
    }
}
