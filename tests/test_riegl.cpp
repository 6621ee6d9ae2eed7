// RIEGL projects through the test library that stands in for the RIEGL library: project files, poses,
// batched reading, attributes, and every way the binding and the library can fail.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "cachefiles/PntFiles.h"
#include "core/ImporterFactory.h"
#include "core/LibAccessor.h"
#include "core/StringConversion.h"
#include "importers/Riegl.h"
#include "importers/riegl/RieglProject.h"
#include "riegl/RdbDoubleFormat.h"
#include "services/Logger.h"
#include "support/ErrorText.h"
#include "support/FileText.h"
#include "support/FuzzCorpus.h"
#include "support/PtsSamples.h"
#include "support/RdbDoubleFile.h"
#include "support/TempFolder.h"

using namespace pc_preprocess;
using pcp_test::errorText;
using pcp_test::RdbDoubleFile;
namespace fs = std::filesystem;

namespace
{

constexpr double kStep = 0.001;
const ColorMode kRieglMode(kRgb16Bit, kIntensity16Bit);

bool startsWith(const std::string& text, const std::string& start)
{
    return text.compare(0, start.size(), start) == 0;
}

// A pose as the project file writes it: a rotation about z by a multiple of 90 degrees, then a translation.
struct Pose
{
    int quarterTurns = 0;
    std::array<double, 3> translation{};

