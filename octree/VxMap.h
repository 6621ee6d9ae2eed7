#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <vector>

#include "core/Export.h"
#include "core/IoLightPoint.h"
#include "core/IoTransfo.h"

namespace voxelizer
{

// Cache integers become unsigned by this bias, so that negative and positive coordinates form one ordered
// range whose bits a tree can follow.
constexpr uint32_t kCoordinateBias = 0x80000000u;

inline uint32_t biased(int32_t coordinate)
{
    return static_cast<uint32_t>(coordinate) ^ kCoordinateBias;
}
inline int32_t unbiased(uint32_t key)
{
    return static_cast<int32_t>(key ^ kCoordinateBias);
}

// The payload of one cell: the point as it came in until a second point falls into the cell, then sums
// weighted by the squared radii, so that fine points (small radius) pull less than coarse ones.
struct vxSimplifyData
{
    bool combined = false;
    float r = 0.0f;
    float g = 0.0f;
    float b = 0.0f;
    float intensity = 0.0f;
    // The radius while not combined, the sum of the squared radii afterwards. A float sum would be off by one
    // part in 2^24 after a few merges, and so the mean of biased coordinates by up to 2^31 / 2^24 = 128
    // steps.
    double weight = 0.0;
    double x = 0.0;  // biased coordinates
    double y = 0.0;
    double z = 0.0;

    static vxSimplifyData fromPoint(const pc_preprocess::IoLightPoint& p)
    {
        vxSimplifyData d;
        d.weight = p.radius;
        d.r = p.r;
        d.g = p.g;
        d.b = p.b;
        d.intensity = p.intensity;
        d.x = biased(p.x);
        d.y = biased(p.y);
        d.z = biased(p.z);
        return d;
    }

    void merge(const vxSimplifyData& other)
    {
        toWeightedSums();
        vxSimplifyData o = other;
        o.toWeightedSums();
        weight += o.weight;
        r += o.r;
        g += o.g;
        b += o.b;
        intensity += o.intensity;
        x += o.x;
        y += o.y;
        z += o.z;
    }

    // A cell of one point gives that point back unchanged; a combined cell its weighted mean with the given
    // radius.
    PCP_API pc_preprocess::IoLightPoint toPoint(float combinedRadius) const;

private:
    // A radius of 0 (no scan position) would give a weight of 0 and a mean of 0 / 0; the bounds keep every
    // mean finite: such points, and those with a radius that is not a number, count next to nothing beside
    // real radii, and equally among themselves.
    static constexpr double kMinWeight = 1e-30;
    static constexpr double kMaxWeight = 1e20;

    void toWeightedSums()
    {
        if (combined)
            return;
        const double squared = weight * weight;
        const double w = squared >= kMinWeight ? std::min(squared, kMaxWeight) : kMinWeight;
        r = static_cast<float>(r * w);
        g = static_cast<float>(g * w);
        b = static_cast<float>(b * w);
        intensity = static_cast<float>(intensity * w);
        x *= w;
        y *= w;
        z *= w;
        weight = w;
        combined = true;
    }
};

// The radius of a point merged from a cell 2^collapses steps wide: half the cell's diagonal.
inline float combinedRadius(const pc_preprocess::IoTransfo& transfo, uint8_t collapses)
{
    const double sx = transfo.scale[0];
    const double sy = transfo.scale[1];
    const double sz = transfo.scale[2];
    return static_cast<float>(std::sqrt((sx * sx + sy * sy + sz * sz) * (2.0 / 3.0)) * 0.5 *
                              std::ldexp(1.0, collapses));
}

// Which slots of a pool are in use, one bit each, with a lower bound of the first free one: a freed slot is
// found again without a scan from the start.
class SlotBitmap
{
public:
    // The lowest free slot, marked as used; equal to the pool's size when the pool has to grow.
    uint32_t acquire()
    {
        size_t byte = m_lowestFree / 8;
        while (byte < m_bits.size() && m_bits[byte] == 0xFF)
            ++byte;
        if (byte == m_bits.size())
            m_bits.push_back(0);
        const uint8_t bits = m_bits[byte];
        int bit = 0;
        while (bits & (1u << bit))
            ++bit;
        m_bits[byte] = static_cast<uint8_t>(bits | (1u << bit));
        const uint64_t slot = byte * 8 + static_cast<size_t>(bit);
        if (slot > 0xFFFFFFFEu)
            throw std::length_error("vxMap: more than 4294967295 cells.");
        m_lowestFree = slot + 1;
        return static_cast<uint32_t>(slot);
    }
    void release(uint32_t slot)
    {
        m_bits[slot / 8] = static_cast<uint8_t>(m_bits[slot / 8] & ~(1u << (slot % 8)));
        m_lowestFree = std::min<uint64_t>(m_lowestFree, slot);
    }
    void clear()
    {
        m_bits.clear();
        m_bits.shrink_to_fit();
        m_lowestFree = 0;
    }
    void reserve(size_t slots) { m_bits.reserve(slots / 8 + 1); }

private:
    std::vector<uint8_t> m_bits;
    uint64_t m_lowestFree = 0;
};

// Points snapped to a grid of cells whose edge is 2^getNumCollapses() integer steps; points in one cell merge
// into one. Cells live in an octree over the biased keys whose leaves hold up to eight cells each, in any
// place: a full leaf splits by the bit of its level. Tree and cells are index-based pools that grow
// geometrically, so adding a point allocates nothing once the pools have reached their size. Data provides
// fromPoint, merge and toPoint.
template <typename Data>
class vxMap
{
public:
    // Room for this many cells without growing.
    void reserve(size_t cells)
    {
        m_cells.reserve(cells);
        m_slots.reserve(cells);
        m_tree.reserve(cells / 4 + 1);
    }

