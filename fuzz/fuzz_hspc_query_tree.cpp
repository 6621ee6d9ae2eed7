// Arbitrary bytes as the tree file a query opens: the query front's checks and the tree loading, then what
// a client asks of an open data set (its description in every position form, a layout, a node read through
// a store that has no blobs). Passive, so that no thread starts.
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "hspc/query/QueryExecutor.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    HSPC::QueryConfig config;
    const HSPC::LogFunction silent = [](const std::string&) {};
    config.errorLogger = silent;
    config.infoLogger = silent;
    config.warningLogger = silent;
    config.readBlob = [](const std::string&, std::vector<uint8_t>&) { return false; };
    HSPC::QueryExecutor executor;
    if (!executor.initializeQueryExecutor(config, std::span<const uint8_t>(data, size), true))
        return 0;
    HSPC::DataSetInfo info;
    for (uint8_t type = HSPC::AttributeType::I32; type <= HSPC::AttributeType::M192; ++type)
    {
        if (executor.getInfo(type, info))
            executor.updateAttributeLayout(info.attributes);
    }
    std::vector<uint8_t> records;
    uint64_t count = 0;
    std::string error;
    if (!executor.tree().nodes.empty())
        executor.readNode(0, records, count, error);
    return 0;
}
