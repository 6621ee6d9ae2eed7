// The query front's own reading of a tree file: the checks a client of the query engine sees, each with its
// message, before the tree is loaded the way every reader loads it (Tree.h).
#pragma once

#include <cstdint>
#include <span>

#include "hspc/format/Loggers.h"
#include "hspc/tree/Tree.h"

namespace HSPC
{

inline constexpr uint32_t kNewestQueryableTreeVersion = 22;

// Loads a tree file for querying; `form` tells which body it had. False with the reason on `logError`; a tree
// still being written progressively is refused.
bool loadQueryTree(std::span<const uint8_t> bytes, Tree& tree, TreeForm& form, const LogFunction& logError);

}  // namespace HSPC
