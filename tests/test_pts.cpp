// The PTS importer and the mapped line reader beneath it: format detection and format strings, the two
// data-line grammars, colour and intensity by mode with their failures, window boundaries and pathological
// lines, previews. Files are written by the tests; conversions go the way a host drives them: probe, then run
// into a cache folder, then the point file is read back.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "core/StringConversion.h"
#include "fuzz/PtsFuzzCase.h"
#include "importers/PtsImporter.h"
#include "importers/text/FileSource.h"
#include "support/ErrorText.h"
#include "support/FuzzCorpus.h"
#include "support/ImportRun.h"
#include "support/TempFolder.h"

using namespace pc_preprocess;
using pcp_test::errorText;
using Settings = PtsImporter::Settings;

namespace
{

constexpr double kScale = 0.001;

Settings settings(const std::string& format, const std::string& delimiter = "\\s",
                  const std::string& comment = "")
{
    Settings s;
    s.columnFormat = format;
    s.delimiter = delimiter;
    s.commentMarker = comment;
    return s;
}

std::string ptsError(const std::wstring& file, const std::string& text, uint64_t line = 0)
{
    std::string message = "PTS error: Could not parse " + ws2s(file);
    if (line > 0)
        message += "\n\tLine number " + std::to_string(line);
    return message + "\n\t" + text + "\n";
}

IoTransfo millimetreGrid()
{
    IoTransfo t;
    t.scale = {kScale, kScale, kScale};
    t.offset = {0.0, 0.0, 0.0};
    return t;
}

pcp_test::ImporterMaker ptsImporter(const std::wstring& file, const Settings& s)
{
    return [=](const ColorMode& mode) { return std::make_unique<PtsImporter>(file, kScale, mode, s); };
}

// Runs the importer in the given colour mode onto a grid of millimetres around the origin.
std::vector<IoLightPoint> runIn(const pcp_test::TempFolder& folder, const std::wstring& file,
                                const Settings& s, const ColorMode& mode)
{
    pcp_test::ImportSettings settings;
    settings.runMode = mode;
    settings.grid = millimetreGrid();
    settings.probe = false;
    return pcp_test::runImport(folder, ptsImporter(file, s), mode, kScale, settings).points;
}

// What a host does: probe with one importer, convert with a fresh one in the probed transfo and mode.
pcp_test::ImportRun convert(const pcp_test::TempFolder& folder, const std::wstring& file, const Settings& s)
{
    return pcp_test::runImport(folder, ptsImporter(file, s), ColorMode(), kScale);
}

// The cache integer of a raw coordinate in millimetres: the grid has the same step, so it is exact.
int32_t cell(double raw, double offset)
{
    return static_cast<int32_t>(std::llround(raw - offset / kScale));
}

void expectPosition(const IoLightPoint& p, const IoTransfo& t, double x, double y, double z)
{
    EXPECT_EQ(p.x, cell(x, t.offset[0]));
    EXPECT_EQ(p.y, cell(y, t.offset[1]));
    EXPECT_EQ(p.z, cell(z, t.offset[2]));
}

// The lines of a file, read to the end.
std::vector<std::string> allLines(FileSource& source)
{
    std::vector<std::string> lines;
    const char* begin = nullptr;
    const char* end = nullptr;
    while (source.getLine(begin, end))
        lines.emplace_back(begin, end);
    return lines;
}

}  // namespace

