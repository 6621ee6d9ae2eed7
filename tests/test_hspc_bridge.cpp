// HSPC data sets as the input of a run: which paths the importer takes, the points it hands to the cache,
// and how broken or unusual data sets stop the file.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cmath>
#include <cstring>
#include <fstream>
#include <sstream>
#include <set>
#include <tuple>

#include "cachefiles/PnzFiles.h"
#include "cachefiles/VrmFile.h"
#include "core/ImporterFactory.h"
#include "core/StringConversion.h"
#include "exporters/HspcExporter.h"
#include "hspc/format/NodeBlobName.h"
#include "hspc/format/NodeHeader.h"
#include "hspc/store/FolderStore.h"
#include "hspc/tree/SerializeTree.h"
#include "hspc/tree/TreeGeometry.h"
#include "importers/HspcImporter.h"
#include "importers/hspc/HspcValues.h"
#include "scanview/NormalCodes.h"
#include "support/ErrorText.h"
#include "support/FileText.h"
#include "support/HspcConversionSetup.h"
#include "support/HspcDataSetPoints.h"
#include "support/ImportRun.h"
#include "support/TempFolder.h"

using namespace pc_preprocess;
namespace fs = std::filesystem;
using pcp_test::allAttributes;
using pcp_test::errorText;
using pcp_test::millimetreGrid;

namespace
{

// Points of a millimetre grid around (100, 200, 10), every attribute derived from the point's number.
std::vector<ExportPoint> numberedPoints(size_t count)
{
    std::vector<ExportPoint> points;
    for (size_t i = 0; i < count; ++i)
    {
        ExportPoint p;
        p.position = {100.0 + 0.001 * double(i % 101) * 3, 200.0 + 0.001 * double(i / 101 % 97) * 7,
                      10.0 + 0.001 * double(i / (101 * 97))};
        p.radius = float(i % 11) * 0.25f;
        p.classification = int32_t(i % 7);
        p.scanId = int32_t(i % 4);
        p.r = uint16_t(i * 3);
        p.g = uint16_t(i * 5 + 1);
        p.b = uint16_t(i * 7 + 2);
        p.intensity = uint16_t(i * 11);
        p.normal = i % 2 ? geom::Vector3d{0.0, 0.0, 1.0} : geom::Vector3d{0.6, 0.0, -0.8};
        points.push_back(p);
    }
    return points;
}

// Writes `points` as a data set into the folder `target`, or as the archive "<name>.hspc.pack" in it.
void exportDataSet(const fs::path& target, const std::vector<ExportPoint>& points, const std::string& packName = {})
{
    fs::create_directories(target);
    HspcExporter exporter(toWide(target), geom::Matrix3d::identity(), millimetreGrid(), false, nullptr);
    exporter.setSupportedAttributes(allAttributes());
    exporter.setThreads(2);
    if (!packName.empty())
        exporter.setPackArchiveName(packName);
    size_t next = 0;
    exporter.run(
        [&](std::vector<ExportPoint>& batch)
        {
            for (; next < points.size() && batch.size() < 5000; ++next)
                batch.push_back(points[next]);
            return !batch.empty();
        });
}

using PointKey = std::tuple<int32_t, int32_t, int32_t, uint16_t, uint16_t, uint16_t, uint16_t, int, int, uint16_t,
                            float>;

PointKey keyOf(const IoLightPoint& p)
{
    return {p.x, p.y, p.z, p.r, p.g, p.b, p.intensity, p.classification, p.scanId,
            encodeNormal({p.nx, p.ny, p.nz}), p.radius};
}

PointKey keyOf(const ExportPoint& p, const IoTransfo& grid)
{
    const auto cell = [&](int axis, double v)
    { return static_cast<int32_t>(std::lround((v - grid.offset[axis]) / grid.scale[axis])); };
    return {cell(0, p.position.x), cell(1, p.position.y), cell(2, p.position.z), p.r, p.g, p.b, p.intensity,
            p.classification, p.scanId, encodeNormal(p.normal), p.radius};
}

pcp_test::ImporterMaker hspcImporterOf(const fs::path& input)
{
    return [input](const ColorMode& mode) { return std::make_unique<HspcImporter>(toWide(input), 1.0, mode); };
}

pcp_test::ImportRun importOnGrid(const pcp_test::TempFolder& temp, const fs::path& input)
{
    pcp_test::ImportSettings settings;
    settings.grid = millimetreGrid();
    return pcp_test::runImport(temp, hspcImporterOf(input), ColorMode(kRgb16Bit, kIntensity16Bit), 0.001, settings);
}

// Replaces the attribute list in the header of the node block at `file`, keeping its payload.
void rewriteNodeAttributes(const fs::path& file, const std::vector<HSPC::Attribute>& attributes)
{
    const std::string text = pcp_test::readText(file);
    const std::vector<uint8_t> block(text.begin(), text.end());
    HSPC::NodeHeader header;
    const size_t payloadAt = HSPC::readNodeHeader(block, header);
    ASSERT_GT(payloadAt, 0u);
    header.attributes = attributes;
    header.headerSize = uint32_t(HSPC::nodeHeaderSize(attributes));
    header.chunkSize = header.headerSize + header.payloadSize;
    std::vector<uint8_t> bytes;
    HSPC::writeNodeHeader(header, bytes);
    bytes.insert(bytes.end(), block.begin() + std::ptrdiff_t(payloadAt), block.end());
    std::ofstream(file, std::ios::binary | std::ios::trunc)
        .write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
}

// The block file of the root of the data set in `folder`.
fs::path rootBlock(const fs::path& folder)
{
    HSPC::FolderReader reader(folder.string());
    std::vector<uint8_t> bytes;
    EXPECT_TRUE(reader.read(HSPC::kQueryTreeName, bytes));
    HSPC::Tree tree;
    EXPECT_TRUE(HSPC::loadTree(bytes, tree, [](const std::string& e) { ADD_FAILURE() << e; }));
    const auto corners = HSPC::nodeCorners(tree);
    return folder / HSPC::nodeBlobName(HSPC::nodeLods(tree)[0], corners[0][0], corners[0][1], corners[0][2]).substr(1);
}

}  // namespace

