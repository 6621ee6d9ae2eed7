// Where a query reads the blobs of a data set: the host's callback, a pack archive, or a folder.
#pragma once

#include <string>

#include "hspc/format/Config.h"
#include "hspc/query/QueryDataHandler.h"

namespace HSPC
{

// A reader safe to call from several threads at once: config.readBlob when set, otherwise the archive or
// folder of config.path (a tree file path stands for its folder). Empty, with the reason in `error`, when
// an archive can't be opened or there is nothing to read from.
BlobReadFunction makeBlobSource(const QueryConfig& config, std::string& error);

}  // namespace HSPC