    std::array<double, 3> apply(const std::array<double, 3>& p, bool translate = true) const
    {
        std::array<double, 3> q = p;
        for (int i = 0; i < ((quarterTurns % 4) + 4) % 4; ++i)
            q = {-q[1], q[0], q[2]};
        if (translate)
            for (size_t axis = 0; axis < 3; ++axis)
                q[axis] += translation[axis];
        return q;
    }
    // The 16 numbers of the 4 x 4 matrix, row by row.
    std::string matrixText() const
    {
        const std::array<double, 3> x = apply({1, 0, 0}, false);
        const std::array<double, 3> y = apply({0, 1, 0}, false);
        const std::array<double, 3> z = apply({0, 0, 1}, false);
        std::ostringstream text;
        for (size_t r = 0; r < 3; ++r)
            text << x[r] << ' ' << y[r] << ' ' << z[r] << ' ' << translation[r] << ' ';
        text << "0 0 0 1";
        return text.str();
    }
};

struct Position
{
    std::string name;
    std::vector<std::string> scans;
    std::optional<Pose> sop;
    std::optional<Pose> cop;
};

// The project file of RIEGL's software, reduced to what the importer reads, with the parts it passes over.
std::string projectXml(const std::vector<Position>& positions)
{
    std::string xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<project name=\"survey\">\n"
                      "  <pop><matrix>1 0 0 0 0 1 0 0 0 0 1 0 0 0 0 1</matrix></pop>\n  <scanpositions>\n";
    bool nameAsAttribute = true;
    for (const Position& position : positions)
    {
        // Both spellings of a name appear, one position after the other.
        xml += nameAsAttribute ? "    <scanposition name=\"" + position.name + "\">\n"
                               : "    <scanposition>\n      <name>" + position.name + "</name>\n";
        nameAsAttribute = !nameAsAttribute;
        xml += "      <accPitch>0.1</accPitch><accRoll>0.2</accRoll><posX>1</posX>\n";
        if (position.sop)
            xml += "      <sop><matrix>" + position.sop->matrixText() + "</matrix></sop>\n";
        if (position.cop)
            xml += "      <cop><matrix>" + position.cop->matrixText() + "</matrix></cop>\n";
        xml += "      <scanposimages><scanposimage><name>img</name><matrix><file>a.jpg</file></matrix>"
               "</scanposimage></scanposimages>\n      <singlescans>\n";
        for (const std::string& scan : position.scans)
            xml += "        <scan><name>" + scan + "</name></scan>\n";
        xml += "      </singlescans>\n    </scanposition>\n";
    }
    return xml + "  </scanpositions>\n</project>\n";
}

void writeText(const fs::path& path, const std::string& text)
{
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << text;
}

// The world position of a cache point.
std::array<double, 3> world(const IoLightPoint& p, const IoTransfo& t)
{
    return {p.x * t.scale[0] + t.offset[0], p.y * t.scale[1] + t.offset[1], p.z * t.scale[2] + t.offset[2]};
}

double distance(const std::array<double, 3>& a, const std::array<double, 3>& b)
{
    return std::max({std::abs(a[0] - b[0]), std::abs(a[1] - b[1]), std::abs(a[2] - b[2])});
}

// The points of position one: more than a batch, so that the query runs more than once, with amplitudes on
// both sides of the intensity scale, colours and unnormalised normals.
RdbDoubleFile fullScan(size_t count)
{
    RdbDoubleFile file;
    file.amplitude = file.rgba = file.surfaceNormal = true;
    file.metadata = {{"riegl.scan_serial", "S2224"},
                     {"riegl.reflectance_calculation", "{\"content\": [1, 2, 3]}"},
                     {"riegl.device", "VZ-400i"}};
    for (size_t i = 0; i < count; ++i)
    {
        RdbDoubleFile::Point p;
        p.xyz = {0.01 * double(i % 1000), 0.1 * double(i / 1000), 1.0 + 0.001 * double(i % 7)};
        p.amplitude = -400.0f + float(i % 1500);
        p.rgba = {uint8_t(i % 256), uint8_t(i / 256 % 256), 7, 255};
        p.normal = {2.0f, 0.0f, 0.0f};
        file.points.push_back(p);
    }
    return file;
}

RdbDoubleFile plainScan(size_t count, double x0)
{
    RdbDoubleFile file;
    for (size_t i = 0; i < count; ++i)
    {
        RdbDoubleFile::Point p;
        p.xyz = {x0 + double(i), 0.5, -2.0};
        file.points.push_back(p);
    }
    return file;
}

// What a host does: probe with one importer, convert with a fresh one in the probed grid.
struct Conversion
{
    ProbeResult probe;
    SupportedAttributes attributes;
    std::string header;
    std::vector<std::vector<IoLightPoint>> scans;
    std::vector<bool> normalFiles;
};

Conversion convert(const pcp_test::TempFolder& folder, const std::wstring& input,
                   const std::string& library = pcp_test::rdbDoubleLibrary())
{
    Conversion c;
    c.probe = Riegl(input, 1.0, kRieglMode, s2ws(library)).probe(kStep, {});
    const std::wstring cache = toWide(folder.path() / "cache");
    fs::remove_all(toPath(cache));
    fs::create_directories(toPath(Convertor::getPointFolder(cache)));
    Riegl converter(input, 1.0, kRieglMode, s2ws(library));
    converter.run(cache, c.probe.transfo, false, {}, {});
    c.attributes = converter.getSupportedAttributes();
    c.header = converter.headerStr();
    for (const ScanFiles& files : converter.getScanFiles())
    {
        IoTransfo transfo;
        c.scans.emplace_back();
        readPNT(files.pntFile, transfo, c.scans.back());
        EXPECT_EQ(transfo, c.probe.transfo);
        std::wstring normals = files.pntFile;
        normals.replace(normals.size() - 4, 4, L"-normal.pnt");
        c.normalFiles.push_back(fs::exists(toPath(normals)));
    }
    return c;
}

}  // namespace

