// The value types every stage exchanges: integer boxes and their splitting, colour-mode inference, file
// formats, units, string and path helpers.
#include <gtest/gtest.h>

#include <fstream>
#include <stdexcept>

#include "core/ExportPoint.h"
#include "core/ExtentsI32.h"
#include "core/FileColorRange.h"
#include "core/FileFormat.h"
#include "core/FileSizeString.h"
#include "core/InputFileData.h"
#include "core/NodePaths.h"
#include "core/StringConversion.h"
#include "core/SupportedAttributes.h"
#include "core/Units.h"
#include "geom/Matrix3d.h"
#include "support/ErrorText.h"
#include "support/TempFolder.h"

using namespace pc_preprocess;
using pcp_test::errorText;

namespace
{

IoTransfo transfoWithScale(double sx, double sy, double sz)
{
    IoTransfo t;
    t.offset = {0.0, 0.0, 0.0};
    t.scale = {sx, sy, sz};
    return t;
}

IoLightPoint pointAt(int x, int y, int z)
{
    IoLightPoint p;
    p.x = x;
    p.y = y;
    p.z = z;
    return p;
}

}  // namespace

TEST(ExtentsI32, EmptyInvalidAndCopiedBoxes)
{
    ExtentsI32 empty;
    EXPECT_FALSE(empty.isValid());
    // Only the default constructor and reset() give the empty box; copies and six-integer boxes are repaired.
    EXPECT_EQ(ExtentsI32(empty), ExtentsI32(0, 0, 0, 0, 0, 0));
    const ExtentsI32 inverted(5, 0, 0, 4, 10, 10);
    EXPECT_TRUE(inverted.isValid());
    EXPECT_EQ(inverted, ExtentsI32(0, 0, 0, 0, 0, 0));
    EXPECT_TRUE(inverted.contains(0, 0, 0));

    empty.extend(pointAt(-7, 3, 2));
    EXPECT_EQ(empty, ExtentsI32(-7, 3, 2, -7, 3, 2));
    empty.extend(10, -1, 2);
    EXPECT_EQ(empty, ExtentsI32(-7, -1, 2, 10, 3, 2));
    EXPECT_TRUE(empty.contains(pointAt(10, 3, 2)));
    EXPECT_FALSE(empty.contains(pointAt(11, 3, 2)));
    EXPECT_TRUE(empty.contains(ExtentsI32(-7, -1, 2, 0, 0, 2)));
    EXPECT_FALSE(empty.contains(ExtentsI32(-8, -1, 2, 0, 0, 2)));

    ExtentsI32 reset = empty;
    reset.reset();
    EXPECT_EQ(errorText([&] { empty.extend(reset); }), "ExtentsI32: Input extents cannot be invalid.");
    EXPECT_EQ(errorText([&] { (void)empty.contains(reset); }),
              "ExtentsI32: Input extents cannot be invalid.");
    EXPECT_EQ(errorText([&] { (void)reset.discreteVolume(); }),
              "ExtentsI32: Cannot compute volume of invalid extents.");
}

TEST(ExtentsI32, VolumeAndPointSize)
{
    EXPECT_EQ(ExtentsI32(0, 0, 0, 0, 0, 0).discreteVolume(), 1u);
    // The full signed range on one axis is 2^32 cells: the product must not wrap at 32 bits.
    const ExtentsI32 wide(INT32_MIN, 0, 0, INT32_MAX, 1, 0);
    EXPECT_EQ(wide.discreteVolume(), uint64_t(1) << 33);

    // Two larger faces of 256 x 256 cells hold 65536 points at a spacing of 1: the size is twice that.
    EXPECT_DOUBLE_EQ(ExtentsI32(0, 0, 0, 255, 0, 255).pointSize(transfoWithScale(1, 1, 1)), 2.0);
    EXPECT_DOUBLE_EQ(ExtentsI32(0, 0, 0, 255, 0, 255).pointSize(transfoWithScale(0.5, 7, 0.5)), 1.0);
    EXPECT_EQ(errorText([] { (void)ExtentsI32(0, 0, 0, 1, 1, 1).pointSize(IoTransfo()); }),
              "ExtentsI32: Cannot compute edge lengths with invalid transfo.");
    EXPECT_EQ(errorText([] { (void)ExtentsI32().pointSize(transfoWithScale(1, 1, 1)); }),
              "ExtentsI32: Cannot compute edge lengths of invalid extents.");
}

