#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "core/ScanFiles.h"
#include "octree/Node.h"
#include "octree/TreeCounts.h"

namespace pc_preprocess
{

class Logger;

// Distributes the scans' point files into the root and its eight children, deleting each scan's files once it
// is distributed. Returns the filter style of the build: true (thinning by each scan's own spacing) when
// every scan has a panorama and the caller did not ask for the other style.
// A child with more points than `subtreePointBudget` that is kept from the filters gets its own children at
// once, and its points go straight into them.
bool splitRoot(Node& root, const std::vector<ScanFiles>& scans, const std::shared_ptr<Logger>& logger,
               bool noPanoramaStyle, bool keepScanIds, bool keepMultiple, uint64_t subtreePointBudget,
               TreeCounts& counts, const std::function<bool()>& cancel);

}  // namespace pc_preprocess