    // Puts a point in its cell; returns the number of cells in use.
    uint64_t add(const pc_preprocess::IoLightPoint& p)
    {
        const uint32_t mask = cellMask();
        const uint32_t key[3] = {biased(p.x) & mask, biased(p.y) & mask, biased(p.z) & mask};
        const Place place = locate(key);
        if (place.found)
        {
            m_cells[m_tree[place.node].entries[place.entry]].data.merge(Data::fromPoint(p));
            return m_live;
        }
        const uint32_t slot = acquireCell();
        Cell& cell = m_cells[slot];
        cell.key[0] = key[0];
        cell.key[1] = key[1];
        cell.key[2] = key[2];
        cell.data = Data::fromPoint(p);
        occupy(place, slot);
        return ++m_live;
    }

    // Doubles the cell size: every cell is keyed anew and cells that fall together merge. After 32 rounds a
    // single cell covers the whole coordinate range, and further calls change nothing.
    void collapse()
    {
        if (m_numCollapses >= 32)
            return;
        ++m_numCollapses;
        const uint32_t mask = cellMask();
        // Re-inserting in the old tree's order keeps neighbours together and the new tree's accesses local.
        m_order.clear();
        if (!m_tree.empty())
            collect(0, m_order);
        m_tree.clear();
        for (const uint32_t slot : m_order)
        {
            Cell& cell = m_cells[slot];
            for (uint32_t& k : cell.key)
                k &= mask;
            const Place place = locate(cell.key);
            if (place.found)
            {
                m_cells[m_tree[place.node].entries[place.entry]].data.merge(cell.data);
                m_slots.release(slot);
                --m_live;
            }
            else
                occupy(place, slot);
        }
    }

    uint8_t getNumCollapses() const { return m_numCollapses; }
    uint64_t liveCount() const { return m_live; }

    // One point per cell, in the order of a walk of the tree, after which the map is empty and its memory
    // freed.
    std::vector<pc_preprocess::IoLightPoint> convert(const pc_preprocess::IoTransfo& transfo)
    {
        const float radius = combinedRadius(transfo, m_numCollapses);
        m_order.clear();
        if (!m_tree.empty())
            collect(0, m_order);
        std::vector<pc_preprocess::IoLightPoint> points;
        points.reserve(m_order.size());
        for (const uint32_t slot : m_order)
            points.push_back(m_cells[slot].data.toPoint(radius));
        free();
        return points;
    }

private:
    static constexpr uint32_t kNone = 0xFFFFFFFFu;

    // A leaf holds up to eight cell indices in entries[0, used); an inner node eight child indices by octant,
    // kNone where a child does not exist yet, and used counts its children.
    struct TreeNode
    {
        uint32_t entries[8];
        uint8_t used;
        uint8_t level;
        bool leaf;
    };
    struct Cell
    {
        uint32_t key[3];  // biased corner of the cell
        Data data;
    };
    // Where a key belongs: the leaf and either the entry of an equal key or the first free entry.
    struct Place
    {
        uint32_t node;
        uint32_t entry;
        bool found;
    };

    uint32_t cellMask() const { return m_numCollapses >= 32 ? 0u : ~((1u << m_numCollapses) - 1u); }

    static uint32_t octant(const uint32_t key[3], unsigned level)
    {
        return ((((key[2] >> level) & 1u) * 2 + ((key[1] >> level) & 1u)) * 2) + ((key[0] >> level) & 1u);
    }

    uint32_t newNode(unsigned level, bool leaf)
    {
        if (m_tree.size() >= kNone)
            throw std::length_error("vxMap: more than 4294967295 tree nodes.");
        TreeNode node;
        std::fill(std::begin(node.entries), std::end(node.entries), kNone);
        node.used = 0;
        node.level = static_cast<uint8_t>(level);
        node.leaf = leaf;
        m_tree.push_back(node);
        return static_cast<uint32_t>(m_tree.size() - 1);
    }

