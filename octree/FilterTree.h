#pragma once

#include <cstdint>
#include <vector>

#include "core/Export.h"
#include "core/ExtentsI32.h"
#include "core/IoLightPoint.h"
#include "core/IoTransfo.h"

namespace pc_preprocess::filter
{

// Thins points whose radius is their local spacing: each point lives at the tree level whose cells are about
// as wide as its radius, points of one cell merge, and a finer point evicts the coarser points on its path,
// so that every place keeps the finest detail that any scan saw there.
//
// Levels: a node of level l has cells 2^(l + 1) integer steps wide and chooses its children by bit l of the
// biased coordinates; level -1 is a single step. A point never sits above level 8, whatever its radius.
//
// With keepMultiple nothing merges or is lost on insertion: coarse points move down out of the way of finer
// ones, and are dropped at the end only if they stand alone among points of their own level.
class PCP_API FilterTree
{
public:
    // The tree covers the box aligned to a power of two around extents; points outside that box are ignored.
    FilterTree(const ExtentsI32& extents, const IoTransfo& transfo, bool keepMultiple);

    void add(const IoLightPoint& point);

    // The surviving points in the order of a walk of the tree, children by octant index: mean position
    // (rounded half away from zero), colour and intensity of each cell, the half diagonal of its cells as
    // radius, scan and class of the cell's first point, no normal.
    std::vector<IoLightPoint> points() const;

    // The level of a point of this radius: the lowest whose cells hold the radius, at most the root's and 8.
    int level(double radius) const;
    // Cells per unit of radius, as level() counts them: sqrt(3) / halfDiagonal.
    double radiusToCells() const { return m_radiusToCells; }

private:
    static constexpr uint32_t kNone = 0xFFFFFFFFu;

    struct Node
    {
        uint32_t children[8];
        uint32_t bucketHead;  // accumulators at this node's level, a list in insertion order
        uint32_t bucketTail;
        int8_t level;
        bool hasChildren;
    };

    // One point, or the sums of the points merged into one cell. The level is the point's own: with
    // keepMultiple a coarse point can sit in the bucket of a finer node.
    struct Accumulator
    {
        int64_t x, y, z;
        uint64_t r, g, b, intensity;
        uint32_t count;
        uint32_t next;  // next of the same bucket, or of the free list
        uint16_t scanId;
        uint8_t classification;
        int8_t level;
    };

    uint32_t newNode(int level);
    uint32_t newAccumulator(const IoLightPoint& point, int level);
    void releaseList(uint32_t head);
    void append(uint32_t node, uint32_t accumulator);
    void insert(uint32_t accumulator, uint32_t node, int target, bool recordPath);
    void collect(uint32_t node, std::vector<IoLightPoint>& points, std::vector<int8_t>& bucketLevels) const;
    IoLightPoint toPoint(const Accumulator& a) const;
    void removeIsolated(std::vector<IoLightPoint>& points, const std::vector<int8_t>& bucketLevels) const;

    std::vector<Node> m_nodes;
    std::vector<Accumulator> m_accumulators;
    uint32_t m_freeAccumulators = kNone;
    uint32_t m_rootMin[3];  // biased corner of the root's box
    int m_rootLevel;
    double m_halfDiagonal;
    double m_radiusToCells;
    bool m_keepMultiple;
    // The nodes of the last walk from the root by level + 1, valid from the root down to level m_pathEnd, and
    // the biased position it took.
    uint32_t m_path[33] = {};
    int m_pathEnd;
    uint32_t m_lastKey[3] = {};
};

}  // namespace pc_preprocess::filter