TEST(RieglProject, ReadsPositionsPosesScansAndKeepsResidualsApart)
{
    const Pose turn{1, {0, 0, 0}};
    const Pose shift{0, {1, 0, 0}};
    const riegl::RieglProject project = riegl::parseRieglProject(projectXml({
        {"ScanPos001", {"170101_000001", "170101_000001.residual.rdbx"}, Pose{2, {10, 20, 30}}, {}},
        {"ScanPos002", {"170101_000002.rxp", "170101_000003"}, shift, turn},
        {"ScanPos003", {"170101_000004"}, {}, {}},
    }));
    ASSERT_EQ(project.scans.size(), 4u);
    EXPECT_EQ(project.residualFiles, std::vector<std::string>{"170101_000001.residual.rdbx"});

    const riegl::RieglScan& first = project.scans[0];
    EXPECT_EQ(first.position, "ScanPos001");
    EXPECT_EQ(first.name, "170101_000001");
    EXPECT_EQ(first.rdbFile, "170101_000001.rdbx");
    EXPECT_TRUE(first.hasPose);
    // Half a turn about z, column-major.
    EXPECT_EQ(first.rotation, (std::array<double, 9>{-1, 0, 0, 0, -1, 0, 0, 0, 1}));
    EXPECT_EQ(first.translation, (std::array<double, 3>{10, 20, 30}));

    // Both scans of a position share its pose; cop acts after sop, so sop's shift is turned by cop.
    for (size_t i : {1, 2})
    {
        EXPECT_EQ(project.scans[i].position, "ScanPos002");
        EXPECT_EQ(project.scans[i].rotation, (std::array<double, 9>{0, 1, 0, -1, 0, 0, 0, 0, 1}));
        EXPECT_EQ(project.scans[i].translation, (std::array<double, 3>{0, 1, 0}));
    }
    EXPECT_EQ(project.scans[1].rdbFile, "170101_000002.rdbx");
    EXPECT_EQ(project.scans[2].rdbFile, "170101_000003.rdbx");

    EXPECT_FALSE(project.scans[3].hasPose);
    EXPECT_EQ(project.scans[3].rotation, (std::array<double, 9>{1, 0, 0, 0, 1, 0, 0, 0, 1}));
}

TEST(RieglProject, MalformedProjectsFailWithTheElementAtFault)
{
    const auto withSop = [](const std::string& numbers) {
        return "<project><scanpositions><scanposition name=\"P1\"><sop><matrix>" + numbers +
               "</matrix></sop><singlescans><scan name=\"s\"/></singlescans></scanposition></scanpositions>"
               "</project>";
    };
    const std::string twelve = "1 0 0 0 0 1 0 0 0 0 1 0";
    const std::string sixteen = twelve + " 0 0 0 1";
    std::string deep;
    for (int i = 0; i < 300; ++i)
        deep += "<a>";
    const std::pair<std::string, std::string> cases[] = {
        {"<project><scanpositions>", "Malformed project XML at line 1, column 24: "},
        {"<project><scanpositions></project>", "Malformed project XML at line 1, column 26: mismatched tag"},
        {withSop(twelve),
         "Scan position \"P1\", element \"sop\" / \"matrix\" at line 1: too few numbers: 12 of 16"},
        {withSop(sixteen + " 5"), "Scan position \"P1\", element \"sop\" / \"matrix\" at line 1: more than 16 numbers"},
        {withSop("1 0 x" + sixteen.substr(5)),
         "Scan position \"P1\", element \"sop\" / \"matrix\" at line 1: \"x\" is not a number"},
        {withSop("1.5abc" + sixteen.substr(1)),
         "Scan position \"P1\", element \"sop\" / \"matrix\" at line 1: \"1.5abc\" is not a number"},
        {withSop("nan" + sixteen.substr(1)),
         "Scan position \"P1\", element \"sop\" / \"matrix\" at line 1: \"nan\" is not a number"},
        {"<project><scanpositions>\n<scanposition><singlescans><scan name=\"s\"/></singlescans>"
         "</scanposition></scanpositions></project>",
         "Scan position at line 2 has no \"name\""},
        {"<project><scanpositions><scanposition name=\"P\"><singlescans>\n\n<scan/></singlescans>"
         "</scanposition></scanpositions></project>",
         "Scan position \"P\": the \"scan\" at line 3 has no \"name\""},
        {"<project><scanpositions><scanposition name=\"P\"><singlescans><scan name=\"../../etc/x\"/>"
         "</singlescans></scanposition></scanpositions></project>",
         "Scan position \"P\": the \"scan\" at line 1 is named \"../../etc/x\", which is no file name"},
        {"<project><scanpositions><scanposition name=\"..\"><singlescans><scan name=\"s\"/>"
         "</singlescans></scanposition></scanpositions></project>",
         "Scan position at line 1 is named \"..\", which is no folder name"},
        {"<project><scanpositions/></project>",
         "The project file names no scan below \"project\" / \"scanpositions\" / \"scanposition\""},
        {deep, "The project XML nests deeper than 256 elements at line 1"},
    };
    for (const auto& [xml, expected] : cases)
    {
        const std::string text = errorText([&] { riegl::parseRieglProject(xml); });
        EXPECT_TRUE(startsWith(text, expected)) << text;
    }
    // The same text whole, without anything after it.
    EXPECT_EQ(errorText([&] { riegl::parseRieglProject(withSop(twelve)); }),
              "Scan position \"P1\", element \"sop\" / \"matrix\" at line 1: too few numbers: 12 of 16");
}

