// The PTX importer: scans with their own poses landing in one world, missing returns, intensities above 1,
// colour by mode, any line end, and the exact failure of every kind of broken header or point line. Files are
// written by the tests; conversions go the way a host drives them: probe, then run into a cache folder, then
// the point files are read back.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <numbers>
#include <string>
#include <vector>

#include "cachefiles/MetaFile.h"
#include "cachefiles/PntFiles.h"
#include "core/StringConversion.h"
#include "fuzz/PtxFuzzCase.h"
#include "importers/Ptx.h"
#include "sample/SampleScene.h"
#include "support/ErrorText.h"
#include "support/FuzzCorpus.h"
#include "support/ImportRun.h"
#include "support/TempFolder.h"

using namespace pc_preprocess;
using pcp_test::errorText;

namespace
{

constexpr double kStep = 0.001;

// A scan's map from its own frame to the world: world = rotation * local + translation.
struct Pose
{
    std::array<double, 9> rotation{1, 0, 0, 0, 1, 0, 0, 0, 1};  // column-major
    std::array<double, 3> translation{0, 0, 0};
};

// A turn about the vertical by `heading`, after a tilt about the x axis by `tilt` (radians).
Pose pose(double heading, double tilt, std::array<double, 3> translation)
{
    const double ch = std::cos(heading), sh = std::sin(heading), ct = std::cos(tilt), st = std::sin(tilt);
    // Rz * Rx, column by column.
    return {{ch, sh, 0, -sh * ct, ch * ct, st, sh * st, -ch * st, ct}, translation};
}

std::string line(const char* format, double a, double b, double c)
{
    char text[128];
    std::snprintf(text, sizeof text, format, a, b, c);
    return text;
}

// The ten header lines of a scan, the pose's columns in the rotation lines.
std::string header(uint64_t columns, uint64_t rows, const Pose& p = {}, const std::string& end = "\n")
{
    const auto& r = p.rotation;
    const auto& t = p.translation;
    std::string text = std::to_string(columns) + end + std::to_string(rows) + end;
    text += line("%.17g %.17g %.17g", t[0], t[1], t[2]) + end;
    for (int k = 0; k < 3; ++k)
        text += line("%.17g %.17g %.17g", r[3 * k], r[3 * k + 1], r[3 * k + 2]) + end;
    for (int k = 0; k < 3; ++k)
        text += line("%.17g %.17g %.17g", r[3 * k], r[3 * k + 1], r[3 * k + 2]) + " 0" + end;
    return text + line("%.17g %.17g %.17g", t[0], t[1], t[2]) + " 1" + end;
}

std::string ptxError(const std::wstring& file, const std::string& text, uint64_t lineNumber = 0)
{
    std::string message = "PTX error: Could not parse " + ws2s(file);
    if (lineNumber > 0)
        message += "\n\tLine number " + std::to_string(lineNumber);
    return message + "\n\t" + text + "\n";
}

std::string formatText(const std::string& offendingLine, bool eightBit = false)
{
    std::string text =
        "Only <x y z I> and <x y z I r g b> are currently supported;\n\twith I in range [0.0, 1.0] "
        "and r, g & b in range [0, 255] or [0, 65535];";
    if (eightBit)
        text += "\n\tExpected r, g & b in range [0, 255] based on first 131072 valid points.";
    return text + "\n\t" + offendingLine;
}

// What a host does: probe with one importer, convert with a fresh one in the probed grid and mode.
pcp_test::ImportRun convert(const pcp_test::TempFolder& folder, const std::wstring& file, double scale = 1.0)
{
    return pcp_test::runImport(
        folder, [&](const ColorMode& mode) { return std::make_unique<Ptx>(file, scale, mode); }, ColorMode(),
        kStep);
}

// How far a cache point lies from a world position, in the largest of its axes.
double distance(const IoLightPoint& p, const IoTransfo& t, const geom::Point3d& world)
{
    return std::max({std::abs(p.x * t.scale[0] + t.offset[0] - world.x),
                     std::abs(p.y * t.scale[1] + t.offset[1] - world.y),
                     std::abs(p.z * t.scale[2] + t.offset[2] - world.z)});
}

}  // namespace