TEST(FileSource, HandsOutLinesAcrossWindowBoundaries)
{
    pcp_test::TempFolder folder;
    const uint64_t w = FileSource(folder.path()).windowSize();
    ASSERT_EQ(w, 1u << 20);  // with the 4 KiB pages of x86-64 Linux
    const std::string first(w - 11, 'a');
    const std::string straddling = std::string(20, 'b') + "\r";  // line feed 11 bytes into window 1
    const std::string toWindowEnd(w - 13, 'c');                  // line feed on the last byte of window 1
    const std::string wholeWindow(w, 'd');                       // line feed on the first byte of window 3
    const std::string content =
        first + "\n" + straddling + "\n" + toWindowEnd + "\n" + wholeWindow + "\neeeee";
    const std::wstring path = folder.write(L"lines.txt", content);

    FileSource source(toPath(path));
    EXPECT_EQ(source.linesRead(), FileSource::kNone);
    ASSERT_TRUE(source.open());
    const char* begin = nullptr;
    const char* end = nullptr;
    ASSERT_TRUE(source.getLine(begin, end));
    EXPECT_EQ(std::string(begin, end), first);
    ASSERT_TRUE(source.getLine(begin, end));
    EXPECT_EQ(std::string(begin, end), straddling);
    EXPECT_EQ(source.filePosition(), w + 12);
    EXPECT_TRUE(allLines(source) == (std::vector<std::string>{toWindowEnd, wholeWindow, "eeeee"}));
    EXPECT_EQ(source.linesRead(), 5u);
    EXPECT_EQ(source.fileSize(), content.size());

    // Opening again starts over, as a preview after the detection does.
    ASSERT_TRUE(source.open());
    EXPECT_EQ(allLines(source).size(), 5u);
    source.close();
    EXPECT_FALSE(source.isOpen());
    EXPECT_EQ(source.linesRead(), FileSource::kNone);
}

TEST(FileSource, BoundsLongLinesAndRefusesEmptyOrMissingFiles)
{
    pcp_test::TempFolder folder;
    const uint64_t w = FileSource(folder.path()).windowSize();
    // A line of five windows without a line feed comes out in pieces of at most two windows.
    const std::wstring longLine = folder.write(L"long.txt", std::string(5 * w, 'x') + "\ntail");
    FileSource source(toPath(longLine));
    ASSERT_TRUE(source.open());
    const std::vector<std::string> pieces = allLines(source);
    ASSERT_EQ(pieces.size(), 4u);
    EXPECT_EQ(pieces[0].size(), 2 * w);
    EXPECT_EQ(pieces[1].size(), 2 * w);
    EXPECT_EQ(pieces[2].size(), w);
    EXPECT_EQ(pieces[3], "tail");

    FileSource empty(toPath(folder.write(L"empty.txt", "")));
    EXPECT_FALSE(empty.open());
    EXPECT_EQ(empty.linesRead(), FileSource::kNone);
    EXPECT_FALSE(FileSource(folder.path() / "missing.txt").open());

    // A size beyond the real end is cut to it: mapping past the end would end the process.
    FileSource oversized(toPath(folder.write(L"short.txt", "1\n2")), uint64_t{1} << 30);
    ASSERT_TRUE(oversized.open());
    EXPECT_EQ(oversized.fileSize(), 3u);
    EXPECT_EQ(allLines(oversized), (std::vector<std::string>{"1", "2"}));
}

TEST(PtsImporter, DetectsTheFormatFromTheFirstPointLine)
{
    pcp_test::TempFolder folder;
    const std::pair<std::string, std::string> cases[] = {
        {"2\n1 2 3\n4 5 6\n", "XYZ"},
        {"2\n1 2 3 0.5\n4 5 6 0.25\n", "XYZI"},
        {"1\n1\t2\t3\t4\t5\t6\r\n", "XYZRGB"},
        {"  1 2 3 4 5 6 7  \n1 2 3\n", "XYZIRGB"},
        {"1 2 // 3 4\n1 2 3 // 4 5 6 7 8\n", "XYZ"},
    };
    for (const auto& [content, format] : cases)
    {
        const std::wstring file = folder.write(L"detect.pts", content);
        EXPECT_EQ(PtsImporter(file, kScale, ColorMode(), settings("", "\\s", "//")).getColumnFormat(), format)
            << content;
    }
    // The first point line decides, even when all later ones would fit.
    const std::wstring five = folder.write(L"five.pts", "# scan\n\n10\n1 2 3 4 5\n1 2 3 4 5 6\n");
    EXPECT_EQ(errorText([&] { PtsImporter(five, kScale, ColorMode(), settings("")); }),
              ptsError(five, "Cannot determine line format automatically from:\n\t1 2 3 4 5", 4));
    const std::wstring tokens = folder.write(L"tokens.pts", "1\n2\n3 4\n");
    EXPECT_EQ(errorText([&] { PtsImporter(tokens, kScale, ColorMode(), settings("")); }),
              ptsError(tokens, "Cannot determine line format automatically before end of file.", 3));
    const std::wstring badDelimiter = folder.write(L"bad.pts", "1 2 3\n");
    EXPECT_NE(errorText([&] { PtsImporter(badDelimiter, kScale, ColorMode(), settings("", "[")); })
                  .find("PTS error: Could not parse " + ws2s(badDelimiter) + "\n\tThe delimiter \"[\""),
              std::string::npos);
}