TEST(RieglProject, FindsRdbFilesInTheUsualFoldersAndNamesTheMissingOne)
{
    pcp_test::TempFolder folder;
    const fs::path project = folder.path() / "project.rsp";
    writeText(folder.path() / "SCANS" / "P1" / "SINGLESCANS" / "a.rdbx", "");
    writeText(folder.path() / "P2" / "b.rdbx", "");
    writeText(folder.path() / "c.rdbx", "");
    // Where both places hold the file, RIEGL's own layout wins.
    writeText(folder.path() / "a.rdbx", "");
    riegl::RieglProject found =
        riegl::parseRieglProject(projectXml({{"P1", {"a"}, {}, {}}, {"P2", {"b"}, {}, {}}, {"P3", {"c"}, {}, {}}}));
    riegl::locateRdbFiles(found, project);
    EXPECT_EQ(found.scans[0].rdbFile, folder.path() / "SCANS" / "P1" / "SINGLESCANS" / "a.rdbx");
    EXPECT_EQ(found.scans[1].rdbFile, folder.path() / "P2" / "b.rdbx");
    EXPECT_EQ(found.scans[2].rdbFile, folder.path() / "c.rdbx");

    riegl::RieglProject missing =
        riegl::parseRieglProject(projectXml({{"P1", {"a"}, {}, {}}, {"P4", {"gone"}, {}, {}}}));
    EXPECT_EQ(errorText([&] { riegl::locateRdbFiles(missing, project); }),
              "Scan position \"P4\", scan \"gone\": the RDB file gone.rdbx was not found; looked for\n\t\t" +
                  (folder.path() / "SCANS" / "P4" / "SINGLESCANS" / "gone.rdbx").string() + "\n\t\t" +
                  (folder.path() / "P4" / "gone.rdbx").string() + "\n\t\t" +
                  (folder.path() / "gone.rdbx").string());
}

TEST(RieglProject, ReplaysTheFuzzCorpus)
{
    const size_t replayed = pcp_test::replayFuzzCorpus(
        "riegl_project",
        [](const std::string& bytes, const fs::path& file) {
            // Every input either parses or fails with a message; a crash or a foreign exception ends the test.
            try
            {
                const riegl::RieglProject project = riegl::parseRieglProject(bytes);
                EXPECT_FALSE(project.scans.empty()) << file;
            }
            catch (const std::runtime_error& e)
            {
                EXPECT_NE(std::string(e.what()), "") << file;
            }
        });
    EXPECT_GE(replayed, 4u);
}

