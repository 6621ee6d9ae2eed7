#include "hspc/convert/EqualDistributionTake.h"

#include <algorithm>
#include <cstdio>

namespace HSPC
{

bool computeEqualDistributionTake(std::span<const uint32_t> counts, uint64_t total, std::span<uint32_t> takes)
{
    // The points still to spread over the cells that hold more than the current share, and how many such
    // cells there are. Each round either balances or moves at least one cell to the "gives all" side, so
    // there are at most n rounds.
    if (total == 0)
    {
        std::fill(takes.begin(), takes.end(), 0u);
        return true;
    }
    uint64_t leftover = total;
    uint64_t sharing = counts.size();
    uint64_t share = 0;
    while (true)
    {
        if (sharing == 0)
        {
            std::fputs("computeEqualDistributionTake: nbOfLeafs is zero: not possible\n.", stderr);
            return false;
        }
        share = leftover / sharing;
        uint64_t rest = leftover % sharing;
        uint64_t sum = 0;
        for (std::size_t i = 0; i < counts.size(); ++i)
        {
            uint64_t given = counts[i];
            if (counts[i] > share)
            {
                given = share;
                if (rest > 0)
                {
                    ++given;
                    --rest;
                }
            }
            takes[i] = uint32_t(given);
            sum += given;
        }
        if (sum == total)
        {
            return true;
        }
        leftover = total;
        sharing = 0;
        for (uint32_t count : counts)
        {
            if (count > share)
            {
                ++sharing;
            }
            else
            {
                leftover -= count;
            }
        }
    }
}

}  // namespace HSPC
