#include "cachefiles/PcDisk.h"

#include <filesystem>
#include <stdexcept>
#include <system_error>

#include "cachefiles/NodeFileErrors.h"
#include "cachefiles/PntFiles.h"
#include "cachefiles/PnzFiles.h"
#include "core/StringConversion.h"

namespace pc_disk
{

using namespace pc_preprocess;

namespace
{

void requireNodeName(const std::wstring& pnt)
{
    if (extensionOf(pnt) != ".pnt")
        throw std::runtime_error("ERROR PNT IO ANY: Input paths should have the extension *.pnt (" +
                                 ws2s(pnt) + ").");
}

std::wstring pnzOf(const std::wstring& pnt)
{
    return pnt.substr(0, pnt.size() - 4) + L".pnz";
}

bool exists(const std::wstring& path)
{
    std::error_code ignored;  // a path that cannot even be examined is as good as absent here
    return std::filesystem::exists(toPath(path), ignored);
}

// The form of the node that is on disk: the PNT wins when both are.
enum class Form
{
    kPnt,
    kPnz
};

Form existingForm(const std::wstring& pnt)
{
    requireNodeName(pnt);
    if (exists(pnt))
        return Form::kPnt;
    const std::wstring pnz = pnzOf(pnt);
    if (exists(pnz))
        return Form::kPnz;
    throw std::runtime_error("ERROR PNT IO ANY: None of " + ws2s(pnt) + " or " + ws2s(pnz) + " exists.");
}

void removeIfPresent(const std::wstring& path)
{
    std::error_code error;
    std::filesystem::remove(toPath(path), error);
    if (error)
        throw std::runtime_error("ERROR PNT IO ANY: Could not remove " + ws2s(path) + ": " + error.message());
}

template <typename WritePnt, typename WritePnz>
uint64_t overwrite(const std::wstring& pnt, bool compressed, WritePnt&& writePnt, WritePnz&& writePnz)
{
    requireNodeName(pnt);
    const std::wstring pnz = pnzOf(pnt);
    const uint64_t size = compressed ? writePnz(pnz) : writePnt(pnt);
    removeIfPresent(compressed ? pnt : pnz);
    return size;
}

}  // namespace

std::pair<IoTransfo, std::vector<IoLightPoint>> readNode(const std::wstring& pnt)
{
    std::pair<IoTransfo, std::vector<IoLightPoint>> node;
    if (existingForm(pnt) == Form::kPnt)
        readPNT(pnt, node.first, node.second);
    else
        readPNZ(pnzOf(pnt), node.first, node.second);
    return node;
}

void readNode(const std::wstring& pnt, IoTransfo& transfo, std::vector<geom::Point3d>& points,
              std::vector<float>& colours, std::vector<float>& intensities, std::vector<float>& radii)
{
    if (existingForm(pnt) == Form::kPnt)
        readPNT(pnt, transfo, points, colours, intensities, radii);
    else
        readPNZ(pnzOf(pnt), transfo, points, colours, intensities, radii);
}

void runNode(const std::wstring& pnt, const std::function<void(const IoLightPoint&)>& function)
{
    if (existingForm(pnt) == Form::kPnt)
    {
        runPNT(pnt, function);
        return;
    }
    IoTransfo transfo;
    std::vector<IoLightPoint> points;
    readPNZ(pnzOf(pnt), transfo, points);
    for (const IoLightPoint& p : points)
        function(p);
}

uint64_t overwriteNode(const std::wstring& pnt, const IoTransfo& transfo,
                       const std::vector<IoLightPoint>& points, bool compressed)
{
    return overwrite(
        pnt, compressed,
        [&](const std::wstring& path)
        {
            writeTuncatePNT(path, transfo, points);
            return fileSizePNT(points.size(), true);
        },
        [&](const std::wstring& path) { return writeTuncatePNZ(path, transfo, points); });
}

uint64_t overwriteNode(const std::wstring& pnt, const IoTransfo& transfo,
                       const std::vector<geom::Point3d>& points, const std::vector<float>& colours,
                       const std::vector<float>& intensities, const std::vector<float>& radii,
                       bool compressed)
{
    return overwrite(
        pnt, compressed,
        [&](const std::wstring& path)
        {
            writeTuncatePNT(path, transfo, points, colours, intensities, radii);
            return fileSizePNT(points.size(), true);
        },
        [&](const std::wstring& path)
        { return overwritePNZ(path, transfo, points, colours, intensities, radii); });
}

void appendNode(const std::wstring& pnt, const std::vector<IoLightPoint>& points)
{
    requireNodeName(pnt);
    if (!exists(pnt))
        throw std::runtime_error("ERROR PNT IO ANY: append node requires pre-existence of " + ws2s(pnt));
    writeAppendPNT(pnt, points);
}

}  // namespace pc_disk
