#include "hspc/convert/StaticConversion.h"

#include <cstdint>
#include <optional>
#include <string>

#include "hspc/convert/AlignedInput.h"
#include "hspc/convert/DistributionPlanning.h"
#include "hspc/convert/InputLeafProcessHandler.h"
#include "hspc/convert/PointDistribution.h"
#include "hspc/convert/PointDistributionInputHandler.h"
#include "hspc/convert/RawSort.h"
#include "hspc/convert/StageClock.h"

namespace HSPC
{
namespace
{

template <typename W>
ConversionFailures staticConversionOf(const RuntimeConfig& runtime, const std::vector<std::string>& inputTrees,
                                      const std::vector<Importer*>& importers, ProcessHandle& handle)
{
    const StageClock::time_point start = StageClock::now();
    ConversionFailures failures;
    if (!inputTrees.empty())
    {
        failures.push_back(
            makeFailure(FailureCode::kTempFile, "Use of inputTreeArray is deprecated, use HSPCImporter instead!"));
    }
    // Owns the temporary files from here on: whatever the stages leave behind goes with it.
    PointDistributionInputHandler<W> input(runtime);

    // Data sets already on the target's grid hand over their nodes without a sort; everything else is raw.
    std::vector<Importer*> rawImporters;
    std::vector<AlignedDataSet> alignedInputs;
    for (Importer* importer : importers)
    {
        std::string reason;
        if (std::optional<AlignedDataSet> aligned = alignedDataSetOf(*importer, runtime, reason))
        {
            alignedInputs.push_back(std::move(*aligned));
        }
        else
        {
            rawImporters.push_back(importer);
        }
    }
    if (!alignedInputs.empty() && rawImporters.empty())
    {
        runtime.progressLogger(50, "All input data is aligned HSPC: no raw sort required.");
    }
    if (!rawImporters.empty() && failures.empty())
    {
        failures = rawSort<W>(runtime, rawImporters, input, handle);
        runtime.progressLogger(50, "Finished raw sort after " + secondsSince(start) + "[s].");
    }
    if (!alignedInputs.empty() && failures.empty())
    {
        failures = addAlignedInput<W>(runtime, alignedInputs, input, handle);
        if (!failures.empty())
        {
            failures.push_back(makeFailure(FailureCode::kStage, "Could not add buffers from importers."));
        }
    }
    runtime.infoLogger("Rawsort:      elapsed: " + secondsSince(start) + " [s].");

    const StageClock::time_point distributionStart = StageClock::now();
    if (failures.empty())
    {
        // Without any point the plan is empty and the distribution writes the tree files of an empty data set.
        DistributionLayout<W> layout;
        failures = planDistribution<W>(runtime, input, handle, layout);
        if (failures.empty())
        {
            failures = distributePoints<W>(runtime, input, layout, handle);
        }
    }
    runtime.infoLogger("Distribution: elapsed: " + secondsSince(distributionStart) + " [s].");
    return failures;
}

}  // namespace

ConversionFailures staticConversion(const RuntimeConfig& runtime, const std::vector<std::string>& inputTrees,
                                    const std::vector<Importer*>& importers, ProcessHandle& handle)
{
    const uint8_t positionType =
        runtime.encodingAttributes.empty() ? uint8_t(AttributeType::UNDEFINED) : runtime.encodingAttributes[0].type;
    switch (positionType)
    {
        case AttributeType::M96:
            return staticConversionOf<uint32_t>(runtime, inputTrees, importers, handle);
        case AttributeType::M192:
            return staticConversionOf<uint64_t>(runtime, inputTrees, importers, handle);
        default:
            return {makeFailure(FailureCode::kNone, "staticConversion: could not determine type of Morton index.")};
    }
}

}  // namespace HSPC
