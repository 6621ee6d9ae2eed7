// The leaf array: leaf entries sorted by Morton index, one per counted cell. Both a first-stage worker (with
// each run's cell list) and the input handler (with each worker's array) fold sorted entries into one.
#pragma once

#include <algorithm>
#include <cstdint>
#include <span>
#include <vector>

#include "hspc/convert/RawSortRecords.h"

namespace HSPC
{

// Counts saturate here rather than wrap: a cell this full is split by the distribution anyway.
inline constexpr uint32_t kLargestLeafCount = 0xffffffff;

inline uint32_t addLeafCounts(uint32_t a, uint32_t b)
{
    return b > kLargestLeafCount - a ? kLargestLeafCount : a + b;
}

// Merges the sorted `incoming` into the sorted `leaves`; entries of equal index become one, with the counts
// added and the coarser lod, whose cell holds both. `scratch` is reused between calls.
template <typename W>
void mergeLeafEntries(std::vector<LeafEntry<W>>& leaves, std::span<const LeafEntry<W>> incoming,
                      std::vector<LeafEntry<W>>& scratch)
{
    scratch.clear();
    scratch.reserve(leaves.size() + incoming.size());
    auto a = leaves.begin();
    auto b = incoming.begin();
    while (a != leaves.end() || b != incoming.end())
    {
        const bool takeA = b == incoming.end() || (a != leaves.end() && a->index <= b->index);
        const LeafEntry<W>& next = takeA ? *a++ : *b++;
        if (!scratch.empty() && scratch.back().index == next.index)
        {
            scratch.back().count = addLeafCounts(scratch.back().count, next.count);
            scratch.back().lod = std::max(scratch.back().lod, next.lod);
        }
        else
        {
            scratch.push_back(next);
        }
    }
    leaves.swap(scratch);
}

}  // namespace HSPC