TEST(PtsImporter, FormatStringsChooseColumnsOrFailWithTheirReason)
{
    pcp_test::TempFolder folder;
    const std::wstring file = folder.write(L"format.pts", "1 2 3 4 5 6\n1 2 3 -1 -1 10 20 30\n7 8 9\n");
    // Six numbers are too few for the colour in columns 6 to 8; that line is passed over without a word.
    const pcp_test::ImportRun skipped = convert(folder, file, settings("XYZ..RGB"));
    ASSERT_EQ(skipped.points.size(), 1u);
    expectPosition(skipped.points[0], skipped.probe.transfo, 1, 2, 3);
    EXPECT_EQ(skipped.points[0].r, 10 << 8);
    EXPECT_EQ(skipped.points[0].b, 30 << 8);
    // A lone colour column and trailing dots demand nothing of a line.
    for (const char* format : {"XYZR", "XYZ....."})
    {
        PtsImporter importer(file, kScale, ColorMode(), settings(format));
        EXPECT_FALSE(importer.getSupportedAttributes().color);
        EXPECT_EQ(convert(folder, file, settings(format)).points.size(), 3u) << format;
    }

    const std::pair<std::string, std::string> bad[] = {
        {std::string(65535, '.'), "too many characters are present."},
        {"XYZi", "only the characters 'X', 'Y', 'Z', 'R', 'G', 'B', 'I' and '.' are allowed."},
        {"XYZB.B", "B can only be specified once."},
        {"XXYZ", "X can only be specified once."},
        {"X.YIRGB", "X, Y and Z should be specified."},
    };
    for (const auto& [format, reason] : bad)
        EXPECT_EQ(errorText([&] { PtsImporter(file, kScale, ColorMode(), settings(format)); }),
                  ptsError(file, "In format, " + reason + "\n\tSpecified format = " + format))
            << reason;
}

TEST(PtsImporter, ParsesNumbersByTheDelimitersGrammar)
{
    pcp_test::TempFolder folder;
    const std::wstring comma = folder.write(L"comma.pts", "1, 2 ,3\n  +4 ,-5.5e1,.5  \n7;8;9\n10,11\n");
    const pcp_test::ImportRun c = convert(folder, comma, settings("XYZ", ","));
    ASSERT_EQ(c.points.size(), 2u);
    expectPosition(c.points[0], c.probe.transfo, 1, 2, 3);
    expectPosition(c.points[1], c.probe.transfo, 4, -55, 0.5);

    // A blank as the delimiter stands anywhere in a run of white space.
    const std::wstring blank = folder.write(L"blank.pts", "1 \t 2  3\n");
    const pcp_test::ImportRun b = convert(folder, blank, settings("XYZ", " "));
    ASSERT_EQ(b.points.size(), 1u);
    expectPosition(b.points[0], b.probe.transfo, 1, 2, 3);

    // White space: runs of any kind between numbers, none before the first; the first non-number ends a line.
    const std::wstring blanks =
        folder.write(L"blanks.pts", "1, 2 ,3\n 4 5 6\n7\t 8\v9\f10\r\n11 12 13x 14\n15 16 inf\n17 0x1 2\n");
    const pcp_test::ImportRun w = convert(folder, blanks, settings("XYZ"));
    ASSERT_EQ(w.points.size(), 2u);
    expectPosition(w.points[0], w.probe.transfo, 7, 8, 9);
    expectPosition(w.points[1], w.probe.transfo, 11, 12, 13);

    // A bracket expression splits previews at either character, but data lines take its first character,
    // the bracket, as the separator: no point comes out.
    const std::wstring mixed = folder.write(L"mixed.pts", "1,2;3\n4;5,6\n");
    PtsImporter importer(mixed, kScale, ColorMode(), settings("", "[,;]"));
    EXPECT_EQ(importer.getColumnFormat(), "XYZ");
    std::vector<std::vector<std::string>> rows;
    ASSERT_TRUE(importer.getPreviewData(rows));
    EXPECT_EQ(rows, (std::vector<std::vector<std::string>>{{"1", "2", "3"}, {"4", "5", "6"}}));
    const ProbeResult probe = importer.probe(kScale, {});
    EXPECT_EQ(probe.transfo, IoTransfo());
    EXPECT_EQ(importer.getWarnings(),
              std::vector<std::wstring>{L"Probe could not find any points in input data"});
}

