#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "core/Export.h"
#include "core/ExtentsI32.h"
#include "core/IoTransfo.h"

namespace pc_preprocess
{

// The VRM file: the shape of a cache's octree, which the host reads to find the node files and to decide,
// box by box, how deep to load. One compact UTF-8 JSON object:
//
//   {"format":10,"content":node}
//
//   node  {"f": the node file's name without folder, always ending ".pnt" whatever its form on disk
//          "r": the largest point radius of the node
//          "v": the node's point count (low 32 bits)
//          "b": [min x, y, z, max x, y, z], the real box, one grid step larger than the points on each side
//          "o": [node, ...], the children in order; absent for a leaf}

struct VrmNode
{
    std::wstring file;  // e.g. L"03.pnt"
    double maxRadius = 0.0;
    uint32_t numPoints = 0;
    std::array<double, 6> box{};
    std::vector<VrmNode> children;

    bool isLeaf() const { return children.empty(); }
};

// Levels of nodes that readVrm accepts. A tree on 32-bit coordinates ends after some 33 levels, since each
// level takes an eighth of the volume; the bound keeps a hostile file from driving the reader arbitrarily
// deep.
inline constexpr unsigned kMaxVrmDepth = 64;

// The "b" box of a node whose points fill the integer box: (min - 1) * scale + offset and
// (max + 1) * scale + offset on each axis.
PCP_API std::array<double, 6> vrmBox(const ExtentsI32& extents, const IoTransfo& transfo);

// Writes the tree in one go. Throws "buildTree : Could not (fully) write <path>\nDisk full?".
PCP_API void writeVrm(const std::wstring& path, const VrmNode& root);

// Reads a tree back. Throws "readVrm : Could not read <path> (<reason>)",
// "readVrm : <path> is not a JSON file: <reason>" and "readVrm : <path> is not a VRM file: <reason>", the
// last for a format other than 10, a missing "content", a node with a missing or mistyped value, a node file
// name with a folder in it, or nodes nested deeper than kMaxVrmDepth levels.
PCP_API VrmNode readVrm(const std::wstring& path);

}  // namespace pc_preprocess
