#pragma once

#include <functional>
#include <memory>

#include "core/WorkerThreads.h"
#include "octree/Node.h"
#include "octree/TreeCounts.h"
#include "octree/TreeWorkspace.h"

namespace pc_preprocess
{

class Logger;

// Splits every child of the root with more than 65536 points, and their children in turn, on a pool of
// workers. False when a worker failed (its error is in the logger) or the run was cancelled.
bool splitRootChildrenThreaded(Node& root, uint64_t threads, const SplitSettings& settings,
                               const std::shared_ptr<Logger>& logger, const std::function<bool()>& cancel,
                               const ThreadStarter& startWorker = startThread);

// Writes, bottom-up on a pool of workers, the PNZ of every inner node: the thinned points of its children.
// False when a worker failed (its error is in the logger) or the run was cancelled.
bool mergeThreaded(Node& root, uint64_t threads, const std::shared_ptr<Logger>& logger,
                   const std::function<bool()>& cancel, const ThreadStarter& startWorker = startThread);

// Merges the children's points into the node's PNZ with the worker's buffers; `merged` is called when the
// node is done. Children that are all leaves with at most 65536 points together fold into the node, which
// becomes a leaf.
void mergeSingleNode(Node& node, TreeWorkspace& workspace, const std::function<void(Node&)>& merged);

}  // namespace pc_preprocess
