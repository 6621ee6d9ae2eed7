#pragma once

#include <atomic>
#include <cstdint>

#include "octree/SubtreeBudget.h"

namespace pc_preprocess
{

// Where the points of a build went, so that the log can account for every one of them: those that entered
// the tree either reach a leaf or were removed by a filter, with a child too small to keep, or for lying
// outside every box of their parent.
struct TreeCounts
{
    std::atomic<uint64_t> entered{0};
    std::atomic<uint64_t> filteredAway{0};
    std::atomic<uint64_t> inSmallChildren{0};
    std::atomic<uint64_t> outsideBoxes{0};
};

// How a build thins and splits, the same for every node.
struct SplitSettings
{
    bool tandStyle = false;
    bool keepMultiple = false;
    TreeCounts* counts = nullptr;
    uint64_t subtreePointBudget = kSubtreePointBudget;
};

}  // namespace pc_preprocess