TEST(HspcImporter, TakesQueryTreesAndArchivesAndRefusesOtherPaths)
{
    pcp_test::TempFolder temp;
    exportDataSet(temp.path() / "set", numberedPoints(100));
    exportDataSet(temp.path() / "packed", numberedPoints(100), "scan");
    const fs::path queryTree = temp.path() / "set" / "queryTree.hspc";
    const fs::path archive = temp.path() / "packed" / "scan.hspc.pack";
    ASSERT_TRUE(fs::is_regular_file(archive));

    const std::string refused = "HspcImporter ERROR: inFile needs to be /path/to/queryTree.hspc";
    EXPECT_EQ(errorText([&] { HspcImporter(toWide(temp.path() / "set" / "tree.hspc"), 1.0, {}); }), refused);
    // The factory sends every HSPC name to the importer, which alone decides.
    EXPECT_EQ(errorText([&] { createImporter(InputFileData(toWide(temp.path() / "set" / "tree.hspc"), 1.0)); }),
              refused);
    for (const fs::path& input : {queryTree, archive})
    {
        const auto importer = createImporter(InputFileData(toWide(input), 1.0));
        EXPECT_NE(dynamic_cast<HspcImporter*>(importer.get()), nullptr) << input;
        const ProbeResult probe = importer->probe(0.001, {});
        EXPECT_TRUE(importer->getWarnings().empty()) << input;
        EXPECT_FALSE(probe.hasScanViews);
        EXPECT_TRUE(probe.hasNormals && probe.hasClasses) << input;
    }
}

