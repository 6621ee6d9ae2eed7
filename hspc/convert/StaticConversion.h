// The stages of a static conversion, in order, on the calling thread: the raw sort of every importer's points
// into sorted runs on disk, then the distribution of the runs into the nodes of the data set. Each stage
// runs only while no failure has been recorded, and each logs how long it took.
#pragma once

#include <string>
#include <vector>

#include "hspc/convert/ConversionFailure.h"
#include "hspc/convert/Importer.h"
#include "hspc/convert/ProcessHandle.h"
#include "hspc/format/RuntimeConfig.h"

namespace HSPC
{

// Runs the stages for the position type of the encoding attributes (M96 or M192) and returns what failed;
// an empty list is a finished data set. `inputTrees` are data sets the caller asked to merge in, which is no
// longer supported and fails the conversion. `handle` reaches whichever stage runs.
ConversionFailures staticConversion(const RuntimeConfig& runtime, const std::vector<std::string>& inputTrees,
                                    const std::vector<Importer*>& importers, ProcessHandle& handle);

}  // namespace HSPC
