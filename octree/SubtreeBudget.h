#pragma once

#include <cstdint>

namespace pc_preprocess
{

// The most points of a node whose whole subtree a tree worker builds in memory: two copies of its records,
// 26 bytes a point, are about 200 MB. Larger nodes are split through their files.
inline constexpr uint64_t kSubtreePointBudget = 4'000'000;

}  // namespace pc_preprocess
