// pcprep sample: the built-in sample as a node file with both side files.
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "cachefiles/SerializedPoints.h"
#include "core/FileSizeString.h"
#include "core/NodePaths.h"
#include "core/StringConversion.h"
#include "pcprep/ArgumentParser.h"
#include "pcprep/Command.h"
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

}  // namespace

int runSample(const Arguments& arguments)
{
    const ParsedArguments parsed(arguments, {});
    parsed.expectPositional(1, "one FOLDER");
    const std::filesystem::path folder(parsed.positional()[0]);
    std::filesystem::create_directories(folder);

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

    std::printf("Wrote the sample room, %zu points scanned from (2.2, 1.2, 1.5), to %s (%s)\n", hits.size(),
                pc_preprocess::ws2s(pnt).c_str(),
                pc_preprocess::getFileSizePrettyString(std::filesystem::file_size(pc_preprocess::toPath(pnt)))
                    .c_str());
    std::printf("with the side files %s and %s\n", pc_preprocess::ws2s(classes).c_str(),
                pc_preprocess::ws2s(normals).c_str());
    return 0;
}

}  // namespace pcprep
