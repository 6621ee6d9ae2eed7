// The raw sort, first stage of a static conversion: points arrive in any order from any number of importers,
// each batch is converted to the encoded layout with a Morton position, sorted, filtered, and left behind as a
// sorted run on disk, with a count of how many points lie in which cell (PointDistributionInputHandler.h).
//
// Threads, all joined before it returns: input threads that share out the importers in turn and read raw
// batches while the stage's memory allows; first-stage workers (the calling thread runs the last) that turn
// batches into runs; temp writers that put runs and spilled counts on disk. A cancel through `handle` reaches
// the stage while it runs. On failure or cancel every temp file of the stage is deleted again.
#pragma once

#include <cstdint>
#include <vector>

#include "hspc/convert/ConversionFailure.h"
#include "hspc/convert/Importer.h"
#include "hspc/convert/PointDistributionInputHandler.h"
#include "hspc/convert/ProcessHandle.h"
#include "hspc/format/RuntimeConfig.h"

namespace HSPC
{

template <typename W>
ConversionFailures rawSort(const RuntimeConfig& config, const std::vector<Importer*>& importers,
                           PointDistributionInputHandler<W>& input, ProcessHandle& handle);

extern template ConversionFailures rawSort<uint32_t>(const RuntimeConfig&, const std::vector<Importer*>&,
                                                     PointDistributionInputHandler<uint32_t>&, ProcessHandle&);
extern template ConversionFailures rawSort<uint64_t>(const RuntimeConfig&, const std::vector<Importer*>&,
                                                     PointDistributionInputHandler<uint64_t>&, ProcessHandle&);

}  // namespace HSPC
