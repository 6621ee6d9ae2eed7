// What the distribution works from once the merge and the recomputation of critical cells are done: the
// leaves (the cells read as one unit each, in Morton order, every point in exactly one), where each leaf's
// points lie in the sorted runs on disk, and the upper tree with the share each of its nodes takes from each
// leaf.
#pragma once

#include <cstdint>
#include <vector>

#include "hspc/convert/UpperTree.h"

namespace HSPC
{

// The points of one leaf inside one run: records [firstPoint, firstPoint + pointCount) of the run, whose
// records are sorted by Morton code.
struct RunSlice
{
    // Position of the run in the input handler's read list.
    uint32_t run = 0;
    uint64_t firstPoint = 0;
    uint32_t pointCount = 0;
};

template <typename W>
struct DistributionLayout
{
    // Slices of leaf i: [sliceBegin[i], sliceBegin[i + 1]) of `slices`, in increasing run position. Leaf i is
    // upper.leaves[i]; its count is the sum of its slices' counts. sliceBegin has one entry more than the
    // leaves.
    std::vector<RunSlice> slices;
    std::vector<uint32_t> sliceBegin;
    UpperTree<W> upper;
    // The take table the upper tree was built with; the leaves' own nodes take from it too.
    TakeTable takes{};
    uint64_t totalPoints = 0;
};

}  // namespace HSPC
