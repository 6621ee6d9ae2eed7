#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "cachefiles/CacheFiles.h"
#include "core/IoTransfo.h"
#include "core/ScanFiles.h"
#include "core/SupportedAttributes.h"
#include "geom/UnitsValue.h"

namespace pc_preprocess
{

class Logger;
class StructuredNormalCalculator;

// Turns the scans' point files into an HSPC data set where the cache files name it: a tree of files in the
// folder of getTreeFile(), or the pack archive that getTreeFile() names when it ends in ".hspc.pack". The
// points keep the cache's grid (`transfo`), and carry the attributes that `attributes` sets. A point gets
// the normal of its file when `attributes.normals` comes from the scans; otherwise, with an active
// `calculator`, the one that its scan's normal map shows. Each scan's files are deleted once its points are
// read. Throws with the converter's reason in the log when the data set cannot be written; whatever the
// conversion wrote into the folder is then removed again. `cancel` is polled throughout.
void buildHspcTree(const std::vector<ScanFiles>& scans, const CacheFiles& cacheFiles,
                   const SupportedAttributes& attributes, bool normalsFromScans, const IoTransfo& transfo,
                   const std::string& wkt, geom::UnitsValue units, const StructuredNormalCalculator& calculator,
                   uint64_t threads, const std::shared_ptr<Logger>& logger, const std::function<bool()>& cancel);

}  // namespace pc_preprocess