TEST(PtsImporter, ProbesModesAndScalesColourAndIntensity)
{
    pcp_test::TempFolder folder;
    // Unit intensity with both ends, 8-bit colour; the first point settles the transfo.
    const std::wstring unit =
        folder.write(L"unit.pts",
                     "3\n1500 -2500 700 1.0 255 0 7\n1501 -2499 701 0 1 2 3\n1502 -2498 702 0.5 10 "
                     "20 30.9\n");
    const pcp_test::ImportRun u = convert(folder, unit, settings(""));
    EXPECT_EQ(u.probe.colorMode, ColorMode(kRgb8Bit, kIntensityUnit));
    EXPECT_EQ(u.probe.transfo.offset, (std::array<double, 3>{2.0, -3.0, 1.0}));
    EXPECT_EQ(u.probe.transfo.scale, (std::array<double, 3>{kScale, kScale, kScale}));
    ASSERT_EQ(u.points.size(), 3u);
    expectPosition(u.points[0], u.probe.transfo, 1500, -2500, 700);
    expectPosition(u.points[2], u.probe.transfo, 1502, -2498, 702);
    EXPECT_EQ(u.points[0].intensity, 65535);
    EXPECT_EQ(u.points[1].intensity, 0);
    EXPECT_EQ(u.points[2].intensity, 32767);
    EXPECT_EQ(u.points[0].r, 255 << 8);
    EXPECT_EQ(u.points[2].b, 30 << 8);
    EXPECT_EQ(u.progress.back(), 1.0);

    // Signed intensity without colour: both ends reach the 16-bit ends, and the colour takes the intensity.
    const std::wstring signedFile = folder.write(L"signed.pts", "1 2 3 2048\n1 2 3 -2048\n1 2 3 0\n");
    const pcp_test::ImportRun s = convert(folder, signedFile, settings(""));
    EXPECT_EQ(s.probe.colorMode, ColorMode(kRgbFromIntensity, kIntensitySigned));
    ASSERT_EQ(s.points.size(), 3u);
    EXPECT_EQ(s.points[0].intensity, 65535);
    EXPECT_EQ(s.points[1].intensity, 0);
    EXPECT_EQ(s.points[2].intensity, 32767);
    EXPECT_EQ(s.points[0].g, 65535);
    EXPECT_EQ(s.points[2].r, 32767);

    // Channels above 255 are 16-bit and kept (truncated); 8-bit and 16-bit intensities.
    const std::wstring wide = folder.write(L"wide.pts", "1 2 3 200 300.7 0 65535.5\n1 2 3 100.5 0 0 0\n");
    const pcp_test::ImportRun d = convert(folder, wide, settings("XYZIRGB"));
    EXPECT_EQ(d.probe.colorMode, ColorMode(kRgb16Bit, kIntensity8Bit));
    ASSERT_EQ(d.points.size(), 2u);
    EXPECT_EQ(d.points[0].r, 300);
    EXPECT_EQ(d.points[0].b, 65535);
    EXPECT_EQ(d.points[1].intensity, 25728);
    EXPECT_EQ(runIn(folder, wide, settings("XYZIRGB"), ColorMode(kRgbNone, kIntensity16Bit))[1].intensity,
              100);

    const std::wstring black = folder.write(L"black.pts", "1 2 3 0 0 0\n");
    EXPECT_EQ(convert(folder, black, settings("")).probe.colorMode, ColorMode(kRgbBlack, kIntensityNone));
}