TEST(HspcImporter, HandsOverEveryPointOfTheDataSetWithItsAttributes)
{
    pcp_test::TempFolder temp;
    // Enough points for a tree of several lods.
    const std::vector<ExportPoint> points = numberedPoints(150000);
    exportDataSet(temp.path() / "set", points);
    exportDataSet(temp.path() / "packed", points, "tree");
    std::multiset<PointKey> expected;
    for (const ExportPoint& p : points)
        expected.insert(keyOf(p, millimetreGrid()));

    for (const fs::path& input : {temp.path() / "set" / "queryTree.hspc", temp.path() / "packed" / "tree.hspc.pack"})
    {
        SCOPED_TRACE(input);
        const pcp_test::ImportRun run = importOnGrid(temp, input);
        ASSERT_EQ(run.scans.size(), 1u);
        std::multiset<PointKey> got;
        for (const IoLightPoint& p : run.points)
            got.insert(keyOf(p));
        EXPECT_EQ(got.size(), expected.size());
        EXPECT_TRUE(got == expected);
        std::vector<PointKey> missing;
        std::set_difference(expected.begin(), expected.end(), got.begin(), got.end(), std::back_inserter(missing));
        for (size_t i = 0; i < std::min<size_t>(missing.size(), 3); ++i)
            ADD_FAILURE() << ::testing::PrintToString(missing[i]);
        std::vector<PointKey> extra;
        std::set_difference(got.begin(), got.end(), expected.begin(), expected.end(), std::back_inserter(extra));
        for (size_t i = 0; i < std::min<size_t>(extra.size(), 3); ++i)
            ADD_FAILURE() << "extra " << ::testing::PrintToString(extra[i]);

        EXPECT_EQ(run.attributes, allAttributes());
        EXPECT_TRUE(run.converter->validTandSize());
        EXPECT_TRUE(run.meta.validTandSize);
        EXPECT_EQ(run.meta.numPoints, points.size());
        // Progress counts nodes: it moves on with every node of the tree.
        EXPECT_GT(run.progress.size(), 3u);
        EXPECT_TRUE(std::is_sorted(run.progress.begin(), run.progress.end()));
        EXPECT_LE(run.progress.back(), 1.0);
        // The probe's grid is centred on a point of the data set, on whole units.
        EXPECT_EQ(run.probe.transfo.scale, (std::array<double, 3>{0.001, 0.001, 0.001}));
        for (const double offset : run.probe.transfo.offset)
            EXPECT_EQ(offset, std::round(offset));
    }
}

TEST(HspcImporter, NodesThatLackCoordinatesOrBreakStopTheFile)
{
    pcp_test::TempFolder temp;
    const fs::path folder = temp.path() / "set";
    exportDataSet(folder, numberedPoints(2000));
    const fs::path input = folder / "queryTree.hspc";
    const fs::path root = rootBlock(folder);
    const std::string original = pcp_test::readText(root);

    // A node whose records have no position: the stored attributes without their first.
    HSPC::FolderReader reader(folder.string());
    std::vector<uint8_t> treeBytes;
    ASSERT_TRUE(reader.read(HSPC::kQueryTreeName, treeBytes));
    HSPC::Tree tree;
    ASSERT_TRUE(HSPC::loadTree(treeBytes, tree, {}));
    std::vector<HSPC::Attribute> withoutPosition = tree.attributes.attributes;
    withoutPosition.erase(withoutPosition.begin());
    rewriteNodeAttributes(root, withoutPosition);
    EXPECT_EQ(errorText([&] { importOnGrid(temp, input); }), "HspcImporter ERROR: Points do not contain X, Y & Z coords");

    // A block cut short inside its header, and one whose payload is broken.
    std::ofstream(root, std::ios::binary | std::ios::trunc).write(original.data(), 40);
    EXPECT_EQ(errorText([&] { importOnGrid(temp, input); }),
              "HspcImporter ERRROR: Failed to read header from " + folder.string() + "/" +
                  fs::relative(root, folder).string());
    std::string broken = original;
    uint32_t payloadAt = 0;
    std::memcpy(&payloadAt, broken.data() + 112, 4);
    broken[payloadAt] = 50;  // no payload kind
    std::ofstream(root, std::ios::binary | std::ios::trunc).write(broken.data(), std::streamsize(broken.size()));
    const std::string undecodable = errorText([&] { importOnGrid(temp, input); });
    EXPECT_EQ(undecodable.rfind("HspcImporter ERROR: Could not decompress " + folder.string() + "/", 0), 0u)
        << undecodable;

    // A tree file that doesn't load names the input.
    std::ofstream(root, std::ios::binary | std::ios::trunc).write(original.data(), std::streamsize(original.size()));
    std::string treeText(treeBytes.begin(), treeBytes.end());
    treeText.resize(treeText.size() / 2);
    std::ofstream(input, std::ios::binary | std::ios::trunc).write(treeText.data(), std::streamsize(treeText.size()));
    const std::string unparsed = errorText([&] { importOnGrid(temp, input); });
    EXPECT_EQ(unparsed.rfind("HspcImporter ERROR: Could not parse " + input.string(), 0), 0u) << unparsed;
}

