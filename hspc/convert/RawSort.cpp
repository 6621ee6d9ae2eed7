#include "hspc/convert/RawSort.h"

namespace HSPC
{

template <typename W>
ConversionFailures rawSort(const RuntimeConfig&, const std::vector<Importer*>&, PointDistributionInputHandler<W>&,
                           ProcessHandle&)
{
    // Placeholder so that the converter front links while the stage is written.
    return {makeFailure(FailureCode::kStage, "rawSort: not available yet.")};
}

template ConversionFailures rawSort<uint32_t>(const RuntimeConfig&, const std::vector<Importer*>&,
                                              PointDistributionInputHandler<uint32_t>&, ProcessHandle&);
template ConversionFailures rawSort<uint64_t>(const RuntimeConfig&, const std::vector<Importer*>&,
                                              PointDistributionInputHandler<uint64_t>&, ProcessHandle&);

}  // namespace HSPC
