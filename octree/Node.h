#pragma once

#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "cachefiles/PntStreams.h"
#include "cachefiles/SerializedPoints.h"
#include "core/ExtentsI32.h"
#include "core/IoLightPoint.h"
#include "core/IoTransfo.h"

namespace pc_preprocess
{

// The most points of a finished node, and the size of a node's write buffer.
inline constexpr uint64_t kMaxNodePoints = 65536;

// One node of the octree under construction. Points come in one by one and wait in the buffers until 65536
// of them are there; then they go to the node's PNT, which is split further or filtered, and every node ends
// as one PNZ. A worker owns a node while it works on it, so a node needs no lock.
struct Node
{
    static constexpr double kNoRadius = std::numeric_limits<double>::lowest();

    // The root of a tree whose node files go to the folder `pointFolder`: "0.pnt" and "0.pnz".
    static Node root(const std::wstring& pointFolder, const IoTransfo& transfo, bool hasClasses,
                     bool hasNormals);

    Node() = default;
    Node(Node&&) noexcept = default;
    Node& operator=(Node&&) noexcept = default;

    bool hasClasses() const { return buffers.m_hasClasses; }
    bool hasNormals() const { return buffers.m_hasNormals; }
    uint64_t numBuffered() const { return buffers.m_numBuffered; }
    uint64_t totalPoints() const { return pointsOnDisk + numBuffered(); }
    bool isLeaf() const { return children.empty(); }

    // Buffers the point, writing the buffer to the PNT first when it is full.
    void addPoint(const IoLightPoint& point);
    // Writes the buffers to the node's PNT, which the first call creates with its header.
    void flush();
    void flushAndClose();
    // Writes the buffered points as the node's PNZ and empties the buffers; a node with points on disk
    // cannot take more in this form.
    void writeBuffersAsPnz(PnzCoder& coder);
    // Removes the node's PNT with its side files.
    void deletePntFiles() const;
    // Gives the node the name of child `index` of its parent: the files it and its descendants have on disk
    // move along.
    void renameToIndex(size_t index);
    // The stem of child `index`: this node's stem with one more digit.
    std::wstring childPnt(size_t index) const;

    SerializedPoints buffers;
    std::unique_ptr<PntStreams> streams;  // the open PNT and its side files; null while closed
    ExtentsI32 extents;
    IoTransfo transfo;
    std::vector<Node> children;  // never resized after creation, so that pointers into it stay valid
    std::wstring pntPath;
    std::wstring pnzPath;
    uint64_t pointsOnDisk = 0;
    double maxRadius = kNoRadius;
    bool merged = false;
    Node* parent = nullptr;
    bool filtered = false;

private:
    void moveFilesTo(const std::wstring& newPnt);
};

}  // namespace pc_preprocess
