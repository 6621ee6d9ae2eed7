#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "cachefiles/CacheFiles.h"
#include "core/Export.h"
#include "core/IoTransfo.h"
#include "core/ScanFiles.h"
#include "core/SupportedAttributes.h"
#include "core/WorkerThreads.h"
#include "geom/UnitsValue.h"
#include "octree/SubtreeBudget.h"

namespace pc_preprocess
{

class Logger;

// Turns the per-scan point files of a run into the cache proper: an octree of node files with its VRM, or
// with hspcOnly an HSPC data set. The scans' files are consumed and deleted on the way. The pools of the
// split and the merge start their threads through `startWorker`. A node of at most `subtreePointBudget`
// points is split and merged in memory by one worker (some 52 bytes a point), a larger one through its
// files; the tree is the same either way.
PCP_API void buildTree(const std::vector<ScanFiles>& scans, const std::wstring& cacheFolder,
                       const CacheFiles& cacheFiles, const IoTransfo& transfo,
                       SupportedAttributes& attributes, uint64_t threads, std::shared_ptr<Logger> logger,
                       bool noPanoramaStyle, bool hspcOnly, bool computeNormals, const std::string& wkt,
                       geom::UnitsValue units, const std::function<bool()>& cancelPredicate,
                       const ThreadStarter& startWorker = startThread,
                       uint64_t subtreePointBudget = kSubtreePointBudget);

}  // namespace pc_preprocess