TEST(Riegl, ScanPositionsLandInTheirPlacesWithTheirAttributes)
{
    pcp_test::TempFolder folder;
    const Pose pose1{1, {100, 200, 10}};
    const Pose sop3{0, {0, 0, 5}};
    const Pose cop3{2, {0, 0, 0}};
    const size_t count1 = 70'000;
    const RdbDoubleFile scan1 = fullScan(count1);
    const RdbDoubleFile scan2 = plainScan(10, -50.0);
    RdbDoubleFile scan3 = plainScan(3, 1.0);
    scan3.rgba = true;
    scan3.points[1].rgba = {255, 128, 1, 0};
    scan1.write(folder.path() / "SCANS" / "Pos1" / "SINGLESCANS" / "s1.rdbx");
    scan2.write(folder.path() / "s2.rdbx");
    scan3.write(folder.path() / "Pos3" / "s3.rdbx");
    // The residual names a file that does not exist: it is never looked for.
    writeText(folder.path() / "project.rsp",
              projectXml({{"Pos1", {"s1", "s1.residual.rdbx"}, pose1, {}},
                          {"Pos2", {"s2"}, Pose{0, {-50, 0, 0}}, {}},
                          {"Pos3", {"s3"}, sop3, cop3}}));
    const Conversion c = convert(folder, folder.file(L"project.rsp"));

    EXPECT_EQ(c.probe.colorMode, kRieglMode);
    EXPECT_TRUE(c.probe.hasScanViews);
    EXPECT_TRUE(c.probe.hasNormals);
    EXPECT_TRUE(c.attributes.intensity && c.attributes.color && c.attributes.normals && c.attributes.scanId);
    ASSERT_EQ(c.scans.size(), 3u);
    ASSERT_EQ(c.scans[0].size(), count1);
    EXPECT_EQ(c.normalFiles, (std::vector<bool>{true, false, false}));

    const IoTransfo& t = c.probe.transfo;
    for (size_t i = 0; i < count1; ++i)
    {
        const IoLightPoint& p = c.scans[0][i];
        const RdbDoubleFile::Point& raw = scan1.points[i];
        ASSERT_LE(distance(world(p, t), pose1.apply(raw.xyz)), kStep) << i;
        const double intensity = (raw.amplitude + 327.68) * 65535.0 / 655.36;
        if (intensity <= 0.0)
            ASSERT_EQ(p.intensity, 0) << i;
        else if (intensity >= 65535.0)
            ASSERT_EQ(p.intensity, 65535) << i;
        else
            ASSERT_NEAR(p.intensity, intensity, 1.0) << i;
        ASSERT_EQ(p.r, raw.rgba[0] << 8) << i;
        ASSERT_EQ(p.g, raw.rgba[1] << 8) << i;
        ASSERT_EQ(p.b, 7 << 8) << i;
        // The scanner's x axis turns into the project's y axis; the length is 1 again.
        ASSERT_NEAR(p.nx, 0.0f, 1e-6f) << i;
        ASSERT_NEAR(p.ny, 1.0f, 1e-6f) << i;
        ASSERT_NEAR(p.nz, 0.0f, 1e-6f) << i;
        ASSERT_EQ(p.scanId, 0) << i;
    }

    // Without optional attributes: no intensity, grey of it, no normals.
    for (size_t i = 0; i < scan2.points.size(); ++i)
    {
        const IoLightPoint& p = c.scans[1][i];
        EXPECT_LE(distance(world(p, t), Pose{0, {-50, 0, 0}}.apply(scan2.points[i].xyz)), kStep) << i;
        EXPECT_EQ((std::array<int, 4>{p.intensity, p.r, p.g, p.b}), (std::array<int, 4>{0, 0, 0, 0})) << i;
        EXPECT_EQ(p.scanId, 1);
    }

    // cop after sop: shifted up by 5, then half a turn about z.
    for (size_t i = 0; i < scan3.points.size(); ++i)
    {
        const IoLightPoint& p = c.scans[2][i];
        EXPECT_LE(distance(world(p, t), cop3.apply(sop3.apply(scan3.points[i].xyz))), kStep) << i;
        EXPECT_EQ(p.scanId, 2);
    }
    EXPECT_EQ((std::array<int, 3>{c.scans[2][1].r, c.scans[2][1].g, c.scans[2][1].b}),
              (std::array<int, 3>{255 << 8, 128 << 8, 1 << 8}));

    // The header holds each file's metadata, the calibration table by its name only.
    const std::string file1 = (folder.path() / "SCANS" / "Pos1" / "SINGLESCANS" / "s1.rdbx").string();
    EXPECT_NE(c.header.find("Header Info For File = " + file1 +
                            "\nriegl.scan_serial = S2224\nriegl.reflectance_calculation\nriegl.device = VZ-400i\n"),
              std::string::npos)
        << c.header;
    EXPECT_EQ(c.header.find("content"), std::string::npos);
}

