// pcprep sample: the built-in sample, a furnished room scanned by simulation (a node file with both side
// files, a PTS project of several scans, a LAS tile and a PTX file), and on request an outdoor LAS tile of an
// airborne survey, large enough for the tree builder's benchmark.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <stdexcept>

#include "cachefiles/SerializedPoints.h"
#include "core/FileSizeString.h"
#include "core/NodePaths.h"
#include "core/StringConversion.h"
#include "pcprep/ArgumentParser.h"
#include "pcprep/Command.h"
#include "sample/AirborneSurvey.h"
#include "sample/E57Project.h"
#include "sample/LasWriter.h"
#include "sample/PtsWriter.h"
#include "sample/PtxWriter.h"
#include "sample/SampleScene.h"

namespace pcprep
{

namespace
{

using pc_preprocess::IoLightPoint;
using pc_preprocess::IoTransfo;

// A millimetre grid centred on the room: the integers of the walls come out negative and positive.
IoTransfo sampleTransfo()
{
    IoTransfo transfo;
    transfo.scale = {0.001, 0.001, 0.001};
    transfo.offset = {3.0, 2.0, 1.5};
    return transfo;
}

std::vector<IoLightPoint> toNodePoints(const std::vector<pcp_sample::SampleHit>& hits,
                                       const IoTransfo& transfo)
{
    std::vector<IoLightPoint> points(hits.size());
    for (size_t i = 0; i < hits.size(); ++i)
    {
        const pcp_sample::SampleHit& hit = hits[i];
        IoLightPoint& p = points[i];
        p.x = int32_t(std::lround((hit.position.x - transfo.offset[0]) / transfo.scale[0]));
        p.y = int32_t(std::lround((hit.position.y - transfo.offset[1]) / transfo.scale[1]));
        p.z = int32_t(std::lround((hit.position.z - transfo.offset[2]) / transfo.scale[2]));
        p.radius = float(hit.distance);
        p.r = hit.r;
        p.g = hit.g;
        p.b = hit.b;
        p.intensity = hit.intensity;
        p.classification = hit.classification;
        p.nx = float(hit.normal.x);
        p.ny = float(hit.normal.y);
        p.nz = float(hit.normal.z);
    }
    return points;
}

void requireWritten(const std::ofstream& stream, const std::wstring& path)
{
    if (!stream)
        throw std::runtime_error("could not write " + pc_preprocess::ws2s(path));
}

// The node file with both side files, as a finished leaf of a cache holds them.
void writeSampleNode(const std::filesystem::path& folder)
{
    const std::wstring pnt = pc_preprocess::toWide(folder / "sample-room.pnt");
    const std::wstring classes = pc_preprocess::getClassPathFromPnt(pnt);
    const std::wstring normals = pc_preprocess::getNormalPathFromPnt(pnt);

    const IoTransfo transfo = sampleTransfo();
    const auto hits = pcp_sample::scanRoom({2.2, 1.2, 1.5}, pcp_sample::ScanGrid{200, 250});
    pc_preprocess::SerializedPoints buffers(true, true);
    buffers.add(toNodePoints(hits, transfo));

    std::ofstream pntStream(pc_preprocess::toPath(pnt), std::ios::binary | std::ios::trunc);
    std::ofstream classStream(pc_preprocess::toPath(classes), std::ios::binary | std::ios::trunc);
    std::ofstream normalStream(pc_preprocess::toPath(normals), std::ios::binary | std::ios::trunc);
    pc_preprocess::SerializedPoints::writeHeader(pntStream, transfo);
    buffers.flush(pntStream, classStream, normalStream);
    for (auto* stream : {&pntStream, &classStream, &normalStream})
        stream->close();
    requireWritten(pntStream, pnt);
    requireWritten(classStream, classes);
    requireWritten(normalStream, normals);

    std::printf("node file   %s: %zu points with class and normal side files (%s)\n",
                pc_preprocess::ws2s(pnt).c_str(), hits.size(),
                pc_preprocess::getFileSizePrettyString(std::filesystem::file_size(pc_preprocess::toPath(pnt)))
                    .c_str());
}

// A PTS project of the same room: one scan per scanner position, the last without colour when there are
// several, as projects that mix scanners have.
void writeSampleProject(const std::filesystem::path& folder, uint64_t points, uint64_t scans)
{
    static const geom::Point3d kScanners[] = {
        {1.5, 1.2, 1.6}, {4.5, 2.8, 1.5}, {3.0, 0.8, 1.4}, {0.8, 3.2, 1.7}, {5.2, 2.0, 1.3}};
    std::filesystem::create_directories(folder);
    for (uint64_t scan = 0; scan < scans; ++scan)
    {
        // Rows from pole to pole, twice as many columns around: a panorama of the asked size.
        const uint64_t perScan = std::max<uint64_t>(points / scans, 2);
        const int rows = std::max(1, int(std::sqrt(double(perScan) / 2.0)));
        const int columns = int(perScan / uint64_t(rows));
        const auto hits = pcp_sample::scanRoom(kScanners[scan % std::size(kScanners)], {rows, columns});
        const bool withColour = scans == 1 || scan + 1 < scans;
        const std::string path = (folder / ("room-scan-" + std::to_string(scan + 1) + ".pts")).string();
        const uint64_t bytes = pcp_sample::writePtsScan(path, hits, withColour);
        std::printf("PTS scan    %s: %zu points, %s (%s)\n", path.c_str(), hits.size(),
                    withColour ? "XYZIRGB" : "XYZI, no colour",
                    pc_preprocess::getFileSizePrettyString(bytes).c_str());
    }
}

// The same room once more as a LAS tile, from a scanner under the ceiling, as a mobile or aerial survey sees
// a site from above.
void writeSampleTile(const std::filesystem::path& folder)
{
    std::filesystem::create_directories(folder);
    const auto hits = pcp_sample::scanRoom({3.0, 2.0, 2.8}, {220, 440});
    const double offset[3] = {0.0, 0.0, 0.0};
    const std::filesystem::path path = folder / "room-tile.las";
    pcp_sample::writeLasTile(path.string(), hits, offset);
    std::printf("LAS tile    %s: %zu points, LAS 1.2 point format 3 (%s)\n", path.string().c_str(),
                hits.size(),
                pc_preprocess::getFileSizePrettyString(std::filesystem::file_size(path)).c_str());
}

// The outdoor tile, streamed to disk as the survey flies: any number of points in the same small memory.
void writeSampleTerrain(const std::filesystem::path& folder, uint64_t points)
{
    std::filesystem::create_directories(folder);
    const std::filesystem::path path = folder / "terrain-tile.las";
    const uint64_t written = pcp_sample::writeTerrainTile(path.string(), points);
    std::printf("LAS tile    %s: %llu points of an airborne survey, LAS 1.2 point format 3, UTM 32N (%s)\n",
                path.string().c_str(), static_cast<unsigned long long>(written),
                pc_preprocess::getFileSizePrettyString(std::filesystem::file_size(path)).c_str());
}

// A PTX file holding two scans of the room from two positions, each in its own frame with its pose.
void writeSamplePtx(const std::filesystem::path& folder, uint64_t points)
{
    std::filesystem::create_directories(folder);
    const uint64_t perScan = std::max<uint64_t>(points / 2, 2);
    const int rows = std::max(1, int(std::sqrt(double(perScan) / 2.0)));
    const pcp_sample::ScanGrid grid{rows, int(perScan / uint64_t(rows))};
    std::vector<pcp_sample::StationScan> scans;
    const std::pair<geom::Point3d, double> stations[] = {{{1.6, 1.3, 1.55}, 0.0}, {{4.4, 2.6, 1.45}, 35.0}};
    for (const auto& [scanner, heading] : stations)
        scans.push_back({pcp_sample::scanRoom(scanner, grid), grid, scanner, heading});
    const std::filesystem::path path = folder / "room-scans.ptx";
    const uint64_t bytes = pcp_sample::writePtxFile(path.string(), scans);
    std::printf("PTX file    %s: 2 scans of %d x %d points, with poses and colour (%s)\n",
                path.string().c_str(), grid.rows, grid.columns,
                pc_preprocess::getFileSizePrettyString(bytes).c_str());
}

// An E57 project of two scans from two stations, each with a spherical camera picture.
void writeSampleE57(const std::filesystem::path& folder, uint64_t points)
{
    std::filesystem::create_directories(folder);
    const std::filesystem::path path = folder / "room-project.e57";
    const uint64_t bytes = pcp_sample::writeE57Project(path.string(), points);
    std::printf(
        "E57 project %s: 2 scans of %llu records, with poses, colour and a camera picture each (%s)\n",
        path.string().c_str(), static_cast<unsigned long long>(std::max<uint64_t>(points / 2, 2)),
        pc_preprocess::getFileSizePrettyString(bytes).c_str());
}

// The parts of the sample to write, from a comma-separated list. The outdoor tile is written on request only:
// made for benchmarks, it would add a quarter to the time of the default sample and 65 MB to its size.
struct SampleParts
{
    bool node = true;
    bool pts = true;
    bool las = true;
    bool ptx = true;
    bool e57 = true;
    bool terrain = false;
};

SampleParts parseParts(const std::string& list)
{
    SampleParts parts{false, false, false, false, false, false};
    std::string rest = list + ",";
    for (size_t comma; (comma = rest.find(',')) != std::string::npos; rest.erase(0, comma + 1))
    {
        const std::string part = rest.substr(0, comma);
        if (part == "node")
            parts.node = true;
        else if (part == "pts")
            parts.pts = true;
        else if (part == "las")
            parts.las = true;
        else if (part == "ptx")
            parts.ptx = true;
        else if (part == "e57")
            parts.e57 = true;
        else if (part == "terrain")
            parts.terrain = true;
        else
            throw UsageError("--parts takes node, pts, las, ptx, e57 and terrain, not '" + part + "'");
    }
    return parts;
}

}  // namespace

int runSample(const Arguments& arguments)
{
    const ParsedArguments parsed(arguments, {{"--points", true},
                                             {"--scans", true},
                                             {"--ptx-points", true},
                                             {"--e57-points", true},
                                             {"--terrain-points", true},
                                             {"--parts", true}});
    parsed.expectPositional(1, "one FOLDER");
    const uint64_t points = parsed.number("--points", 300000);
    const uint64_t scans = parsed.number("--scans", 3);
    const uint64_t ptxPoints = parsed.number("--ptx-points", 2000000);
    const uint64_t e57Points = parsed.number("--e57-points", 1000000);
    const uint64_t terrainPoints = parsed.number("--terrain-points", 2000000);
    if (scans == 0 || scans > 5 || points == 0 || ptxPoints == 0 || e57Points == 0 || terrainPoints == 0)
        throw UsageError(
            "--scans takes 1 to 5, --points, --ptx-points, --e57-points and --terrain-points at least 1");
    if (terrainPoints > std::numeric_limits<uint32_t>::max())
        throw UsageError("--terrain-points takes at most 4294967295, the most a LAS 1.2 header counts");
    const SampleParts parts = parsed.has("--parts") ? parseParts(parsed.text("--parts", "")) : SampleParts{};
    const std::filesystem::path folder(parsed.positional()[0]);
    std::filesystem::create_directories(folder);
    if (parts.node)
        writeSampleNode(folder);
    if (parts.pts)
        writeSampleProject(folder / "pts", points, scans);
    if (parts.las)
        writeSampleTile(folder / "las");
    if (parts.ptx)
        writeSamplePtx(folder / "ptx", ptxPoints);
    if (parts.e57)
        writeSampleE57(folder / "e57", e57Points);
    if (parts.terrain)
        writeSampleTerrain(folder / "las", terrainPoints);
    return 0;
}

}  // namespace pcprep