TEST(ExtentsI32, Split8CutsEachBoxAcrossItsOwnLongestEdge)
{
    // A cube: X first (ties go to X), then Y in both halves, then Z.
    const auto cube = ExtentsI32(0, 0, 0, 7, 7, 7).split8(transfoWithScale(1, 1, 1));
    const ExtentsI32 expectedCube[8] = {{0, 0, 0, 3, 3, 3}, {0, 0, 4, 3, 3, 7}, {0, 4, 0, 3, 7, 3},
                                        {0, 4, 4, 3, 7, 7}, {4, 0, 0, 7, 3, 3}, {4, 0, 4, 7, 3, 7},
                                        {4, 4, 0, 7, 7, 3}, {4, 4, 4, 7, 7, 7}};
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(cube[i], expectedCube[i]) << "octant " << i;

    // A long thin box is cut three times across its length.
    const auto rod = ExtentsI32(0, 0, 0, 799, 9, 9).split8(transfoWithScale(1, 1, 1));
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(rod[i], ExtentsI32(100 * i, 0, 0, 100 * i + 99, 9, 9)) << "slice " << i;

    // The middle of -3..0 truncates toward zero: -3..-1 and 0..0. Scales make X the longest edge.
    const auto negative = ExtentsI32(-3, 0, 0, 0, 3, 3).split8(transfoWithScale(10, 9, 8));
    EXPECT_EQ(negative[0].minX(), -3);
    EXPECT_EQ(negative[0].maxX(), -1);
    EXPECT_EQ(negative[4].minX(), 0);
    EXPECT_EQ(negative[4].maxX(), 0);

    // One cell thick on its longest axis, possible only through differing scales.
    EXPECT_EQ(errorText([] { (void)ExtentsI32(0, 0, 0, 0, 9, 9).split8(transfoWithScale(100, 1, 1)); }),
              "ExtentsI32::split2 : m_minX == m_maxX.");
    EXPECT_EQ(errorText([] { (void)ExtentsI32(0, 0, 0, 9, 0, 9).split8(transfoWithScale(1, 100, 1)); }),
              "ExtentsI32::split2 : m_minY == m_maxY.");
    EXPECT_EQ(errorText([] { (void)ExtentsI32(0, 0, 0, 9, 9, 0).split8(transfoWithScale(1, 1, 100)); }),
              "ExtentsI32::split2 : m_minZ == m_maxZ.");
}

TEST(FileColorRange, InfersTheNarrowestMode)
{
    FileColorRange range;
    EXPECT_EQ(range.colorMode(), ColorMode(kRgbFromIntensity, kIntensityNone));

    range.updateIntensity(0.0);
    range.updateIntensity(1.0);
    EXPECT_EQ(range.colorMode().intensity, kIntensityUnit);  // would fit 8 bits too: the narrower range wins
    range.updateIntensity(255.5);
    EXPECT_EQ(range.colorMode().intensity, kIntensity8Bit);
    range.updateIntensity(65535.0);
    EXPECT_EQ(range.colorMode().intensity, kIntensity16Bit);
    range.updateIntensity(65536.0);
    EXPECT_EQ(range.colorMode().intensity, kIntensityNone);

    range.reset();
    range.updateAll(0.0, 0.0, 0.0, -2048.0);
    range.updateIntensity(2048.0);
    EXPECT_EQ(range.colorMode(), ColorMode(kRgbBlack, kIntensitySigned));
    range.updateIntensity(-2049.0);
    EXPECT_EQ(range.colorMode().intensity, kIntensityNone);

    range.reset();
    range.updateRgb(10.0, 255.0, 3.0);
    EXPECT_EQ(range.colorMode().rgb, kRgb8Bit);
    EXPECT_EQ(range.rgbMode(), kRgb8Bit);
    range.updateRgb(256.0);
    EXPECT_EQ(range.colorMode().rgb, kRgb16Bit);
    EXPECT_EQ(range.rgbMode(), kRgb16Bit);
}

TEST(FileFormat, ExtensionDecidesIgnoringCase)
{
    // Only the last extension counts, in any case and under any folder name.
    EXPECT_EQ(fileFormat(L"/scans/TILE.LAS"), kFormatLas);
    EXPECT_EQ(fileFormat(L"a.LaZ"), kFormatLaz);
    EXPECT_EQ(fileFormat(L"tree.hspc.pack"), kFormatHspc);
    EXPECT_EQ(fileFormat(L"räume/扫描.e57"), kFormatE57);
    EXPECT_EQ(fileFormat(L"points.xyz"), kFormatUnknown);
    EXPECT_EQ(fileFormat(L"no_extension"), kFormatUnknown);

    // Only formats that are metric by definition tell their units.
    EXPECT_EQ(getFileUnits(L"scan.e57"), geom::kUnitsMeters);
    EXPECT_EQ(getFileUnits(L"tile.las"), geom::kUnitsUndefined);
}

