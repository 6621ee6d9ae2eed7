// The planning half of the distribution, on the calling thread: from what the raw sort left, the leaves of
// the distribution (the cells read as one unit each; critical cells recomputed from their points into leaves
// within the merge limit), each leaf's slices of the runs, the take table and the upper tree. The spilled
// leaf arrays and cell lists are deleted once read; the runs stay for the distribution.
#pragma once

#include "hspc/convert/ConversionFailure.h"
#include "hspc/convert/DistributionLayout.h"
#include "hspc/convert/PointDistributionInputHandler.h"
#include "hspc/convert/ProcessHandle.h"
#include "hspc/format/RuntimeConfig.h"

namespace HSPC
{

// Fills `layout`; without runs it is empty and nothing fails. A failure ends with "Could not compute
// distribution nodes." (code 11) after the failures of the step that failed (a cancel during the
// recomputation among them). The merge and the recomputation together hold target memory x 2 / 3.
template <typename W>
ConversionFailures planDistribution(const RuntimeConfig& config, PointDistributionInputHandler<W>& input,
                                    ProcessHandle& handle, DistributionLayout<W>& layout);

extern template ConversionFailures planDistribution<uint32_t>(const RuntimeConfig&,
                                                              PointDistributionInputHandler<uint32_t>&,
                                                              ProcessHandle&, DistributionLayout<uint32_t>&);
extern template ConversionFailures planDistribution<uint64_t>(const RuntimeConfig&,
                                                              PointDistributionInputHandler<uint64_t>&,
                                                              ProcessHandle&, DistributionLayout<uint64_t>&);

}  // namespace HSPC
