#include "hspc/convert/RawSort.h"

namespace HSPC
{

template <typename W>
ConversionFailures rawSort(const RuntimeConfig&, const std::vector<Importer*>&, PointDistributionInputHandler<W>&,
                           ProcessHandle&)
{
    // Built until the per-batch kernels (filters, leaf step) are in: the stage fails clearly instead of sorting.
    return {makeFailure(FailureCode::kStage, "rawSort: not available yet.")};
}

template ConversionFailures rawSort<uint32_t>(const RuntimeConfig&, const std::vector<Importer*>&,
                                              PointDistributionInputHandler<uint32_t>&, ProcessHandle&);
template ConversionFailures rawSort<uint64_t>(const RuntimeConfig&, const std::vector<Importer*>&,
                                              PointDistributionInputHandler<uint64_t>&, ProcessHandle&);

}  // namespace HSPC
