#include "octree/FilterTree.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <stdexcept>

namespace pc_preprocess::filter
{

namespace
{

// The level no point exceeds: coarser cells would merge detail a node of the cache can still show.
constexpr int kMaxPointLevel = 8;

uint32_t biased(int32_t coordinate)
{
    return static_cast<uint32_t>(coordinate) ^ 0x80000000u;
}

uint32_t octant(const uint32_t key[3], int level)
{
    return ((((key[2] >> level) & 1u) * 2 + ((key[1] >> level) & 1u)) * 2) + ((key[0] >> level) & 1u);
}

// sum / count rounded half away from zero.
int32_t roundedMean(int64_t sum, uint32_t count)
{
    const int64_t c = count;
    const int64_t magnitude = ((sum < 0 ? -sum : sum) + c / 2) / c;
    return static_cast<int32_t>(sum < 0 ? -magnitude : magnitude);
}

// Biased positions of the points of one level, sorted by x, to count the points in a box.
class LevelIndex
{
public:
    void add(const IoLightPoint& p) { m_points.push_back({biased(p.x), biased(p.y), biased(p.z)}); }
    void sort() { std::sort(m_points.begin(), m_points.end()); }

    // Whether at least `wanted` points lie in the closed box of half width `half` around a centre, all given
    // doubled, so that the centre of a single-step cell is an integer too.
    bool hasAtLeast(const std::array<int64_t, 3>& centre2, int64_t half2, int wanted) const
    {
        std::array<int64_t, 3> lo;
        std::array<int64_t, 3> hi;
        for (int a = 0; a < 3; ++a)
        {
            lo[a] = (centre2[a] - half2 + 1) >> 1;
            hi[a] = (centre2[a] + half2) >> 1;
        }
        const std::array<uint32_t, 3> first{static_cast<uint32_t>(std::max<int64_t>(lo[0], 0)), 0, 0};
        int found = 0;
        for (auto it = std::lower_bound(m_points.begin(), m_points.end(), first);
             it != m_points.end() && (*it)[0] <= hi[0]; ++it)
        {
            const auto& q = *it;
            if (q[1] >= lo[1] && q[1] <= hi[1] && q[2] >= lo[2] && q[2] <= hi[2] && ++found >= wanted)
                return true;
        }
        return false;
    }

private:
    std::vector<std::array<uint32_t, 3>> m_points;
};

// Doubled centre of the cell of a level that holds the point.
std::array<int64_t, 3> cellCentre2(const IoLightPoint& p, int level)
{
    const uint64_t width = uint64_t(1) << (level + 1);
    const int32_t coordinates[3] = {p.x, p.y, p.z};
    std::array<int64_t, 3> centre;
    for (int a = 0; a < 3; ++a)
        centre[a] = static_cast<int64_t>(2 * (biased(coordinates[a]) & ~(width - 1)) + width);
    return centre;
}

}  // namespace

FilterTree::FilterTree(const ExtentsI32& extents, const IoTransfo& transfo, bool keepMultiple)
    : m_keepMultiple(keepMultiple)
{
    if (!transfo.hasPositiveScale())
        throw std::runtime_error("Not all transfo scale are positive.\n");
    if (!extents.isValid())
        throw std::runtime_error("FilterTree: the box of the points to filter is empty.");
    const uint32_t lo[3] = {biased(extents.minX()), biased(extents.minY()), biased(extents.minZ())};
    const uint32_t hi[3] = {biased(extents.maxX()), biased(extents.maxY()), biased(extents.maxZ())};
    const uint32_t differing = (lo[0] ^ hi[0]) | (lo[1] ^ hi[1]) | (lo[2] ^ hi[2]);
    // The highest bit in which the corners differ; above it all points share their bits.
    m_rootLevel = differing == 0 ? -1 : 31 - __builtin_clz(differing);
    const uint64_t width = uint64_t(1) << (m_rootLevel + 1);
    for (int a = 0; a < 3; ++a)
        m_rootMin[a] = static_cast<uint32_t>(lo[a] & ~(width - 1));

    const auto& s = transfo.scale;
    m_halfDiagonal = 0.5 * std::sqrt(s[0] * s[0] + s[1] * s[1] + s[2] * s[2]);
    m_radiusToCells = 1.7320508075688772 / m_halfDiagonal;
    newNode(m_rootLevel);
    m_pathEnd = m_rootLevel;
    m_path[m_rootLevel + 1] = 0;
}

int FilterTree::level(double radius) const
{
    const double cells = std::trunc(radius * m_radiusToCells);
    const int top = std::min(m_rootLevel, kMaxPointLevel);
    int level = -1;
    while (level < top && cells > static_cast<double>(1 << (level + 2)))
        ++level;
    return level;
}

void FilterTree::add(const IoLightPoint& point)
{
    const uint64_t width = uint64_t(1) << (m_rootLevel + 1);
    if (biased(point.x) - m_rootMin[0] >= width || biased(point.y) - m_rootMin[1] >= width ||
        biased(point.z) - m_rootMin[2] >= width)
        return;
    const int target = level(point.radius);
    // Points come in scan order, so a point mostly shares a long path with the one before. The walk can start
    // at the node of the last path that both reach, no higher than the level of their highest differing bit:
    // the nodes above it have no bucket, since the last walk passed them on its way down.
    const uint32_t key[3] = {biased(point.x), biased(point.y), biased(point.z)};
    const uint32_t differing = (key[0] ^ m_lastKey[0]) | (key[1] ^ m_lastKey[1]) | (key[2] ^ m_lastKey[2]);
    const int shared = differing == 0 ? -1 : 31 - __builtin_clz(differing);
    const int start = std::min(std::max({shared, m_pathEnd, target}), m_rootLevel);
    std::copy(key, key + 3, m_lastKey);
    insert(newAccumulator(point, target), m_path[start + 1], target, true);
}

uint32_t FilterTree::newNode(int level)
{
    if (m_nodes.size() >= kNone)
        throw std::length_error("FilterTree: more than 4294967295 nodes.");
    Node node;
    std::fill(std::begin(node.children), std::end(node.children), kNone);
    node.bucketHead = node.bucketTail = kNone;
    node.level = static_cast<int8_t>(level);
    node.hasChildren = false;
    m_nodes.push_back(node);
    return static_cast<uint32_t>(m_nodes.size() - 1);
}

uint32_t FilterTree::newAccumulator(const IoLightPoint& p, int level)
{
    uint32_t index = m_freeAccumulators;
    if (index != kNone)
        m_freeAccumulators = m_accumulators[index].next;
    else
    {
        if (m_accumulators.size() >= kNone)
            throw std::length_error("FilterTree: more than 4294967295 points.");
        index = static_cast<uint32_t>(m_accumulators.size());
        m_accumulators.emplace_back();
    }
    m_accumulators[index] = {p.x,
                             p.y,
                             p.z,
                             p.r,
                             p.g,
                             p.b,
                             p.intensity,
                             1,
                             kNone,
                             p.scanId,
                             p.classification,
                             static_cast<int8_t>(level)};
    return index;
}

void FilterTree::releaseList(uint32_t head)
{
    while (head != kNone)
    {
        const uint32_t next = m_accumulators[head].next;
        m_accumulators[head].next = m_freeAccumulators;
        m_freeAccumulators = head;
        head = next;
    }
}

void FilterTree::append(uint32_t node, uint32_t accumulator)
{
    Node& n = m_nodes[node];
    m_accumulators[accumulator].next = kNone;
    if (n.bucketHead == kNone)
        n.bucketHead = accumulator;
    else
        m_accumulators[n.bucketTail].next = accumulator;
    n.bucketTail = accumulator;
}

// Walks from `node` along the point's bits down to the node of level `target`.
void FilterTree::insert(uint32_t accumulator, uint32_t node, int target, bool recordPath)
{
    // Accumulators that move (keepMultiple) hold a single point, so their sums are their position.
    const Accumulator& a = m_accumulators[accumulator];
    const uint32_t key[3] = {biased(roundedMean(a.x, a.count)), biased(roundedMean(a.y, a.count)),
                             biased(roundedMean(a.z, a.count))};
    for (;;)
    {
        if (recordPath)
        {
            m_pathEnd = m_nodes[node].level;
            m_path[m_pathEnd + 1] = node;
        }
        if (m_nodes[node].level > target)
        {
            // Points in a bucket above the target are coarser than the new one.
            const uint32_t coarse = m_nodes[node].bucketHead;
            if (coarse != kNone)
            {
                m_nodes[node].bucketHead = m_nodes[node].bucketTail = kNone;
                if (m_keepMultiple)
                {
                    const int deeper = m_nodes[node].level - 1;
                    for (uint32_t moved = coarse; moved != kNone;)
                    {
                        const uint32_t next = m_accumulators[moved].next;
                        insert(moved, node, deeper, false);
                        moved = next;
                    }
                }
                else
                    releaseList(coarse);
            }
            const uint32_t child = octant(key, m_nodes[node].level);
            uint32_t next = m_nodes[node].children[child];
            if (next == kNone)
            {
                next = newNode(m_nodes[node].level - 1);
                m_nodes[node].children[child] = next;
                m_nodes[node].hasChildren = true;
            }
            node = next;
            continue;
        }
        Node& n = m_nodes[node];
        if (n.hasChildren)
        {
            // Finer points exist below.
            if (!m_keepMultiple)
            {
                releaseList(accumulator);
                return;
            }
            --target;
            continue;
        }
        if (!m_keepMultiple && n.bucketHead != kNone)
        {
            Accumulator& sums = m_accumulators[n.bucketHead];
            const Accumulator& point = m_accumulators[accumulator];
            sums.x += point.x;
            sums.y += point.y;
            sums.z += point.z;
            sums.r += point.r;
            sums.g += point.g;
            sums.b += point.b;
            sums.intensity += point.intensity;
            ++sums.count;
            m_accumulators[accumulator].next = kNone;
            releaseList(accumulator);
            return;
        }
        append(node, accumulator);
        return;
    }
}

IoLightPoint FilterTree::toPoint(const Accumulator& a) const
{
    IoLightPoint p;
    p.x = roundedMean(a.x, a.count);
    p.y = roundedMean(a.y, a.count);
    p.z = roundedMean(a.z, a.count);
    p.r = static_cast<uint16_t>(a.r / a.count);
    p.g = static_cast<uint16_t>(a.g / a.count);
    p.b = static_cast<uint16_t>(a.b / a.count);
    p.intensity = static_cast<uint16_t>(a.intensity / a.count);
    p.radius = static_cast<float>(std::ldexp(m_halfDiagonal, a.level + 1));
    p.scanId = a.scanId;
    p.classification = a.classification;
    return p;
}

void FilterTree::collect(uint32_t node, std::vector<IoLightPoint>& points,
                         std::vector<int8_t>& bucketLevels) const
{
    const Node& n = m_nodes[node];
    for (uint32_t a = n.bucketHead; a != kNone; a = m_accumulators[a].next)
    {
        points.push_back(toPoint(m_accumulators[a]));
        bucketLevels.push_back(n.level);
    }
    if (n.hasChildren)
        for (const uint32_t child : n.children)
            if (child != kNone)
                collect(child, points, bucketLevels);
}

std::vector<IoLightPoint> FilterTree::points() const
{
    std::vector<IoLightPoint> points;
    std::vector<int8_t> bucketLevels;
    points.reserve(m_accumulators.size());
    bucketLevels.reserve(m_accumulators.size());
    collect(0, points, bucketLevels);
    removeIsolated(points, bucketLevels);
    return points;
}

// A point that sits in the bucket of its own level stays. One that was pushed below its level by finer points
// stays only with at least four points of its level around it, and without keepMultiple only if no finer
// point lies in its cell.
void FilterTree::removeIsolated(std::vector<IoLightPoint>& points,
                                const std::vector<int8_t>& bucketLevels) const
{
    std::vector<int8_t> levels(points.size());
    bool anyDisplaced = false;
    for (size_t i = 0; i < points.size(); ++i)
    {
        levels[i] = static_cast<int8_t>(level(points[i].radius));
        anyDisplaced = anyDisplaced || levels[i] != bucketLevels[i];
    }
    if (!anyDisplaced)
        return;

    // Index by level + 1; the counts look at all points, before any is removed.
    std::array<LevelIndex, kMaxPointLevel + 2> byLevel;
    for (size_t i = 0; i < points.size(); ++i)
        byLevel[levels[i] + 1].add(points[i]);
    for (LevelIndex& index : byLevel)
        index.sort();

    const auto stays = [&](size_t i)
    {
        const int v = levels[i];
        if (v == bucketLevels[i])
            return true;
        const std::array<int64_t, 3> centre2 = cellCentre2(points[i], v);
        if (!byLevel[v + 1].hasAtLeast(centre2, int64_t(2) * (int64_t(3) << (v + 1)), 4))
            return false;
        if (m_keepMultiple || v == -1)
            return true;
        return !byLevel[v].hasAtLeast(centre2, int64_t(2) * (int64_t(1) << v), 1);
    };
    size_t kept = 0;
    for (size_t i = 0; i < points.size(); ++i)
        if (stays(i))
            points[kept++] = points[i];
    points.resize(kept);
}

}  // namespace pc_preprocess::filter
