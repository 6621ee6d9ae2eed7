// Writing the tree files of a finished conversion: "/tree.hspc" (reduced), "/queryTree.hspc" (full) and
// "/hspcInfo.json", in this order.
#pragma once

#include <string>
#include <vector>

#include "hspc/format/AttributeStatistics.h"
#include "hspc/format/Loggers.h"
#include "hspc/store/RootStore.h"
#include "hspc/tree/Tree.h"

namespace HSPC
{

inline constexpr const char* kQueryTreeName = "/queryTree.hspc";
inline constexpr const char* kInfoName = "/hspcInfo.json";

// The name of the reduced tree for a tree base name ("tree" gives "/tree.hspc").
std::string treeBlobName(const std::string& treeName);

struct TreeOutputLoggers
{
    LogFunction warning;
    LogFunction error;
};

// Sets the tree's comment to the client's JSON with the statistics merged in (TreeComment.h), then writes
// the three blobs, stopping at the first that fails with "serializeTree: Failed to serialize tree.",
// "... querytree." or "... json info." on the error logger. The header is written as version 22 with the
// attribute id of the tree's attributes.
bool serializeTree(RootWriter& writer, Tree& tree, const std::string& clientJson,
                   const AttributeStatistics& statistics, const std::string& treeName,
                   const TreeOutputLoggers& loggers);

}  // namespace HSPC
