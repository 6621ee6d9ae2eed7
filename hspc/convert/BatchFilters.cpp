#include "hspc/convert/BatchFilters.h"

#include <cmath>
#include <cstring>
#include <limits>
#include <type_traits>

#include "hspc/convert/MortonRecords.h"

namespace HSPC
{
namespace
{

// A box corner on the grid, in the biased form that decodeMorton gives back: (v - origin) * (1 / scale),
// truncated, clamped to the signed range of W, sign bit flipped. A corner beyond the range of the grid (or
// not a number) sets no limit on its side.
template <typename W>
W cornerCell(double value, double origin, double scale, bool upper)
{
    using S = std::make_signed_t<W>;
    const double cell = std::trunc((value - origin) * (1.0 / scale));
    if (std::isnan(cell))
    {
        return upper ? MortonIndex3D<W>::kAllOnes : W(0);
    }
    constexpr double lowest = double(std::numeric_limits<S>::lowest());
    constexpr double highest = double(std::numeric_limits<S>::max());  // rounds up to 2^(B-1)
    const S clamped = cell <= lowest    ? std::numeric_limits<S>::lowest()
                      : cell >= highest ? std::numeric_limits<S>::max()
                                        : S(cell);
    return W(clamped) ^ MortonIndex3D<W>::kSignBit;
}

template <typename W>
class BoxTest
{
public:
    explicit BoxTest(const BatchFilter& filter)
    {
        for (unsigned axis = 0; axis < 3; ++axis)
        {
            m_min[axis] = cornerCell<W>(filter.min[axis], filter.origin[axis], filter.scale[axis], false);
            m_max[axis] = cornerCell<W>(filter.max[axis], filter.origin[axis], filter.scale[axis], true);
        }
    }

    bool outside(const MortonIndex3D<W>& code) const
    {
        const std::array<W, 3> cell = decodeMorton(code);
        bool out = false;
        for (unsigned axis = 0; axis < 3; ++axis)
        {
            out |= cell[axis] < m_min[axis] || cell[axis] > m_max[axis];
        }
        return out;
    }

private:
    std::array<W, 3> m_min{}, m_max{};
};

}  // namespace

template <typename W>
FilterCounts filterSortedBatch(HSPCBuffer<uint8_t>& records, uint32_t recordSize, const BatchFilter& filter)
{
    if (recordSize < 3 * sizeof(W))
    {
        return {};
    }
    const std::size_t count = records.size() / recordSize;
    const BoxTest<W> box(filter);
    FilterCounts counts{count, 0};
    uint8_t* data = records.data();

    // Kept points move down over the dropped ones a run at a time: a batch with few drops moves few bytes.
    std::size_t kept = 0;
    std::size_t runStart = 0;
    const auto closeRun = [&](std::size_t runEnd)
    {
        if (kept != runStart && runEnd > runStart)
        {
            std::memmove(data + kept * recordSize, data + runStart * recordSize,
                         (runEnd - runStart) * recordSize);
        }
        kept += runEnd - runStart;
    };
    MortonIndex3D<W> previous;
    for (std::size_t i = 0; i < count; ++i)
    {
        const MortonIndex3D<W> code = loadMortonKey<W>(data + i * recordSize);
        const bool drop =
            (filter.duplicates && i > 0 && code == previous) || (filter.box && box.outside(code));
        previous = code;
        if (drop)
        {
            closeRun(i);
            runStart = i + 1;
            ++counts.filtered;
        }
    }
    closeRun(count);
    records.resize(kept * recordSize);
    return counts;
}

template FilterCounts filterSortedBatch<uint32_t>(HSPCBuffer<uint8_t>&, uint32_t, const BatchFilter&);
template FilterCounts filterSortedBatch<uint64_t>(HSPCBuffer<uint8_t>&, uint32_t, const BatchFilter&);

}  // namespace HSPC
