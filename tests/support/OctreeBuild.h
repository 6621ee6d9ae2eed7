#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "cachefiles/CacheFiles.h"
#include "core/IoLightPoint.h"
#include "core/IoTransfo.h"
#include "core/ScanFiles.h"
#include "core/SupportedAttributes.h"
#include "core/WorkerThreads.h"
#include "octree/SubtreeBudget.h"
#include "services/Logger.h"
#include "support/TempFolder.h"

namespace pcp_test
{

// A cache of millimetre steps around the origin.
pc_preprocess::IoTransfo millimetres();

pc_preprocess::IoLightPoint pointAt(int32_t x, int32_t y, int32_t z, float radius = 0.0f);

// Points spread thinly through the cube [0, edge] on each axis: with an edge of a few hundred thousand or
// more, far sparser than one point per cell, so that no filter touches them.
std::vector<pc_preprocess::IoLightPoint> sparsePoints(size_t count, int32_t edge, uint32_t seed);

// The octree build of one cache folder, with its logger, from scans written into its "Data" folder as a run
// leaves them: in the cache's grid `transfo`, with a class side file beside each when `classes`.
struct OctreeBuild
{
    explicit OctreeBuild(const TempFolder& temp, const pc_preprocess::IoTransfo& transfo = millimetres(),
                         bool classes = false);

    // A scan's point and meta files; a filled area above 0 is a scan with a panorama.
    void addScan(const std::vector<pc_preprocess::IoLightPoint>& points, double filledArea = 0.0);
    void run(uint64_t threads = 2, const std::function<bool()>& cancel = nullptr,
             const pc_preprocess::ThreadStarter& startWorker = pc_preprocess::startThread,
             uint64_t subtreePointBudget = pc_preprocess::kSubtreePointBudget);

    std::filesystem::path data() const;
    std::string log() const;
    // True once the log holds the text: a way for a cancel test to know which stage the build is in.
    bool logHas(const std::string& text) const;
    // The log after the errors that the logger holds are written out, as the end of a failed run does.
    std::string logWithHeldErrors();
    // What the host reads once its logger is gone.
    std::string finalPercentage();

    std::wstring folder;
    pc_preprocess::CacheFiles files;
    pc_preprocess::IoTransfo transfo;
    pc_preprocess::SupportedAttributes attributes;
    std::shared_ptr<pc_preprocess::Logger> logger;
    std::vector<pc_preprocess::ScanFiles> scans;
};

// A finished tree as its VRM and node files tell it.
struct TreeWalk
{
    uint64_t nodes = 0;
    uint64_t leaves = 0;
    uint64_t leafPoints = 0;
    uint64_t depth = 0;  // of the deepest node; the root's is 0
    std::multiset<std::tuple<int32_t, int32_t, int32_t>> leafPositions;
    std::multiset<float> leafRadii;
};

// Reads the tree back, checking each node of the VRM against its PNZ on the way: the count, the box, the
// limit of 65536, and the name of each child as its parent's name with one more digit.
TreeWalk walkTree(const OctreeBuild& build);

}  // namespace pcp_test