namespace
{

// A data set of x, y, z and one custom "Normal" attribute of type `normalType`, made by the converter.
fs::path convertWithCustomNormal(pcp_test::ConversionSetup& setup, uint8_t normalType)
{
    const std::string typeName = HSPC::getTypeName(normalType);
    const std::string description = R"({"attribute-description": [
        {"attribute": {"name": "X", "role": "X", "type": "I32"}, "scale": 0.001},
        {"attribute": {"name": "Y", "role": "Y", "type": "I32"}, "scale": 0.001},
        {"attribute": {"name": "Z", "role": "Z", "type": "I32"}, "scale": 0.001},
        {"attribute": {"name": "Normal", "role": "CUSTOM", "type": ")" + typeName + R"("}}]})";
    auto records = std::make_shared<std::vector<uint8_t>>();
    for (uint32_t i = 0; i < 500; ++i)
    {
        for (uint32_t axis = 0; axis < 3; ++axis)
            pcp_test::put(*records, int32_t(i * (17 + axis)));
        if (normalType == HSPC::AttributeType::U16)
            pcp_test::put(*records, uint16_t(i));
        else
            pcp_test::put(*records, uint32_t(i));
    }
    setup.basic.attributes = {{HSPC::AttributeType::M96, HSPC::AttributeRole::POSITION, "POSITION"},
                              {normalType, HSPC::AttributeRole::CUSTOM, "Normal"}};
    HSPC::EncodingTarget target;
    target.attributes = {pcp_test::encoded(HSPC::AttributeType::M96, HSPC::AttributeRole::POSITION, "POSITION"),
                         pcp_test::encoded(normalType, HSPC::AttributeRole::CUSTOM, "Normal")};
    target.origin = setup.basic.origin;
    target.scale = setup.basic.scale;
    auto converter = setup.converter();
    const auto importer = HSPC::BinaryRecordImporter::create(description, HSPC::makeMemorySource(records), target,
                                                             HSPC::EncodingFlags{}, setup.errors.logger());
    EXPECT_NE(importer, nullptr) << ::testing::PrintToString(setup.errors.lines);
    EXPECT_TRUE(converter->addImporter(importer)) << ::testing::PrintToString(setup.errors.lines);
    EXPECT_EQ(converter->run(), 0) << ::testing::PrintToString(setup.errors.lines);
    return setup.folder.path() / "out" / "queryTree.hspc";
}

}  // namespace

TEST(HspcImporter, CustomRolesMustHaveTheirTypes)
{
    pcp_test::TempFolder temp;
    {
        pcp_test::ConversionSetup setup;
        const fs::path input = convertWithCustomNormal(setup, HSPC::AttributeType::U32);
        EXPECT_EQ(errorText([&] { importOnGrid(temp, input); }),
                  "HspcImporter ERROR: Custom role Normal must be 16-bit unsigned int");
    }
    pcp_test::ConversionSetup setup;
    const fs::path input = convertWithCustomNormal(setup, HSPC::AttributeType::U16);
    const pcp_test::ImportRun run = importOnGrid(temp, input);
    EXPECT_EQ(run.points.size(), 500u);
    EXPECT_TRUE(run.attributes.normals);
    EXPECT_FALSE(run.attributes.color || run.attributes.intensity || run.attributes.radius);
}