TEST(PtsImporter, ValuesOutsideTheirRangeFailAtTheirLine)
{
    pcp_test::TempFolder folder;
    const std::string basedOn = " based on first 131072 valid points.";
    const std::wstring colour = folder.write(L"colour.pts", "1 2 3 10 20 30\n1 2 3 256 0 0\n");
    EXPECT_EQ(
        errorText([&] { runIn(folder, colour, settings("XYZRGB"), ColorMode(kRgb8Bit, kIntensityNone)); }),
        ptsError(colour, "Expected R, G & B in range [0, 255]" + basedOn, 2));

    // Outside the 16-bit scale fails in any mode, the probe included.
    for (const std::string channel : {"65536", "-0.5"})
    {
        const std::wstring file = folder.write(L"channel.pts", "1 2 3 0 0 0\n4 5 6 0 " + channel + " 0\n");
        EXPECT_EQ(errorText([&] { PtsImporter(file, kScale, ColorMode(), settings("")).probe(kScale, {}); }),
                  ptsError(file,
                           "RGB colors out of range [0.0, 65536.0[:\n\t(R, G, B) = (0.000000, " +
                               std::to_string(std::stod(channel)) + ", 0.000000)",
                           2));
    }

    struct IntensityCase
    {
        EIntensityMode mode;
        const char* value;
        std::string text;
    };
    const IntensityCase cases[] = {
        {kIntensityUnit, "1.2", "Expected intensity in range [0.0, 1.0]" + basedOn},
        {kIntensity8Bit, "256", "Expected intensity in range [0.0, 256.0[" + basedOn},
        {kIntensity16Bit, "-1", "Expected intensity in range [0.0, 65536.0[" + basedOn},
        {kIntensitySigned, "2048.5",
         "Expected intensity in range [-2048.0, 2048.0] based on first 131072valid points."},
    };
    for (const IntensityCase& c : cases)
    {
        const std::wstring file =
            folder.write(L"intensity.pts", "2\n1 2 3 0.9\n1 2 3 " + std::string(c.value) + "\n");
        EXPECT_EQ(errorText([&] { runIn(folder, file, settings(""), ColorMode(kRgbFromIntensity, c.mode)); }),
                  ptsError(file, c.text, 3));
    }
}

TEST(PtsImporter, ReadsAcrossWindowsWithAnyLineEnd)
{
    pcp_test::TempFolder folder;
    for (const std::string lineEnd : {"\n", "\r\n", "\r"})
    {
        const int count = 40000;
        std::string content = std::to_string(count) + lineEnd;
        for (int i = 0; i < count; ++i)
        {
            char line[96];
            std::snprintf(line, sizeof line, "%d %d %d %.3f %d %d %d", i * 7 - 5000, 3 * i, -i,
                          (i % 101) / 100.0, i % 256, (i * 3) % 256, 255 - i % 256);
            content += line;
            if (i + 1 < count)  // the last line has no line end
                content += lineEnd;
        }
        ASSERT_GT(content.size(), (1u << 20) + 100);
        ASSERT_NE(content[(1u << 20) - 1], '\n');  // a line straddles the first window boundary
        const std::wstring file = folder.write(L"many.pts", content);
        const pcp_test::ImportRun c = convert(folder, file, settings(""));
        EXPECT_EQ(c.probe.colorMode, ColorMode(kRgb8Bit, kIntensityUnit));
        ASSERT_EQ(c.points.size(), size_t(count));
        for (int i = 0; i < count; ++i)
        {
            const IoLightPoint& p = c.points[i];
            expectPosition(p, c.probe.transfo, i * 7 - 5000, 3 * i, -i);
            ASSERT_EQ(p.intensity, uint16_t((i % 101) / 100.0 * 65535.99999999999)) << i;
            ASSERT_EQ(p.r, (i % 256) << 8) << i;
            ASSERT_EQ(p.g, ((i * 3) % 256) << 8) << i;
            ASSERT_EQ(p.b, (255 - i % 256) << 8) << i;
        }
    }
}