    // Points come in scan order and cells in tree order, so a key mostly shares a long path with the one
    // before: the walk starts at the deepest node of the last path that both keys reach, the node of the
    // level of their highest differing bit.
    Place locate(const uint32_t key[3])
    {
        if (m_tree.empty())
        {
            newNode(31, true);
            m_path[31] = 0;
            m_pathEnd = 31;
        }
        const uint32_t differing =
            (key[0] ^ m_lastKey[0]) | (key[1] ^ m_lastKey[1]) | (key[2] ^ m_lastKey[2]);
        const unsigned shared = differing == 0 ? 0u : 31u - static_cast<unsigned>(__builtin_clz(differing));
        uint32_t node = m_path[std::max(shared, m_pathEnd)];
        std::copy(key, key + 3, m_lastKey);
        for (;;)
        {
            TreeNode& n = m_tree[node];
            m_path[n.level] = node;
            m_pathEnd = n.level;
            if (!n.leaf)
            {
                const uint32_t child = octant(key, n.level);
                uint32_t next = n.entries[child];
                if (next == kNone)
                {
                    const unsigned childLevel = n.level - 1u;
                    ++n.used;
                    next = newNode(childLevel, true);  // may move the pool: n is not used after this
                    m_tree[node].entries[child] = next;
                }
                node = next;
                continue;
            }
            for (uint32_t i = 0; i < n.used; ++i)
            {
                const uint32_t* k = m_cells[n.entries[i]].key;
                if (k[0] == key[0] && k[1] == key[1] && k[2] == key[2])
                    return {node, i, true};
            }
            if (n.used < 8)
                return {node, n.used, false};
            split(node);
        }
    }

    // A full leaf becomes an inner node with its cells spread over leaves one level down. A leaf at level 0
    // is never full when a new key reaches it: its keys agree on all higher bits, so eight cells are all its
    // keys.
    void split(uint32_t node)
    {
        TreeNode old = m_tree[node];
        if (old.level == 0)
            throw std::logic_error("vxMap: a full leaf at level 0 cannot split.");
        TreeNode& n = m_tree[node];
        std::fill(std::begin(n.entries), std::end(n.entries), kNone);
        n.used = 0;
        n.leaf = false;
        for (uint32_t i = 0; i < old.used; ++i)
        {
            const uint32_t slot = old.entries[i];
            const uint32_t child = octant(m_cells[slot].key, old.level);
            uint32_t leaf = m_tree[node].entries[child];
            if (leaf == kNone)
            {
                leaf = newNode(old.level - 1u, true);
                m_tree[node].entries[child] = leaf;
                ++m_tree[node].used;
            }
            TreeNode& l = m_tree[leaf];
            l.entries[l.used++] = slot;
        }
    }

    void occupy(const Place& place, uint32_t slot)
    {
        TreeNode& leaf = m_tree[place.node];
        leaf.entries[place.entry] = slot;
        ++leaf.used;
    }

    uint32_t acquireCell()
    {
        const uint32_t slot = m_slots.acquire();
        if (slot == m_cells.size())
            m_cells.emplace_back();
        return slot;
    }

    void collect(uint32_t node, std::vector<uint32_t>& order) const
    {
        const TreeNode& n = m_tree[node];
        if (n.leaf)
        {
            order.insert(order.end(), n.entries, n.entries + n.used);
            return;
        }
        for (const uint32_t child : n.entries)
            if (child != kNone)
                collect(child, order);
    }

    void free()
    {
        m_tree = {};
        m_cells = {};
        m_order = {};
        m_slots.clear();
        m_live = 0;
    }

    uint8_t m_numCollapses = 0;
    std::vector<TreeNode> m_tree;
    std::vector<Cell> m_cells;
    SlotBitmap m_slots;
    uint64_t m_live = 0;
    std::vector<uint32_t> m_order;  // scratch of collapse and convert, kept for its capacity
    // The nodes of the last walk by level, valid from the root down to level m_pathEnd, and its key.
    uint32_t m_path[32] = {};
    unsigned m_pathEnd = 31;
    uint32_t m_lastKey[3] = {};
};

// The points reduced to at most maxPoints (at least one) on the finest grid of cells 2^c wide that leaves few
// enough, the cells that a map of them would reach by doubling; a copy when they are few enough already. The
// next coarser grid can leave far fewer points than asked for. The merged points come in Morton order.
PCP_API std::vector<pc_preprocess::IoLightPoint> workerSimplify(
    std::vector<pc_preprocess::IoLightPoint>& points, const pc_preprocess::IoTransfo& transfo,
    size_t maxPoints);

}  // namespace voxelizer
