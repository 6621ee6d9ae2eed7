#include "support/OctreeBuild.h"

#include <gtest/gtest.h>

#include <fstream>
#include <random>

#include "cachefiles/MetaFile.h"
#include "cachefiles/PntFiles.h"
#include "cachefiles/PnzFiles.h"
#include "cachefiles/SerializedPoints.h"
#include "cachefiles/VrmFile.h"
#include "core/NodePaths.h"
#include "core/StringConversion.h"
#include "geom/UnitsValue.h"
#include "octree/BuildTree.h"
#include "support/FileText.h"

namespace pcp_test
{

using namespace pc_preprocess;
namespace fs = std::filesystem;

IoTransfo millimetres()
{
    IoTransfo transfo;
    transfo.scale = {0.001, 0.001, 0.001};
    transfo.offset = {0.0, 0.0, 0.0};
    return transfo;
}

IoLightPoint pointAt(int32_t x, int32_t y, int32_t z, float radius)
{
    IoLightPoint p;
    p.x = x;
    p.y = y;
    p.z = z;
    p.radius = radius;
    p.r = p.g = p.b = 1000;
    p.intensity = 500;
    return p;
}

std::vector<IoLightPoint> sparsePoints(size_t count, int32_t edge, uint32_t seed)
{
    std::mt19937 random(seed);
    std::uniform_int_distribution<int32_t> coordinate(0, edge);
    std::vector<IoLightPoint> points;
    points.reserve(count);
    for (size_t i = 0; i < count; ++i)
        points.push_back(pointAt(coordinate(random), coordinate(random), coordinate(random)));
    return points;
}

OctreeBuild::OctreeBuild(const TempFolder& temp, const IoTransfo& cacheTransfo, bool classes)
    : folder(toWide(temp.path() / "cache")), files(folder, L"cache", false, false), transfo(cacheTransfo)
{
    fs::create_directories(toPath(folder) / "Data");
    logger = std::make_shared<Logger>(files.getLogFile(), false, false);
    logger->increaseStep("Read");
    attributes.classification = classes;
}

void OctreeBuild::addScan(const std::vector<IoLightPoint>& points, double filledArea)
{
    const std::wstring stem =
        toWide(toPath(folder) / "Data" / ("scan-" + std::to_string(scans.size()) + "-0000-temp"));
    ScanFiles scan;
    scan.pntFile = stem + L".pnt";
    scan.metaFile = stem + L".meta";
    SerializedPoints buffers(attributes.classification, false);
    buffers.add(points);
    {
        std::ofstream pnt(toPath(scan.pntFile), std::ios::binary | std::ios::trunc);
        std::ofstream classes;
        if (attributes.classification)
            classes.open(toPath(getClassPathFromPnt(scan.pntFile)), std::ios::binary | std::ios::trunc);
        std::ofstream normals;
        SerializedPoints::writeHeader(pnt, transfo);
        buffers.flush(pnt, classes, normals);
        ASSERT_TRUE(pnt.good() && (!attributes.classification || classes.good()));
    }
    MetaData meta;
    for (const IoLightPoint& p : points)
        meta.extents.extend(p);
    if (points.empty())
        meta.extents = ExtentsI32(0, 0, 0, 0, 0, 0);
    meta.numPoints = points.size();
    meta.filledArea = filledArea;
    writeMetaFile(scan.metaFile, meta);
    scans.push_back(scan);
}

void OctreeBuild::run(uint64_t threads, const std::function<bool()>& cancel, const ThreadStarter& startWorker,
                      uint64_t subtreePointBudget)
{
    buildTree(scans, folder, files, transfo, attributes, threads, logger, false, false, false, "",
              geom::UnitsValue::kUnitsMeters, cancel, startWorker, subtreePointBudget);
}

fs::path OctreeBuild::data() const
{
    return toPath(folder) / "Data";
}

std::string OctreeBuild::log() const
{
    return readText(toPath(files.getLogFile()));
}

bool OctreeBuild::logHas(const std::string& text) const
{
    return log().find(text) != std::string::npos;
}

std::string OctreeBuild::logWithHeldErrors()
{
    logger->outputErrors({});
    return log();
}

std::string OctreeBuild::finalPercentage()
{
    logger.reset();
    return readText(toPath(files.getLogFile()).replace_extension(".pct"));
}

namespace
{

void walk(const fs::path& data, const VrmNode& node, uint64_t depth, TreeWalk& result)
{
    ++result.nodes;
    result.depth = std::max(result.depth, depth);
    const fs::path pnz = data / toPath(node.file).replace_extension(".pnz");
    IoTransfo transfo;
    std::vector<IoLightPoint> points;
    readPNZ(toWide(pnz), transfo, points);
    ASSERT_EQ(points.size(), node.numPoints) << pnz;
    ASSERT_LE(points.size(), 65536u) << pnz;
    for (const IoLightPoint& p : points)
    {
        const double x = p.x * 0.001, y = p.y * 0.001, z = p.z * 0.001;
        ASSERT_TRUE(x >= node.box[0] && y >= node.box[1] && z >= node.box[2] && x <= node.box[3] &&
                    y <= node.box[4] && z <= node.box[5])
            << pnz;
    }
    const std::wstring stem = toPath(node.file).stem().wstring();
    for (size_t index = 0; index < node.children.size(); ++index)
    {
        EXPECT_EQ(toPath(node.children[index].file).stem().wstring(), stem + std::to_wstring(index));
        walk(data, node.children[index], depth + 1, result);
    }
    if (node.children.empty())
    {
        ++result.leaves;
        result.leafPoints += points.size();
        for (const IoLightPoint& p : points)
        {
            result.leafPositions.insert({p.x, p.y, p.z});
            result.leafRadii.insert(p.radius);
        }
    }
}

}  // namespace

TreeWalk walkTree(const OctreeBuild& build)
{
    TreeWalk result;
    walk(build.data(), readVrm(build.files.getTreeFile()), 0, result);
    return result;
}

}  // namespace pcp_test