TEST(Riegl, AnRdbFileAloneIsOneScanWithoutOptionalAttributes)
{
    pcp_test::TempFolder folder;
    const RdbDoubleFile file = plainScan(5, 3.0);
    file.write(folder.path() / "single.rdbx");
    const Conversion c = convert(folder, folder.file(L"single.rdbx"));
    ASSERT_EQ(c.scans.size(), 1u);
    ASSERT_EQ(c.scans[0].size(), 5u);
    EXPECT_FALSE(c.probe.hasNormals);
    EXPECT_FALSE(c.attributes.intensity || c.attributes.color || c.attributes.normals || c.attributes.scanId);
    for (size_t i = 0; i < 5; ++i)
        EXPECT_LE(distance(world(c.scans[0][i], c.probe.transfo), file.points[i].xyz), kStep);

    // A file without points: the probe finds none, the conversion writes no scan.
    RdbDoubleFile().write(folder.path() / "empty.rdbx");
    const std::wstring empty = folder.file(L"empty.rdbx");
    Riegl prober(empty, 1.0, kRieglMode, s2ws(pcp_test::rdbDoubleLibrary()));
    EXPECT_FALSE(prober.probe(kStep, {}).transfo.isValid());
    EXPECT_EQ(prober.getWarnings(), std::vector<std::wstring>{L"Probe could not find any points in input data"});
    IoTransfo transfo;
    transfo.offset = {0, 0, 0};
    transfo.scale = {kStep, kStep, kStep};
    Riegl converter(empty, 1.0, kRieglMode, s2ws(pcp_test::rdbDoubleLibrary()));
    converter.run(toWide(folder.path() / "cache"), transfo, false, {}, {});
    EXPECT_TRUE(converter.getScanFiles().empty());
}