TEST(Ptx, ScansLandInTheWorldThroughTheirOwnPoses)
{
    pcp_test::TempFolder folder;
    const pcp_sample::ScanGrid grid{12, 20};
    const Pose poses[] = {pose(0.5, 0.08, {1.6, 1.3, 1.55}), pose(-2.1, -0.05, {4.4, 2.6, 1.45})};
    std::string text;
    // Per scan the world positions, colours and intensities that must come out, in file order.
    struct Expected
    {
        geom::Point3d world;
        int r, g, b;
        uint16_t intensity;
    };
    std::vector<Expected> expected[2];
    for (int s = 0; s < 2; ++s)
    {
        const Pose& p = poses[s];
        const auto hits = pcp_sample::scanRoom({p.translation[0], p.translation[1], p.translation[2]}, grid);
        ASSERT_EQ(hits.size(), size_t(grid.rows * grid.columns));
        text += header(grid.columns, grid.rows, p);
        for (size_t i = 0; i < hits.size(); ++i)
        {
            // Every seventh cell without a return, as where a scanner looks into the sky.
            if (i % 7 == 3)
            {
                text += "0 0 0 0.5 0 0 0\n";
                continue;
            }
            // Into the scanner's frame: local = rotation^T (world - translation).
            const geom::Point3d& w = hits[i].position;
            const double d[3] = {w.x - p.translation[0], w.y - p.translation[1], w.z - p.translation[2]};
            double local[3];
            for (int k = 0; k < 3; ++k)
                local[k] =
                    p.rotation[3 * k] * d[0] + p.rotation[3 * k + 1] * d[1] + p.rotation[3 * k + 2] * d[2];
            const std::string intensity = line("%.4f", hits[i].intensity / 65535.0, 0, 0);
            const int r = hits[i].r >> 8, g = hits[i].g >> 8, b = hits[i].b >> 8;
            text += line("%.7f %.7f %.7f", local[0], local[1], local[2]) + " " + intensity + " " +
                    std::to_string(r) + " " + std::to_string(g) + " " + std::to_string(b) + "\n";
            expected[s].push_back(
                {w, r << 8, g << 8, b << 8, uint16_t(std::stod(intensity) * 65535.99999999999)});
        }
    }
    const std::wstring file = folder.write(L"two scans.ptx", text);

    const pcp_test::ImportRun c = convert(folder, file);
    EXPECT_EQ(c.probe.colorMode, ColorMode(kRgb8Bit, kIntensityUnit));
    EXPECT_TRUE(c.probe.hasScanViews);
    EXPECT_EQ(c.probe.transfo.scale, (std::array<double, 3>{kStep, kStep, kStep}));
    EXPECT_TRUE(c.attributes.color && c.attributes.intensity);
    EXPECT_TRUE(c.warnings.empty());
    ASSERT_EQ(c.scans.size(), 2u);
    for (int s = 0; s < 2; ++s)
    {
        ASSERT_EQ(c.scans[s].size(), expected[s].size()) << s;
        EXPECT_EQ(c.metas[s].numPoints, 240u);
        for (size_t i = 0; i < expected[s].size(); ++i)
        {
            const IoLightPoint& p = c.scans[s][i];
            const Expected& e = expected[s][i];
            ASSERT_LE(distance(p, c.probe.transfo, e.world), kStep / 2 + 1e-6) << s << " " << i;
            ASSERT_EQ(p.scanId, s);
            ASSERT_EQ(p.r, e.r);
            ASSERT_EQ(p.g, e.g);
            ASSERT_EQ(p.b, e.b);
            ASSERT_EQ(p.intensity, e.intensity);
            ASSERT_TRUE(c.metas[s].extents.contains(p.x, p.y, p.z));
        }
    }
}

