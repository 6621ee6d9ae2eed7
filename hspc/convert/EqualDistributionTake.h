// A fair division of a number of points over the cells below a node: no cell gives more than it has, and
// what the small cells cannot give is spread equally over the others.
#pragma once

#include <cstdint>
#include <span>

namespace HSPC
{

// Fills takes[i] with the points cell i gives, for cells holding counts[i] points, so that the takes add up
// to `total`. Each cell gives total / n, the first cells one more while total % n is not used up; cells
// holding less give all they have, and their shortfall is divided again over the cells that hold more.
// `takes` has the size of `counts`.
//
// When the cells hold fewer than `total` points together (no cell is left to take the rest from), the
// message "computeEqualDistributionTake: nbOfLeafs is zero: not possible\n." goes to the standard error
// stream and the call returns false: the caller fails its stage instead of ending the host's process.
bool computeEqualDistributionTake(std::span<const uint32_t> counts, uint64_t total,
                                  std::span<uint32_t> takes);

}  // namespace HSPC
