// pcprep info: what a node file holds.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "cachefiles/PntFiles.h"
#include "cachefiles/PnzFiles.h"
#include "core/ExtentsI32.h"
#include "core/FileFormat.h"
#include "core/FileSizeString.h"
#include "core/NodePaths.h"
#include "core/StringConversion.h"
#include "importers/E57.h"
#include "importers/LazImporter.h"
#include "importers/Riegl.h"
#include "pcprep/ArgumentParser.h"
#include "pcprep/Command.h"
#include "pcprep/HspcDataSet.h"

namespace pcprep
{

namespace
{

using pc_preprocess::IoLightPoint;
using pc_preprocess::IoTransfo;

template <typename T>
struct Range
{
    T lo = std::numeric_limits<T>::max();
    T hi = std::numeric_limits<T>::lowest();
    void widen(T v)
    {
        lo = std::min(lo, v);
        hi = std::max(hi, v);
    }
};

double realCoordinate(int32_t value, const IoTransfo& transfo, int axis)
{
    return value * transfo.scale[axis] + transfo.offset[axis];
}

void printSideFile(const char* label, const std::filesystem::path& path, const std::string& detail)
{
    if (std::filesystem::exists(path))
        std::printf("%-13s %s%s\n", label, path.filename().string().c_str(), detail.c_str());
    else
        std::printf("%-13s none\n", label);
}

void printPoints(const std::vector<IoLightPoint>& points, const IoTransfo& transfo, uint64_t count)
{
    count = std::min<uint64_t>(count, points.size());
    for (uint64_t i = 0; i < count; ++i)
    {
        const IoLightPoint& p = points[i];
        std::printf(
            "point %llu: (%d, %d, %d) = (%.4f, %.4f, %.4f) rgb %u %u %u intensity %u scan %u class %u "
            "radius %g normal (%g, %g, %g)\n",
            static_cast<unsigned long long>(i), p.x, p.y, p.z, realCoordinate(p.x, transfo, 0),
            realCoordinate(p.y, transfo, 1), realCoordinate(p.z, transfo, 2), p.r, p.g, p.b, p.intensity,
            p.scanId, p.classification, double(p.radius), double(p.nx), double(p.ny), double(p.nz));
    }
}

}  // namespace

int runInfo(const Arguments& arguments)
{
    const ParsedArguments parsed(arguments, {{"--points", true}, {"--riegl-library", true}});
    parsed.expectPositional(1, "one FILE");
    const std::filesystem::path file(parsed.positional()[0]);
    if (namesHspcDataSet(file))
        return describeHspcDataSet(file);
    if (std::filesystem::is_directory(file))
        return describeCacheFolder(file);
    const std::wstring wide = pc_preprocess::toWide(file);
    const pc_preprocess::EFileFormat format = pc_preprocess::fileFormat(wide);
    if (format == pc_preprocess::kFormatLas || format == pc_preprocess::kFormatLaz)
    {
        pc_preprocess::laszHeader(wide, std::cout);
        return 0;
    }
    if (format == pc_preprocess::kFormatE57)
    {
        pc_preprocess::e57Header(wide, std::cout);
        return 0;
    }
    if (format == pc_preprocess::kFormatRdbx || format == pc_preprocess::kFormatRsp)
    {
        pc_preprocess::rieglHeader(wide, pc_preprocess::s2ws(parsed.text("--riegl-library", "")), std::cout);
        return 0;
    }
    const bool compressed = file.extension() == ".pnz";
    if (!compressed && file.extension() != ".pnt")
        throw UsageError(
            "expected a cache folder, an HSPC data set, a LAS, LAZ, E57, RDBX or RSP file, or a node file (.pnt or "
            ".pnz), not " +
            file.string());

    if (!std::filesystem::is_regular_file(file))
        throw std::runtime_error(file.string() + " is no existing file");

    // Everything is read before anything is printed, so a broken file gives its error alone.
    IoTransfo transfo;
    std::vector<IoLightPoint> points;
    std::string form;
    const uint64_t onDisk = std::filesystem::file_size(file);
    if (compressed)
    {
        pc_preprocess::readPNZ(wide, transfo, points);
        form = "PNZ (compressed), " + pc_preprocess::getFileSizePrettyString(onDisk) + " on disk, " +
               pc_preprocess::getFileSizePrettyString(pc_preprocess::fileSizePNT(points.size(), true)) +
               " inflated";
    }
    else
    {
        const pc_preprocess::PntFileInfo header = pc_preprocess::readPntHeader(wide);
        pc_preprocess::readPNT(wide, transfo, points);
        form = "PNT, " + pc_preprocess::getFileSizePrettyString(onDisk) + ", records of " +
               std::to_string(pc_preprocess::pntRecordSize(header.extended)) + " bytes" +
               (header.extended ? " (with intensity and scan index)" : "");
    }
    std::printf("%-13s %s\n", "File", file.string().c_str());
    std::printf("%-13s %s\n", "Form", form.c_str());
    std::printf("%-13s %zu\n", "Points", points.size());
    std::printf("%-13s %.17g %.17g %.17g\n", "Scale", transfo.scale[0], transfo.scale[1], transfo.scale[2]);
    std::printf("%-13s %.17g %.17g %.17g\n", "Offset", transfo.offset[0], transfo.offset[1],
                transfo.offset[2]);

    if (!points.empty())
    {
        pc_preprocess::ExtentsI32 box;
        Range<uint16_t> red, green, blue, intensity, scan;
        Range<float> radius;
        std::map<unsigned, uint64_t> classes;
        uint64_t withNormal = 0;
        for (const IoLightPoint& p : points)
        {
            box.extend(p);
            red.widen(p.r);
            green.widen(p.g);
            blue.widen(p.b);
            intensity.widen(p.intensity);
            scan.widen(p.scanId);
            radius.widen(p.radius);
            ++classes[p.classification];
            withNormal += (p.nx != 0.0f || p.ny != 0.0f || p.nz != 0.0f) ? 1 : 0;
        }
        std::printf("%-13s (%d, %d, %d) .. (%d, %d, %d)\n", "Integer box", box.minX(), box.minY(), box.minZ(),
                    box.maxX(), box.maxY(), box.maxZ());
        std::printf("%-13s (%.4f, %.4f, %.4f) .. (%.4f, %.4f, %.4f)\n", "Real box",
                    realCoordinate(box.minX(), transfo, 0), realCoordinate(box.minY(), transfo, 1),
                    realCoordinate(box.minZ(), transfo, 2), realCoordinate(box.maxX(), transfo, 0),
                    realCoordinate(box.maxY(), transfo, 1), realCoordinate(box.maxZ(), transfo, 2));
        std::printf("%-13s red %u..%u, green %u..%u, blue %u..%u (16-bit scale)\n", "Colour", red.lo, red.hi,
                    green.lo, green.hi, blue.lo, blue.hi);
        std::printf("%-13s %u..%u (16-bit scale)\n", "Intensity", intensity.lo, intensity.hi);
        std::printf("%-13s %u..%u\n", "Scan index", scan.lo, scan.hi);
        std::printf("%-13s %g..%g\n", "Radius", double(radius.lo), double(radius.hi));

        std::string classText = ":";
        for (const auto& [code, count] : classes)
            classText += " class " + std::to_string(code) + " x " + std::to_string(count) + ",";
        classText.pop_back();
        printSideFile("Class file", pc_preprocess::toPath(pc_preprocess::getClassPathFromPnt(wide)),
                      classText);
        printSideFile("Normal file", pc_preprocess::toPath(pc_preprocess::getNormalPathFromPnt(wide)),
                      ": " + std::to_string(withNormal) + " points with a normal");
    }
    printPoints(points, transfo, parsed.number("--points", 0));
    return 0;
}

}  // namespace pcprep