TEST(Ptx, SkipsMissingReturnsAndClampsBrightOnesWithAnyLineEnd)
{
    pcp_test::TempFolder folder;
    for (const std::string end : {"\n", "\r\n", "\r"})
    {
        // A scan in millimetres, moved by a metre along x: the run's scale carries pose and points into
        // metres.
        std::string text = header(10, 10, pose(0.0, 0.0, {1000, 0, 0}), end);
        for (int i = 0; i < 100; ++i)
            text += i == 42   ? "0 0 0 0.3" + end
                    : i == 7  ? "7 0 0 1.5" + end
                    : i == 60 ? "60 0 0 2" + end
                              : std::to_string(i) + " 20 -30 0.5" + end;
        const std::wstring file = folder.write(L"grid.ptx", text + end);
        const pcp_test::ImportRun c = convert(folder, file, 0.001);
        // The intensity stands in for the colour in the range as in the points: a file without colour
        // hands a run the 8-bit mode, which keeps the colours of inputs that follow it.
        EXPECT_EQ(c.probe.colorMode, ColorMode(kRgb8Bit, kIntensityUnit));
        ASSERT_EQ(c.scans.size(), 1u);
        const std::vector<IoLightPoint>& points = c.scans[0];
        ASSERT_EQ(points.size(), 99u);
        EXPECT_LE(distance(points[7], c.probe.transfo, {1.007, 0.0, 0.0}), kStep / 2);
        EXPECT_LE(distance(points[98], c.probe.transfo, {1.099, 0.02, -0.03}), kStep / 2);
        EXPECT_EQ(points[7].intensity, 65535);
        EXPECT_EQ(points[59].intensity, 65535);  // the line of cell 60, after the missing one
        EXPECT_EQ(points[0].intensity, 32767);
        EXPECT_EQ(points[0].r, 32767);
        EXPECT_EQ(points[0].b, 32767);
        EXPECT_FALSE(c.attributes.color);
        EXPECT_TRUE(c.attributes.intensity);
        // One warning for the file, at its first bright line.
        ASSERT_EQ(c.warnings.size(), 1u) << end.size();
        EXPECT_EQ(ws2s(c.warnings[0]), "PTX warning: " + ws2s(file) + "\n\tLine number 18\n\t" +
                                           formatText("7 0 0 1.5", true) + "\n");
    }
}

TEST(Ptx, BrokenFilesFailWithTheirTextAndLine)
{
    pcp_test::TempFolder folder;
    const std::string scan = header(2, 2);
    const std::string points =
        "1 2 3 0.5 10 20 30\n4 5 6 0.5 10 20 30\n7 8 9 0.5 10 20 30\n1 1 1 0.5 1 1 1\n";
    std::string badTranslation = scan;
    badTranslation.replace(badTranslation.rfind(" 1\n"), 3, " 0.5\n");
    std::string badRotation = scan;
    badRotation.replace(badRotation.find(" 0\n", badRotation.find("0 1 0 0")), 3, " 0.001\n");
    const std::string rows = R"(Expected "integer" (number of rows).)";
    struct Case
    {
        std::string text;
        std::string failure;
        uint64_t line;
    };
    const Case cases[] = {
        {"2\n2\n0 0 0\n1 0 0\n0 1 0\n0 0 1\n", R"(Expected "double double double 0.0" (rotation matrix).)",
         7},
        {"2.5\n2\n", R"(Expected "integer" (number of columns).)", 1},
        {"2\n-2\n", rows, 2},
        {"4294967296\n4294967296\n", rows, 2},  // 2^64 points do not fit a count
        {"2\n2\n0 0 0\n1 0 0\n0 1 x\n",
         R"(Expected "double double double" (scanner registered position/axes).)", 5},
        {badTranslation + points, R"(Expected "double double double 1.0" (translation))", 10},
        {badRotation + points, R"(Expected "double double double 0.0" (rotation matrix).)", 8},
        {scan + "1 2 3 0.5 7\n", formatText("1 2 3 0.5 7", true), 11},
        {scan + "1 2 3 -0.5\n", formatText("1 2 3 -0.5", true), 11},
        {scan + "1 2 3 0.5 0 0 65536\r\n", formatText("1 2 3 0.5 0 0 65536", true), 11},
        {scan + "1 2 3 0.5 1 2 3\n4 5 6 0.5\n", "Less lines in file than indicated in header.", 12},
        // The line number is that of the last line read.
        {scan + points.substr(0, 38), "Less lines in file than indicated in header.", 12},
        {header(4000000000, 4000000000) + "1 2 3 0.5\n", "Less lines in file than indicated in header.", 11},
        {scan + points + scan.substr(0, 18),
         R"(Expected "double double double" (scanner registered position/axes).)", 19},
    };
    for (const Case& c : cases)
    {
        const std::wstring file = folder.write(L"broken.ptx", c.text);
        Ptx importer(file, 1.0, ColorMode());
        EXPECT_EQ(errorText([&] { importer.probe(kStep, {}); }), ptxError(file, c.failure, c.line)) << c.text;
        EXPECT_EQ(importer.workDone(), importer.workTotal()) << c.text;
    }

    // A rotation constant within writers' noise is accepted; channels above 255 are 16-bit when the probe
    // sees them, and an error for a run that was told the file is 8-bit.
    std::string noisy = scan;
    noisy.replace(noisy.find(" 0\n", noisy.find("0 1 0 0")), 3, " 1e-9\n");
    const std::wstring wide = folder.write(L"wide.ptx", noisy + "1 2 3 0.5 256 0 0\n" + points.substr(0, 57));
    const pcp_test::ImportRun sixteenBit = convert(folder, wide);
    EXPECT_EQ(sixteenBit.probe.colorMode, ColorMode(kRgb16Bit, kIntensityUnit));
    ASSERT_EQ(sixteenBit.scans.size(), 1u);
    ASSERT_EQ(sixteenBit.scans[0].size(), 4u);
    EXPECT_EQ(sixteenBit.scans[0][0].r, 256);
    EXPECT_EQ(sixteenBit.scans[0][1].g, 20);
    const std::wstring cache = toWide(folder.path() / "cache");
    EXPECT_EQ(errorText(
                  [&] {
                      Ptx(wide, 1.0, ColorMode(kRgb8Bit, kIntensityUnit))
                          .run(cache, sixteenBit.probe.transfo, false, {}, {});
                  }),
              ptxError(wide, formatText("1 2 3 0.5 256 0 0", true), 11));
    // Only a run that reads 16-bit channels leaves the 8-bit range out of the text.
    const std::wstring dark = folder.write(L"dark.ptx", scan + "1 2 3 -0.5 256 0 0\n");
    EXPECT_EQ(errorText(
                  [&]
                  {
                      Ptx(dark, 1.0, ColorMode(kRgb16Bit, kIntensityUnit))
                          .run(cache, sixteenBit.probe.transfo, false, {}, {});
                  }),
              ptxError(dark, formatText("1 2 3 -0.5 256 0 0"), 11));

    const std::wstring empty = folder.write(L"empty.ptx", "");
    EXPECT_EQ(errorText([&] { Ptx(empty, 1.0, ColorMode()).probe(kStep, {}); }),
              ptxError(empty, "Could not open file."));
}