TEST(HspcImporter, EightBitColoursOfADataSetComeOutOnSixteenBits)
{
    pcp_test::TempFolder temp;
    pcp_test::ConversionSetup setup;
    pcp_test::convertRecords(setup);
    auto converter = setup.converter();
    ASSERT_TRUE(converter->addImporter(pcp_test::recordImporter(setup, 0, 3000, setup.errors.logger())));
    ASSERT_EQ(converter->run(), 0) << ::testing::PrintToString(setup.errors.lines);
    const fs::path out = setup.folder.path() / "out";
    const pcp_test::ImportRun run = importOnGrid(temp, out / "queryTree.hspc");
    // The data set stores U8 channels; the cache sees each one shifted up to 16 bits.
    std::set<std::array<int, 3>> distinct;
    for (const IoLightPoint& p : run.points)
    {
        for (const uint16_t channel : {p.r, p.g, p.b})
            EXPECT_EQ(channel & 0xff, 0) << channel;
        distinct.insert({p.r, p.g, p.b});
    }
    EXPECT_GT(run.points.size(), 2000u);
    EXPECT_GT(distinct.size(), 10u);
}

TEST(HspcColorScaling, FirstPointsFixTheRangesThatLaterPointsMustKeep)
{
    namespace Type = HSPC::AttributeType;
    namespace Role = HSPC::AttributeRole;
    const HspcRoleLayout layout = mapHspcRoles({{Type::F64, Role::X, "X"},
                                                {Type::F64, Role::Y, "Y"},
                                                {Type::F64, Role::Z, "Z"},
                                                {Type::F32, Role::R, "R"},
                                                {Type::F32, Role::G, "G"},
                                                {Type::F32, Role::B, "B"},
                                                {Type::F32, Role::INTENSITY, "I"}},
                                               Type::F64);
    ASSERT_EQ(layout.recordSize, 40u);
    const auto records = [&](std::vector<std::array<float, 4>> values)
    {
        std::vector<uint8_t> bytes(values.size() * layout.recordSize);
        for (size_t i = 0; i < values.size(); ++i)
            std::memcpy(bytes.data() + i * layout.recordSize + 24, values[i].data(), 16);
        return bytes;
    };
    const float nan = std::nanf("");
    // Colours up to 255 are 8-bit, intensities up to 1 unit; the point without numbers is not valid.
    std::vector<uint8_t> first = records({{0, 10, 255, 0.5f}, {1, 2, 3, 1.0f}, {nan, 0, 0, 0}});
    HspcColorScaling scaling(layout);
    scaling.fix(first.data(), 3);
    EXPECT_EQ(scaling.rgbMode(), kRgb8Bit);
    EXPECT_EQ(scaling.intensityMode(), kIntensityUnit);
    uint16_t r = 0, g = 0, b = 0;
    scaling.color(first.data(), r, g, b);
    EXPECT_EQ(std::make_tuple(r, g, b), std::make_tuple(0, 10 << 8, 255 << 8));
    EXPECT_EQ(scaling.intensity(first.data() + layout.recordSize), 65535);
    const std::vector<uint8_t> later = records({{256, 0, 0, 2.0f}});
    EXPECT_EQ(errorText([&] { scaling.color(later.data(), r, g, b); }),
              "HspcImporter ERROR: Expected R, G & B in range [0, 255] based on first 2 valid points.");
    EXPECT_EQ(errorText([&] { scaling.intensity(later.data()); }),
              "HspcImporter ERROR: Expected intensity in range [0.0, 1.0] based on first 2 valid points.");

    // Negative intensities are the signed range; colours above 255 16-bit, and beyond 16 bits nothing.
    std::vector<uint8_t> signedFirst = records({{300, 0, 0, -5.0f}});
    HspcColorScaling wide(layout);
    wide.fix(signedFirst.data(), 1);
    EXPECT_EQ(wide.rgbMode(), kRgb16Bit);
    EXPECT_EQ(wide.intensityMode(), kIntensitySigned);
    const std::vector<uint8_t> tooBright = records({{70000, 0, 0, 3000}});
    EXPECT_EQ(errorText([&] { wide.color(tooBright.data(), r, g, b); }),
              "HspcImporter ERROR: Expected RGB in range [0.0, 65536.0[.");
    EXPECT_EQ(errorText([&] { wide.intensity(tooBright.data()); }),
              "HspcImporter ERROR: Expected intensity in range [-2048.0, 2048.0] based on first 1 valid points.");
    HspcColorScaling refused(layout);
    EXPECT_EQ(errorText([&] { refused.fix(tooBright.data(), 1); }),
              "HspcImporter ERROR: Expected RGB in range [0.0, 65536.0[.");
    const std::vector<uint8_t> loudFirst = records({{0, 0, 0, 70000}});
    EXPECT_EQ(errorText([&] { HspcColorScaling(layout).fix(loudFirst.data(), 1); }),
              "HspcImporter ERROR: Expected intensity in range [0.0, 65536.0[ based on first 1 valid points.");

    // Morton codes are no numbers to read, and coordinates must come as requested.
    const uint8_t code[24] = {};
    EXPECT_EQ(errorText([&] { readHspcValue(Type::M192, code); }),
              "HspcImporter ERROR: M192 unsupported for read(type, uint8_t *).");
    EXPECT_EQ(errorText([&] { mapHspcRoles({{Type::F32, Role::X, "X"}, {Type::F32, Role::Y, "Y"}}, Type::F64); }),
              "HspcImporter ERROR: Did not receive XYZ type requested");
    EXPECT_EQ(errorText([&] { mapHspcRoles({{Type::F64, Role::X, "X"}, {Type::F64, Role::Y, "Y"}}, Type::F64); }),
              "HspcImporter ERROR: Points do not contain X, Y & Z coords");
    EXPECT_EQ(errorText([&] { mapHspcRoles({{Type::F64, Role::X, "X"}, {Type::F64, Role::Y, "Y"},
                                            {Type::F64, Role::Z, "Z"}, {Type::F64, Role::CUSTOM, "TandorelPointSize"}},
                                           Type::F64); }),
              "HspcImporter ERROR: Custom role TandorelPointSize must be 32-bit float");
}

