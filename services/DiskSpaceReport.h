#pragma once

#include <cstdint>
#include <string>

namespace pc_preprocess
{

// A size for the disk watchdog's reports: divided by 1024 while at least 1024 and a larger unit exists, up to
// "EB"; whole values as "20 GB", others with one decimal, "19.5 GB". The unit names are translated.
std::wstring prettyDiskSize(uint64_t bytes);

// The watchdog's report on a low disk, translated: available space and percentage, the level that was
// crossed (the alert level when available is below it, else the warning level), and a block with the local
// time, capacity, available space and percentage. The percentage is of capacity, rounded; capacity is not 0.
std::wstring diskSpaceReport(uint64_t capacity, uint64_t available, uint64_t warningLevel,
                             uint64_t alertLevel);

}  // namespace pc_preprocess
