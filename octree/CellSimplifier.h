#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "core/IoLightPoint.h"
#include "core/IoTransfo.h"

namespace voxelizer
{

// Voxel simplification in one pass, with buffers that one worker keeps from node to node. The cell size is
// the smallest whose grid leaves few enough occupied cells, the one that a vxMap reaches by doubling its
// cells: counting the cells of every grid at once takes one sort of the points in Morton order (the bits of
// x, y and z interleaved, x lowest), in which the points of any one cell of any grid lie together, and two
// neighbours share the cells of all grids above their highest differing bit. The points then merge cell by
// cell in that order, and the merged points come out in it.
class CellSimplifier
{
public:
    // The points reduced to at most maxPoints (at least one), into result. Points that are few enough
    // already are copied as they are.
    void simplify(std::span<const pc_preprocess::IoLightPoint> points,
                  const pc_preprocess::IoTransfo& transfo, size_t maxPoints,
                  std::vector<pc_preprocess::IoLightPoint>& result);

private:
    __extension__ using WideKey = unsigned __int128;
    template <typename Key>
    struct KeyedPoint
    {
        Key key;
        uint32_t index;
    };
    template <typename Key>
    struct Buffers
    {
        std::vector<KeyedPoint<Key>> items;
        std::vector<KeyedPoint<Key>> sorted;
    };

    template <typename Key>
    void simplifyInMortonOrder(std::span<const pc_preprocess::IoLightPoint> points,
                               const pc_preprocess::IoTransfo& transfo, size_t maxPoints, unsigned levels,
                               Buffers<Key>& buffers, std::vector<pc_preprocess::IoLightPoint>& result);

    Buffers<uint64_t> m_narrow;  // clouds whose keys fit 64 bits
    Buffers<WideKey> m_wide;
};

}  // namespace voxelizer