namespace
{

// Runs pcprep with `arguments`, its output in `out`; the exit status.
int pcprep(const pcp_test::TempFolder& temp, const std::vector<std::string>& arguments, std::string* out = nullptr)
{
    std::string command = PCPREP_PATH;
    for (const std::string& argument : arguments)
        command += " '" + argument + "'";
    const fs::path log = temp.path() / "pcprep.out";
    command += " > '" + log.string() + "' 2>&1";
    const int status = std::system(command.c_str());
    if (out)
        *out = pcp_test::readText(log);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1000;
}

// A point as the real world sees it: millimetre position, colour and intensity.
using RealPoint = std::tuple<int64_t, int64_t, int64_t, uint16_t, uint16_t, uint16_t, uint16_t>;

RealPoint realPointOf(const IoLightPoint& p, const IoTransfo& t)
{
    const auto mm = [&](int axis, int32_t v) { return std::llround((v * t.scale[axis] + t.offset[axis]) * 1000.0); };
    return {mm(0, p.x), mm(1, p.y), mm(2, p.z), p.r, p.g, p.b, p.intensity};
}

void collectLeaves(const fs::path& data, const VrmNode& node, std::vector<RealPoint>& out)
{
    for (const VrmNode& child : node.children)
        collectLeaves(data, child, out);
    if (!node.isLeaf())
        return;
    IoTransfo transfo;
    std::vector<IoLightPoint> points;
    readPNZ(toWide(data / toPath(node.file).replace_extension(".pnz")), transfo, points);
    for (const IoLightPoint& p : points)
        out.push_back(realPointOf(p, transfo));
}

std::multiset<RealPoint> leavesOf(const fs::path& cache)
{
    std::vector<RealPoint> points;
    collectLeaves(cache / "Data", readVrm(toWide(cache / "cache.vrm")), points);
    return {points.begin(), points.end()};
}

// Millimetre positions and intensities of a PTS file that pcprep wrote.
std::multiset<std::array<int64_t, 4>> ptsPoints(const fs::path& file)
{
    std::ifstream in(file);
    uint64_t count = 0;
    in >> count;
    std::multiset<std::array<int64_t, 4>> points;
    double x, y, z;
    int64_t intensity, r, g, b;
    while (in >> x >> y >> z >> intensity >> r >> g >> b)
        points.insert({std::llround(x * 1000.0), std::llround(y * 1000.0), std::llround(z * 1000.0), intensity});
    EXPECT_EQ(points.size(), count) << file;
    return points;
}

// The data set keeps one point of each millimetre cell: `got` holds one point of each cell of `expected`, each
// of them one of `expected`.
template <typename Point>
void expectSameLessDuplicates(const std::multiset<Point>& expected, const std::multiset<Point>& got)
{
    const auto cellsOf = [](const std::multiset<Point>& points)
    {
        std::set<std::array<int64_t, 3>> cells;
        for (const Point& p : points)
            cells.insert({int64_t(std::get<0>(p)), int64_t(std::get<1>(p)), int64_t(std::get<2>(p))});
        return cells;
    };
    const std::set<std::array<int64_t, 3>> expectedCells = cellsOf(expected);
    EXPECT_EQ(got.size(), expectedCells.size());
    EXPECT_TRUE(cellsOf(got) == expectedCells);
    size_t foreign = 0;
    for (const Point& p : got)
        foreign += expected.count(p) == 0;
    EXPECT_EQ(foreign, 0u) << "points that the source did not hold";
}

}  // namespace

