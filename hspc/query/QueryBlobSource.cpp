#include "hspc/query/QueryBlobSource.h"

#include <memory>

#include "hspc/store/DataSetPaths.h"
#include "hspc/store/DiskArchive.h"
#include "hspc/store/FolderStore.h"

namespace HSPC
{

BlobReadFunction makeBlobSource(const QueryConfig& config, std::string& error)
{
    if (config.readBlob)
    {
        return config.readBlob;
    }
    if (config.path.empty())
    {
        error = "QueryExecutor: no data set path and no blob reader are set.";
        return {};
    }
    std::shared_ptr<RootReader> reader;
    if (isArchivePath(config.path))
    {
        auto archive = std::make_shared<DiskReadArchive>(config.path, config.errorLogger);
        if (!archive->handler()->isOpen())
        {
            error = "QueryExecutor: cannot open the archive " + config.path + ".";
            return {};
        }
        reader = std::move(archive);
    }
    else
    {
        reader = std::make_shared<FolderReader>(dataSetRoot(config.path).value_or(config.path), config.errorLogger);
    }
    return [reader](const std::string& name, std::vector<uint8_t>& bytes)
    {
        bytes.clear();
        return reader->read(name, bytes);
    };
}

}  // namespace HSPC
