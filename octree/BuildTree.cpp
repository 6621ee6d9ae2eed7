#include "octree/BuildTree.h"

#include <stdexcept>

namespace pc_preprocess
{

// The tree builders (octree and HSPC) are not part of the library yet: a run that asks for a tree ends with
// this error, and its per-scan files are cleaned away like those of any failed run. Runs that only convert
// the inputs stop before this call.
void buildTree(const std::vector<ScanFiles>& /*scans*/, const std::wstring& /*cacheFolder*/,
               const CacheFiles& /*cacheFiles*/, const IoTransfo& /*transfo*/,
               SupportedAttributes& /*attributes*/, uint64_t /*threads*/, std::shared_ptr<Logger> /*logger*/,
               bool /*noPanoramaStyle*/, bool hspcOnly, bool /*computeNormals*/, const std::string& /*wkt*/,
               geom::UnitsValue /*units*/, const std::function<bool()>& /*cancelPredicate*/)
{
    throw std::runtime_error(
        std::string("buildTree : building ") + (hspcOnly ? "an HSPC data set" : "the octree") +
        " is not available in this version of the library; convert only (no tree) instead.");
}

}  // namespace pc_preprocess
