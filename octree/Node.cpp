#include "octree/Node.h"

#include <algorithm>
#include <filesystem>
#include <stdexcept>

#include "cachefiles/PntFormat.h"
#include "core/NodePaths.h"
#include "core/StringConversion.h"

namespace pc_preprocess
{

namespace
{

std::wstring withExtension(const std::wstring& stem, const wchar_t* extension)
{
    return stem + extension;
}

std::wstring stemOf(const std::wstring& path)
{
    return path.substr(0, path.size() - 4);  // both names end in ".pnt" or ".pnz"
}

void removeIfThere(const std::wstring& path)
{
    std::error_code ignored;
    std::filesystem::remove(toPath(path), ignored);
}

void renameIfThere(const std::wstring& from, const std::wstring& to)
{
    std::error_code error;
    if (!std::filesystem::exists(toPath(from), error))
        return;
    std::filesystem::rename(toPath(from), toPath(to), error);
    if (error)
        throw std::runtime_error("Node: Could not rename " + ws2s(from) + " to " + ws2s(to) + " (" +
                                 error.message() + ")");
}

}  // namespace

Node Node::root(const std::wstring& pointFolder, const IoTransfo& transfo, bool hasClasses, bool hasNormals)
{
    Node node;
    const std::wstring stem = toWide(toPath(pointFolder) / "0");
    node.pntPath = withExtension(stem, L".pnt");
    node.pnzPath = withExtension(stem, L".pnz");
    node.transfo = transfo;
    node.buffers = SerializedPoints(hasClasses, hasNormals);
    return node;
}

void Node::addPoint(const IoLightPoint& point)
{
    if (numBuffered() >= kMaxNodePoints)
        flush();
    extents.extend(point);
    buffers.add(point);
    maxRadius = std::max(maxRadius, static_cast<double>(point.radius));
}

void Node::flush()
{
    if (!streams)
    {
        streams = std::make_unique<PntStreams>(pntPath, hasClasses(), hasNormals(), "flushAndClosePNT : ");
        SerializedPoints::writeHeader(streams->pnt, transfo);
    }
    const uint64_t records = numBuffered();
    buffers.flush(streams->pnt, streams->classes, streams->normals);
    pointsOnDisk += records;
    for (std::ofstream* stream : {&streams->pnt, &streams->classes, &streams->normals})
        if (stream->is_open())
            stream->flush();
    streams->requireHealthy();
}

void Node::flushAndClose()
{
    flush();
    streams->close();
    streams.reset();
}

void Node::writeBuffersAsPnz(PnzCoder& coder)
{
    if (pointsOnDisk > 0)
        throw std::runtime_error("Cannot append points to a *.pnz file: " + ws2s(pnzPath));
    const uint64_t records = numBuffered();
    buffers.writeDirectPnz(pnzPath, transfo, coder);
    pointsOnDisk = records;
}

void Node::deletePntFiles() const
{
    removeIfThere(pntPath);
    removeIfThere(getClassPathFromPnt(pntPath));
    removeIfThere(getNormalPathFromPnt(pntPath));
}

void Node::renameToIndex(size_t index)
{
    moveFilesTo(parent->childPnt(index));
}

void Node::moveFilesTo(const std::wstring& newPnt)
{
    const std::wstring newPnz = withExtension(stemOf(newPnt), L".pnz");
    renameIfThere(pntPath, newPnt);
    renameIfThere(getClassPathFromPnt(pntPath), getClassPathFromPnt(newPnt));
    renameIfThere(getNormalPathFromPnt(pntPath), getNormalPathFromPnt(newPnt));
    renameIfThere(pnzPath, newPnz);
    pntPath = newPnt;
    pnzPath = newPnz;
    for (size_t k = 0; k < children.size(); ++k)
        children[k].moveFilesTo(childPnt(k));
}

std::wstring Node::childPnt(size_t index) const
{
    return withExtension(stemOf(pntPath) + static_cast<wchar_t>(L'0' + index), L".pnt");
}

}  // namespace pc_preprocess