TEST(InputFileData, ChecksFileBeforeScale)
{
    pcp_test::TempFolder folder;
    const std::wstring existing = folder.file(L"räume-扫描.pts");
    std::ofstream(toPath(existing)) << "1\n0 0 0\n";

    const std::wstring missing = folder.file(L"fehlt-ä.pts");
    EXPECT_EQ(errorText([&] { InputFileData(missing, 0.0); }),
              "InputFileData: " + ws2s(missing) + " is not an existing regular file!");
    EXPECT_EQ(errorText([&] { InputFileData(toWide(folder.path()), 1.0); }),
              "InputFileData: " + ws2s(toWide(folder.path())) + " is not an existing regular file!");
    EXPECT_EQ(errorText([&] { InputFileData(existing, 0.0); }), "InputFileData: scale = 0.000000 <= 0.0.");
    EXPECT_EQ(errorText([&] { InputFileData(existing, -2.5); }), "InputFileData: scale = -2.500000 <= 0.0.");
}

TEST(StringConversion, Utf8RoundTripAndBrokenInput)
{
    const std::string text = "Räume 点云 \xF0\x9F\x93\x90 end";  // two-, three- and four-byte sequences
    const std::wstring wide = s2ws(text);
    EXPECT_EQ(wide, L"Räume 点云 \U0001F4D0 end");
    EXPECT_EQ(ws2s(wide), text);

    // A lone continuation byte, a truncated sequence and an overlong slash each become U+FFFD.
    EXPECT_EQ(s2ws("a\x80"
                   "b"),
              L"a\uFFFDb");
    EXPECT_EQ(s2ws("x\xE7\x82"), L"x\uFFFD");
    EXPECT_EQ(s2ws("\xC0\xAF"), L"\uFFFD");
    EXPECT_EQ(ws2s(std::wstring(1, wchar_t(0xD800))), "\xEF\xBF\xBD");

    EXPECT_EQ(toWide(toPath(L"/tmp/ä/扫描.pnt")), L"/tmp/ä/扫描.pnt");
    EXPECT_EQ(toPath(L"/tmp/ä/扫描.pnt").filename().string(), "扫描.pnt");
}

TEST(Helpers, SizesUnitsAndSidePaths)
{
    EXPECT_EQ(getFileSizePrettyString(0), "0.00B");
    EXPECT_EQ(getFileSizePrettyString(1023), "1023.00B");
    EXPECT_EQ(getFileSizePrettyString(1536), "1.50KB");
    EXPECT_EQ(getFileSizePrettyString(uint64_t(5) << 30), "5.00GB");
    EXPECT_EQ(getFileSizePrettyString(uint64_t(1) << 60), "1048576.00TB");

    EXPECT_EQ(convertUnitsEnumToOdString(geom::kUnitsUSSurveyMile, false), L"US Survey Mile");
    // Without an installed catalogue the translated names are the English ones.
    EXPECT_EQ(convertUnitsEnumToStdString(geom::kUnitsLightYears, true), "Light years");
    EXPECT_EQ(convertUnitsEnumToStdString(static_cast<geom::UnitsValue>(99), false), "Undefined");
    EXPECT_EQ(convertUnitsStringToEnum("US Survey Yard"), geom::kUnitsUSSurveyYard);
    EXPECT_EQ(convertUnitsStringToEnum("furlongs"), geom::kUnitsUndefined);

    EXPECT_EQ(getClassPathFromPnt(L"/c/Data/12.pnz"), L"/c/Data/12-class.pnt");
    EXPECT_EQ(getNormalPathFromPnt(L"/c/Data/scän-0003-temp.pnt"), L"/c/Data/scän-0003-temp-normal.pnt");

    SupportedAttributes attributes;
    attributes.color = attributes.normals = true;
    EXPECT_EQ(describe(attributes),
              "Supported attributes: radius(0) scanId(0) class(0) color(1) intensity(0) normals(1)");
}

TEST(ExportPoint, EqualityUsesToleranceOnlyForGeometry)
{
    ExportPoint a;
    ExportPoint b;
    EXPECT_EQ(a, b);
    b.position.x += 1e-12;
    b.normal.z += 1e-12;
    EXPECT_EQ(a, b);
    b.position.x += 1e-6;
    EXPECT_NE(a, b);
    b = a;
    b.radius = 1.0f + 1e-7f;
    EXPECT_NE(a, b);
}

TEST(Matrix3d, PoseFromColumnMajorAppliesToPointsNotVectors)
{
    // A quarter turn about Z, stored column-major, then a move by (10, 0, 0).
    const auto pose = geom::Matrix3d::fromColumnMajor({0, 1, 0, -1, 0, 0, 0, 0, 1}, {10, 0, 0});
    EXPECT_EQ(pose.transform(geom::Point3d(1, 0, 0)), geom::Point3d(10, 1, 0));
    EXPECT_EQ(pose.transform(geom::Vector3d(1, 0, 0)), geom::Vector3d(0, 1, 0));
    // The right factor is applied first.
    const auto moved = geom::Matrix3d::translation({0, 0, 5}) * pose;
    EXPECT_EQ(moved.transform(geom::Point3d(1, 0, 0)), geom::Point3d(10, 1, 5));
    EXPECT_EQ(moved.translationPart(), geom::Vector3d(10, 0, 5));
}