namespace
{

// A PTX importer that counts its work against half the file: a fault that the run must see, not hide.
class HalfTotalPtx : public Ptx
{
public:
    using Ptx::Ptx;
    int64_t workTotal() const override { return Ptx::workTotal() / 2; }
};

}  // namespace

TEST(Ptx, ProgressIsTheImportersOwnCount)
{
    pcp_test::TempFolder folder;
    std::string text = header(2, 2);
    for (int i = 1; i <= 4; ++i)
        text += std::to_string(i) + " 0 0 0.5\n";
    const std::wstring file = folder.write(L"progress.ptx", text);
    const std::vector<double> fractions = convert(folder, file).progress;
    ASSERT_FALSE(fractions.empty());
    EXPECT_TRUE(std::is_sorted(fractions.begin(), fractions.end()));
    EXPECT_EQ(fractions.back(), 1.0);

    // Counted past its total, the fraction goes out as it is: the conversion's check refuses it with
    // "fraction should be in between 0.0 and 1.0.".
    const std::vector<double> beyond =
        pcp_test::runImport(
            folder, [&](const ColorMode& mode) { return std::make_unique<HalfTotalPtx>(file, 1.0, mode); },
            ColorMode(), kStep)
            .progress;
    ASSERT_FALSE(beyond.empty());
    EXPECT_GT(beyond.back(), 1.9);
}

// Every input the fuzz target keeps, the ones that once failed among them, must pass its checks here too.
TEST(Ptx, ReplaysTheFuzzCorpus)
{
    pcp_test::TempFolder folder;
    const std::wstring cache = toWide(folder.path() / "cache");
    std::filesystem::create_directories(toPath(Convertor::getPointFolder(cache)));
    const size_t replayed = pcp_test::replayFuzzCorpus(
        "ptx",
        [&](const std::string& bytes, const std::filesystem::path& file)
        {
            const auto input =
                pcp_fuzz::PtxFuzzCase::decode(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
            if (!input)
                return;
            EXPECT_EQ(pcp_fuzz::checkLines(*input), "") << file;
            EXPECT_EQ(pcp_fuzz::checkImport(*input, folder.file(L"fuzz.ptx"), cache), "") << file;
        });
    EXPECT_GE(replayed, 10u);
}