TEST(PtsImporter, SurvivesEmptyFarAndGappedFiles)
{
    pcp_test::TempFolder folder;
    const std::wstring empty = folder.write(L"empty.pts", "");
    EXPECT_EQ(errorText([&] { PtsImporter(empty, kScale, ColorMode(), settings("XYZ")).probe(kScale, {}); }),
              ptsError(empty, "Could not open file."));
    EXPECT_EQ(errorText([&] { PtsImporter(empty, kScale, ColorMode(), settings("")); }),
              "PTS error: Could not parse " + ws2s(empty) +
                  "\n\tLine number 0\n\tCannot determine line format automatically before end of file.\n");

    // Points beyond the 32-bit grid are left out, with one warning for the file.
    const std::wstring far = folder.write(L"far.pts", "1e15 0 0\n1 2 3\n-4e15 0 0\n");
    PtsImporter farAway(far, kScale, ColorMode(), settings("XYZ"));
    EXPECT_EQ(farAway.probe(kScale, {}).transfo.offset, (std::array<double, 3>{0.0, 0.0, 0.0}));
    ASSERT_EQ(farAway.getWarnings().size(), 1u);
    EXPECT_EQ(ws2s(farAway.getWarnings()[0]).rfind("PTS warning: " + ws2s(far) + "\n\tLine number 1\n", 0),
              0u);

    // Long runs of blanks between tokens once overflowed the stack of the splitting expression.
    const std::string gap(300000, ' ');
    const std::wstring gaps = folder.write(L"gaps.pts", "1" + gap + "2" + gap + "3\n");
    const pcp_test::ImportRun g = convert(folder, gaps, settings(""));
    EXPECT_EQ(PtsImporter(gaps, kScale, ColorMode(), settings("")).getColumnFormat(), "XYZ");
    ASSERT_EQ(g.points.size(), 1u);
}

TEST(PtsImporter, PreviewsAndTestsDelimiters)
{
    pcp_test::TempFolder folder;
    const std::wstring file = folder.write(L"preview.pts", "# header\n3\n1,2,3\n4;5;6\n7,8 ,9#note\n");
    Settings previewOnly = settings("", ",", "#");
    previewOnly.determineFormat = false;
    PtsImporter importer(file, kScale, ColorMode(), previewOnly);
    EXPECT_EQ(importer.getColumnFormat(), "");
    std::vector<std::vector<std::string>> rows;
    ASSERT_TRUE(importer.getPreviewData(rows));
    EXPECT_EQ(rows, (std::vector<std::vector<std::string>>{{"1", "2", "3"}, {"7", "8 ", "9"}}));
    EXPECT_TRUE(importer.checkIfPossibleDelimiter(","));
    EXPECT_TRUE(importer.checkIfPossibleDelimiter(";"));
    EXPECT_FALSE(importer.checkIfPossibleDelimiter("\\s"));
    EXPECT_FALSE(importer.checkIfPossibleDelimiter("("));
    // Asked to convert all the same, it settles its columns first.
    EXPECT_EQ(importer.probe(kScale, {}).transfo.offset, (std::array<double, 3>{0.0, 0.0, 0.0}));
    EXPECT_EQ(importer.getColumnFormat(), "XYZ");

    std::string many;
    for (int i = 0; i < 60; ++i)
        many += std::to_string(i) + " 0 0\n";
    const std::wstring long_ = folder.write(L"many.pts", many);
    ASSERT_TRUE(PtsImporter(long_, kScale, ColorMode(), settings("")).getPreviewData(rows));
    EXPECT_EQ(rows.size(), 50u);
    EXPECT_EQ(rows.back(), (std::vector<std::string>{"49", "0", "0"}));

    const std::wstring empty = folder.write(L"empty.pts", "");
    PtsImporter none(empty, kScale, ColorMode(), previewOnly);
    EXPECT_FALSE(none.getPreviewData(rows));
    EXPECT_TRUE(rows.empty());
    EXPECT_FALSE(none.checkIfPossibleDelimiter(","));
}

// Every input the fuzz target keeps, the ones that once failed among them, must pass its checks here too.
TEST(PtsImporter, ReplaysTheFuzzCorpus)
{
    pcp_test::TempFolder folder;
    const std::wstring cache = toWide(folder.path() / "cache");
    std::filesystem::create_directories(toPath(Convertor::getPointFolder(cache)));
    const size_t replayed = pcp_test::replayFuzzCorpus(
        "pts",
        [&](const std::string& bytes, const std::filesystem::path& file)
        {
            const auto input =
                pcp_fuzz::PtsFuzzCase::decode(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
            if (!input)
                return;
            EXPECT_EQ(pcp_fuzz::checkLines(*input), "") << file;
            EXPECT_EQ(pcp_fuzz::checkFormatString(*input), "") << file;
            EXPECT_EQ(pcp_fuzz::checkImport(*input, folder.file(L"fuzz.pts"), cache), "") << file;
        });
    EXPECT_GE(replayed, 10u);
}
