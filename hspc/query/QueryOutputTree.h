// The tree files of a data set that a query wrote: the nodes the walk chose that kept points, with the
// ancestors that lead to them, counted and boxed as written.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "hspc/query/QueryExecutorPrivate.h"
#include "hspc/query/QueryRuns.h"
#include "hspc/store/RootStore.h"

namespace HSPC
{

// `visited` holds the node indices the walk chose, in tree order. Writes "/tree.hspc", "/queryTree.hspc" and
// "/hspcInfo.json"; false with the reason in `error`.
bool writeQueryTrees(const QueryExecutorPrivate& executor, const std::vector<uint32_t>& visited,
                     const std::vector<KeptNode>& kept, RootWriter& writer, std::string& error);

}  // namespace HSPC