TEST(HspcBridge, DataSetAsInputRebuildsTheCacheAndExportAnswersQueries)
{
    pcp_test::TempFolder temp;
    const fs::path sample = temp.path() / "s";
    ASSERT_EQ(pcprep(temp, {"sample", sample.string(), "--parts", "las", "--points", "20000"}), 0);
    std::string out;
    const fs::path original = temp.path() / "original";
    ASSERT_EQ(pcprep(temp, {"run", "--cache", original.string(), "--threads", "2",
                            (sample / "las" / "room-tile.las").string()}, &out), 0) << out;
    const std::multiset<RealPoint> leaves = leavesOf(original);
    ASSERT_GT(leaves.size(), 50000u);

    // The leaves as a data set, in a folder and as an archive, each the input of a new run.
    const fs::path folderSet = temp.path() / "leaves.hspc";
    const fs::path packSet = temp.path() / "leaves.hspc.pack";
    for (const fs::path& dataSet : {folderSet, packSet})
        ASSERT_EQ(pcprep(temp, {"export", original.string(), dataSet.string()}, &out), 0) << out;
    for (const fs::path& input : {fs::path(folderSet / "queryTree.hspc"), packSet, folderSet})
    {
        SCOPED_TRACE(input);
        const fs::path rebuilt = temp.path() / ("rebuilt-" + std::to_string(std::hash<std::string>{}(input)));
        ASSERT_EQ(pcprep(temp, {"run", "--cache", rebuilt.string(), "--threads", "2", input.string()}, &out), 0) << out;
        expectSameLessDuplicates(leaves, leavesOf(rebuilt));
    }
    const fs::path reduced = folderSet / "tree.hspc";
    EXPECT_EQ(pcprep(temp, {"run", "--cache", (temp.path() / "refused").string(), reduced.string()}, &out), 1);
    EXPECT_NE(out.find("HspcImporter ERROR: inFile needs to be /path/to/queryTree.hspc"), std::string::npos) << out;

    // The whole data set, then a box of it against a brute-force filter of the leaves.
    std::multiset<std::array<int64_t, 4>> all;
    for (const RealPoint& p : leaves)
        all.insert({std::get<0>(p), std::get<1>(p), std::get<2>(p), std::get<6>(p)});
    const fs::path allPts = temp.path() / "all.pts";
    ASSERT_EQ(pcprep(temp, {"export", folderSet.string(), allPts.string()}, &out), 0) << out;
    const std::multiset<std::array<int64_t, 4>> exported = ptsPoints(allPts);
    expectSameLessDuplicates(all, exported);
    // Box edges between the millimetre cells, so that no point lies on one.
    const std::array<double, 6> box{1.0005, 0.5005, 0.2005, 3.2005, 2.0005, 1.5005};
    std::multiset<std::array<int64_t, 4>> inside;
    for (const auto& p : exported)
        if (p[0] > box[0] * 1000 && p[0] < box[3] * 1000 && p[1] > box[1] * 1000 && p[1] < box[4] * 1000 &&
            p[2] > box[2] * 1000 && p[2] < box[5] * 1000)
            inside.insert(p);
    ASSERT_GT(inside.size(), 1000u);
    ASSERT_LT(inside.size(), exported.size() / 2);
    std::ostringstream boxText;
    boxText.precision(10);
    for (size_t i = 0; i < box.size(); ++i)
        boxText << (i ? "," : "") << box[i];
    const fs::path boxPts = temp.path() / "box.pts";
    ASSERT_EQ(pcprep(temp, {"export", packSet.string(), boxPts.string(), "--box", boxText.str()}, &out), 0) << out;
    EXPECT_TRUE(ptsPoints(boxPts) == inside);

    // A level of detail: exactly the points of the nodes at that lod and above.
    HSPC::FolderReader reader(folderSet.string());
    std::vector<uint8_t> treeBytes;
    ASSERT_TRUE(reader.read(HSPC::kQueryTreeName, treeBytes));
    HSPC::Tree tree;
    ASSERT_TRUE(HSPC::loadTree(treeBytes, tree, {}));
    ASSERT_GE(tree.header.maxLod, tree.header.minLod + 2);
    const unsigned lod = tree.header.maxLod - 1;
    const std::vector<uint8_t> lods = HSPC::nodeLods(tree);
    uint64_t coarse = 0;
    for (size_t i = 0; i < tree.nodes.size(); ++i)
        coarse += lods[i] >= lod ? tree.nodes[i].pointCount : 0;
    const fs::path lodLaz = temp.path() / "lod.laz";
    ASSERT_EQ(pcprep(temp, {"export", folderSet.string(), lodLaz.string(), "--lod", std::to_string(lod)}, &out), 0)
        << out;
    EXPECT_NE(out.find("Wrote " + std::to_string(coarse) + " points of the data set"), std::string::npos) << out;
    EXPECT_LT(coarse, exported.size());

    // Refusals: an existing target, a box that is no box, a lod the data set lacks.
    EXPECT_EQ(pcprep(temp, {"export", folderSet.string(), allPts.string()}, &out), 1);
    EXPECT_NE(out.find("already exists"), std::string::npos) << out;
    EXPECT_EQ(pcprep(temp, {"export", folderSet.string(), (temp.path() / "b.pts").string(), "--box", "1,2,3"}, &out), 2);
    EXPECT_NE(out.find("--box takes six numbers"), std::string::npos) << out;
    EXPECT_EQ(pcprep(temp, {"export", folderSet.string(), (temp.path() / "l.pts").string(), "--lod", "99"}, &out), 2);
    EXPECT_NE(out.find("--lod: the data set"), std::string::npos) << out;
    EXPECT_FALSE(fs::exists(temp.path() / "b.pts") || fs::exists(temp.path() / "l.pts"));
}
