// A minimal host: it sees only the installed headers and the exported symbols of the shared library. It writes
// and reads a node through the library and drives a logger, as every host does.
#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include "cachefiles/PcDisk.h"
#include "core/ExtentsI32.h"
#include "core/FileFormat.h"
#include "core/InputFileData.h"
#include "core/StringConversion.h"
#include "services/Logger.h"

namespace
{
int fail(const char* what)
{
    std::fprintf(stderr, "consumer: %s\n", what);
    return 1;
}
}  // namespace

int main(int argc, char** argv)
{
    if (argc != 2)
        return 2;
    const std::wstring folder = pc_preprocess::s2ws(argv[1]);
    const std::wstring input = folder + L"/scän.pts";
    std::ofstream(pc_preprocess::toPath(input)) << "1\n1 2 3\n";
    const pc_preprocess::InputFileData data(input, 0.001);
    if (pc_preprocess::fileFormat(data.path) != pc_preprocess::kFormatPts)
        return fail("wrong format");

    pc_preprocess::IoTransfo transfo;
    transfo.scale = {0.001, 0.001, 0.001};
    transfo.offset = {10.0, 20.0, 30.0};
    pc_preprocess::IoLightPoint point;
    point.x = -5;
    point.y = 6;
    point.z = 7;
    point.radius = 1.5f;
    point.r = point.g = point.b = 1000;
    const std::wstring node = folder + L"/7.pnt";
    pc_disk::overwriteNode(node, transfo, {point}, true);
    const auto [readTransfo, points] = pc_disk::readNode(node);
    if (points.size() != 1 || points[0].x != -5 || !(readTransfo == transfo))
        return fail("node did not round-trip");
    if (!pc_preprocess::ExtentsI32(points[0]).contains(-5, 6, 7))
        return fail("box");

    {
        auto logger = std::make_shared<pc_preprocess::Logger>(folder + L"/run.log", false, false);
        logger->message("consumer was here");
        logger->increaseStep("Read");
    }
    std::ifstream pct(pc_preprocess::toPath(folder + L"/run.pct"));
    std::stringstream token;
    token << pct.rdbuf();
    if (token.str() != "CANCEL")  // a logger that ends below 100 counts as cancelled
        return fail("percentage file");
    std::puts("consumer: linked and ran against the installed library");
    return 0;
}
