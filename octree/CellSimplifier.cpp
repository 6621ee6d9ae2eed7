#include <array>
#include <bit>
#include <cstring>

#include "octree/CellSimplifier.h"
#include "octree/VxMap.h"

namespace voxelizer
{

using pc_preprocess::IoLightPoint;
using pc_preprocess::IoTransfo;

namespace
{

// Bits 0 to 20 of v, moved to every third bit.
uint64_t spreadBits(uint32_t v)
{
    uint64_t x = v & 0x1FFFFFu;
    x = (x | x << 32) & 0x1F00000000FFFFull;
    x = (x | x << 16) & 0x1F0000FF0000FFull;
    x = (x | x << 8) & 0x100F00F00F00F00Full;
    x = (x | x << 4) & 0x10C30C30C30C30C3ull;
    x = (x | x << 2) & 0x1249249249249249ull;
    return x;
}

uint64_t interleave(uint32_t x, uint32_t y, uint32_t z)
{
    return spreadBits(x) | spreadBits(y) << 1 | spreadBits(z) << 2;
}

// Morton keys of 21 levels fit 64 bits; wider clouds (those that straddle the bias, such as negative and
// positive coordinates of a room around its origin) take 128. Bit 3 * level + axis is the axis's bit of
// that level in both.
__extension__ using WideKey = unsigned __int128;
constexpr unsigned kNarrowLevels = 21;

template <typename Key>
Key mortonKey(uint32_t x, uint32_t y, uint32_t z)
{
    if constexpr (sizeof(Key) == sizeof(uint64_t))
        return interleave(x, y, z);
    else
        return WideKey(interleave(x >> kNarrowLevels, y >> kNarrowLevels, z >> kNarrowLevels))
                   << (3 * kNarrowLevels) |
               interleave(x, y, z);
}

template <typename Key>
unsigned highestBit(Key differing)
{
    if constexpr (sizeof(Key) == sizeof(uint64_t))
        return 63u - unsigned(std::countl_zero(differing));
    else
    {
        const auto high = uint64_t(differing >> 64);
        return high != 0 ? 127u - unsigned(std::countl_zero(high))
                         : 63u - unsigned(std::countl_zero(uint64_t(differing)));
    }
}

// A stable least-significant-digit radix sort on the lowest `bits` bits; digits in which all keys agree are
// skipped.
template <typename Item>
void sortByKey(std::vector<Item>& items, std::vector<Item>& sorted, unsigned bits)
{
    constexpr unsigned kDigitBits = 11;
    constexpr size_t kBuckets = size_t(1) << kDigitBits;
    sorted.resize(items.size());
    std::array<uint32_t, kBuckets> starts{};
    for (unsigned shift = 0; shift < bits; shift += kDigitBits)
    {
        starts.fill(0);
        for (const Item& item : items)
            ++starts[size_t(item.key >> shift) & (kBuckets - 1)];
        if (starts[size_t(items.front().key >> shift) & (kBuckets - 1)] == items.size())
            continue;
        uint32_t sum = 0;
        for (uint32_t& start : starts)
        {
            const uint32_t count = start;
            start = sum;
            sum += count;
        }
        for (const Item& item : items)
            sorted[starts[size_t(item.key >> shift) & (kBuckets - 1)]++] = item;
        items.swap(sorted);
    }
}

}  // namespace

template <typename Key>
void CellSimplifier::simplifyInMortonOrder(std::span<const IoLightPoint> points, const IoTransfo& transfo,
                                           size_t maxPoints, unsigned levels, Buffers<Key>& buffers,
                                           std::vector<IoLightPoint>& result)
{
    std::vector<KeyedPoint<Key>>& items = buffers.items;
    items.resize(points.size());
    for (size_t i = 0; i < points.size(); ++i)
        items[i] = {mortonKey<Key>(biased(points[i].x), biased(points[i].y), biased(points[i].z)),
                    uint32_t(i)};
    sortByKey(items, buffers.sorted, 3 * levels);

    // firstDiffering[c]: neighbours whose highest differing bit lies at level c.
    std::array<uint64_t, 33> firstDiffering{};
    for (size_t i = 1; i < items.size(); ++i)
    {
        const Key differing = items[i - 1].key ^ items[i].key;
        if (differing != 0)
            ++firstDiffering[highestBit(differing) / 3];
    }
    // The cells of the grid 2^levels wide are one: the loop ends there at the latest.
    unsigned collapses = 0;
    uint64_t cells = 0;
    uint64_t atOrAbove = 0;
    for (const uint64_t count : firstDiffering)
        atOrAbove += count;
    for (;; ++collapses)
    {
        cells = 1 + atOrAbove;
        if (cells <= std::max<size_t>(maxPoints, 1) || collapses >= levels)
            break;
        atOrAbove -= firstDiffering[collapses];
    }

    const float radius = combinedRadius(transfo, uint8_t(collapses));
    const unsigned cellShift = 3 * collapses;
    result.clear();
    result.reserve(cells);
    vxSimplifyData cell = vxSimplifyData::fromPoint(points[items.front().index]);
    for (size_t i = 1; i < items.size(); ++i)
    {
        const vxSimplifyData next = vxSimplifyData::fromPoint(points[items[i].index]);
        if (((items[i - 1].key ^ items[i].key) >> cellShift) != 0)
        {
            result.push_back(cell.toPoint(radius));
            cell = next;
        }
        else
            cell.merge(next);
    }
    result.push_back(cell.toPoint(radius));
}

void CellSimplifier::simplify(std::span<const IoLightPoint> points, const IoTransfo& transfo,
                              size_t maxPoints, std::vector<IoLightPoint>& result)
{
    if (maxPoints >= points.size())
    {
        result.assign(points.begin(), points.end());
        return;
    }
    // Above the highest bit in which any two points differ, all share every cell: only the levels below
    // need sorting.
    uint32_t differing = 0;
    const IoLightPoint& first = points.front();
    for (const IoLightPoint& p : points)
        differing |= (biased(p.x) ^ biased(first.x)) | (biased(p.y) ^ biased(first.y)) |
                     (biased(p.z) ^ biased(first.z));
    const auto levels = unsigned(std::bit_width(differing));
    if (levels <= kNarrowLevels)
        simplifyInMortonOrder(points, transfo, maxPoints, levels, m_narrow, result);
    else
        simplifyInMortonOrder(points, transfo, maxPoints, levels, m_wide, result);
}

std::vector<IoLightPoint> workerSimplify(std::vector<IoLightPoint>& points, const IoTransfo& transfo,
                                         size_t maxPoints)
{
    std::vector<IoLightPoint> result;
    CellSimplifier().simplify(points, transfo, maxPoints, result);
    return result;
}

}  // namespace voxelizer