TEST(Riegl, BindingAndLibraryFailuresBecomeRieglErrors)
{
    pcp_test::TempFolder folder;
    const std::wstring project = folder.file(L"project.rsp");
    const std::string projectPath = ws2s(project);
    const fs::path rdb = folder.path() / "s.rdbx";
    writeText(toPath(project), projectXml({{"P", {"s"}, {}, {}}}));
    RdbDoubleFile file = plainScan(3, 0.0);
    file.write(rdb);
    const auto probeWith = [&](const std::string& library) {
        return errorText([&] { Riegl(project, 1.0, kRieglMode, s2ws(library)).probe(kStep, {}); });
    };
    const std::string prefix = "Riegl error: " + projectPath + "\n\t";

    const std::string missing = probeWith("/nonexistent/librdb.so");
    EXPECT_TRUE(startsWith(missing, prefix + "The RIEGL library /nonexistent/librdb.so could not be loaded: "))
        << missing;
    EXPECT_NE(missing.find("--riegl-library"), std::string::npos) << missing;

    EXPECT_EQ(probeWith(pcp_test::rdbDoubleLibraryLackingBind()),
              prefix + "The RIEGL library " + pcp_test::rdbDoubleLibraryLackingBind() +
                  " lacks the function rdb_pointcloud_query_select_bind: it is too old or no rdblib 2. "
                  "Install the RIEGL library (rdblib 2, from RIEGL's download pages) and put the folder of "
                  "librdb.so on the library search path (LD_LIBRARY_PATH or ldconfig), or give the library's "
                  "full path in the input's settings (InputFileData::rieglLibrary; pcprep: --riegl-library).");

    // A context-free call that fails: its text and details.
    EXPECT_EQ(probeWith(pcp_test::rdbDoubleLibraryFailing()),
              prefix + rdb.string() + ": Invalid cache size 134217728 : the failing test library refuses every "
                                      "open setting");

    // Calls on a context that fail: at the open, and in the middle of the reading.
    file.failure = pcp_test::rdb_double::kFailOpen;
    file.write(rdb);
    EXPECT_EQ(probeWith(pcp_test::rdbDoubleLibrary()),
              prefix + rdb.string() + ": Database is corrupt : " + rdb.string() + ": simulated damage");
    RdbDoubleFile large = plainScan(70'000, 0.0);
    large.failure = pcp_test::rdb_double::kFailSecondNext;
    large.write(rdb);
    EXPECT_EQ(errorText([&] {
                  const std::wstring cache = toWide(folder.path() / "cache");
                  fs::create_directories(toPath(Convertor::getPointFolder(cache)));
                  IoTransfo transfo;
                  transfo.offset = {0, 0, 0};
                  transfo.scale = {kStep, kStep, kStep};
                  Riegl(project, 1.0, kRieglMode, s2ws(pcp_test::rdbDoubleLibrary())).run(cache, transfo, false,
                                                                                           {}, {});
              }),
              prefix + rdb.string() + ": Failed to read points : simulated damage in graph node 1");
    writeText(rdb, "not an RDB file");
    EXPECT_EQ(probeWith(pcp_test::rdbDoubleLibrary()),
              prefix + rdb.string() + ": Failed to open database : " + rdb.string() + " is no RDB file");

    // The project's own faults, in the same form.
    writeText(toPath(project), projectXml({{"P", {"gone"}, {}, {}}}));
    EXPECT_TRUE(startsWith(probeWith(pcp_test::rdbDoubleLibrary()),
                           prefix + "Scan position \"P\", scan \"gone\": the RDB file gone.rdbx was not found"));
    writeText(toPath(project), "<project><scanpositions>");
    EXPECT_TRUE(startsWith(probeWith(pcp_test::rdbDoubleLibrary()), prefix + "Malformed project XML at line 1"));
}

TEST(Riegl, TwoProjectsOnTwoWorkersAndAMissingLibraryFailsOnlyItsInput)
{
    pcp_test::TempFolder folder;
    const fs::path cacheFolder = folder.path() / "cache";
    fs::create_directories(cacheFolder / "Data");
    std::vector<InputFileData> inputs;
    for (const std::string name : {"a", "b"})
    {
        const fs::path projectFolder = folder.path() / name;
        fullScan(66'000).write(projectFolder / "s.rdbx");
        writeText(projectFolder / "project.rsp", projectXml({{"P", {"s"}, Pose{1, {1, 2, 3}}, {}}}));
        inputs.emplace_back(toWide(projectFolder / "project.rsp"), 1.0);
        inputs.back().rieglLibrary = s2ws(pcp_test::rdbDoubleLibrary());
    }
    IoTransfo transfo;
    transfo.offset = {0, 0, 0};
    transfo.scale = {kStep, kStep, kStep};
    auto logger = std::make_shared<Logger>(toWide(folder.path() / "run.log"), false, false);
    const auto [scans, attributes] =
        LibAccessor().convertFilesThreaded(toWide(cacheFolder), inputs, transfo, kRieglMode, 2, false, logger, {});
    EXPECT_FALSE(logger->errorHasOccurred());
    ASSERT_EQ(scans.size(), 2u);
    for (const ScanFiles& files : scans)
        EXPECT_EQ(readPntHeader(files.pntFile).numPoints, 66'000u);
    EXPECT_TRUE(attributes.normals && attributes.color && attributes.intensity);

    // Beside a PTS file, an input whose library is missing fails alone: the PTS file is converted (it is the
    // larger, so it is taken first), the run's log names the RIEGL input only.
    const std::wstring pts = folder.file(L"points.pts");
    pcp_test::writePtsFile(pts, 20'000);
    std::vector<InputFileData> mixed{InputFileData(pts, 1.0), inputs[0]};
    mixed[1].rieglLibrary = L"/nonexistent/librdb.so";
    fs::remove_all(cacheFolder / "Data");
    fs::create_directories(cacheFolder / "Data");
    auto mixedLogger = std::make_shared<Logger>(toWide(folder.path() / "mixed.log"), false, false);
    const auto [mixedScans, unused] = LibAccessor().convertFilesThreaded(
        toWide(cacheFolder), mixed, transfo, ColorMode(kRgb8Bit, kIntensity8Bit), 2, false, mixedLogger, {});
    EXPECT_TRUE(mixedLogger->errorHasOccurred());
    ASSERT_EQ(mixedScans.size(), 1u);
    EXPECT_EQ(toPath(mixedScans[0].pntFile).filename().string(), "points-0000-temp.pnt");
    mixedLogger->outputErrors("");
    const std::string log = pcp_test::readText(folder.path() / "mixed.log");
    const std::string rsp = ws2s(mixed[1].path);
    EXPECT_NE(log.find("ERROR reading " + rsp + " :\n\tRiegl error: " + rsp +
                       "\n\tThe RIEGL library /nonexistent/librdb.so could not be loaded"),
              std::string::npos)
        << log;
    EXPECT_EQ(log.find("points.pts :"), std::string::npos) << log;
}
