// The comment of a new tree: the client's JSON with the statistics of the conversion merged into its
// "attribute-description" array. Each entry the client wrote is matched to an encoding attribute (by role,
// and by name for CUSTOM) and gets the attribute's real role, type and name, its min and max, and its
// histogram's bounds and bucket counts; attributes the client did not name are appended the same way.
#pragma once

#include <string>
#include <vector>

#include "hspc/format/Attribute.h"
#include "hspc/format/AttributeStatistics.h"
#include "hspc/format/Loggers.h"

namespace HSPC
{

// Entries that name no attribute of the data set, and client keys that the library writes itself, are
// reported on `logError` and left out. A client text that is not JSON is reported on `logWarning` and
// returned as it is.
std::string commentWithStatistics(const std::string& clientJson, const std::vector<Attribute>& encodingAttributes,
                                  const AttributeStatistics& statistics, const LogFunction& logWarning,
                                  const LogFunction& logError);

}  // namespace HSPC
