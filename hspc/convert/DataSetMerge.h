// Joins data sets that share one grid (the same origin, scale and stored attributes) into one data set,
// without sorting their points again: a survey too large for one machine is converted in tiles, on the same
// grid, and the tiles are merged at the end.
//
//   DataSetMerge merge({"tile0", "tile1.pack"}, basic, advanced, encoding);
//   int result = merge.run();                        // 0 on success, 1 on failure
//
// The grid, the attributes and the node sizes of the result are those of the first data set: of `basic` only
// the output and temp paths count, of `encoding` everything but the node sizes. Every other data set must be aligned with the first; the error logger names each that
// is not and says why. Another thread may cancel the merge through processHandle().
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "hspc/convert/Converter.h"
#include "hspc/format/Config.h"

namespace HSPC
{

class HSPCImporter;

class DataSetMerge
{
public:
    // Opens every data set and sets the converter up on the first one's grid. Problems are reported by run.
    DataSetMerge(std::vector<std::string> dataSets, const BasicConfig& basic, const AdvancedConfig& advanced,
                 const PointCloudEncodingConfig& encoding);
    ~DataSetMerge();
    DataSetMerge(const DataSetMerge&) = delete;
    DataSetMerge& operator=(const DataSetMerge&) = delete;

    int run();
    ProcessHandle& processHandle() { return m_converter ? m_converter->processHandle() : m_idleHandle; }

private:
    std::vector<std::string> m_dataSets;
    LogFunction m_errorLogger;
    std::vector<std::shared_ptr<HSPCImporter>> m_importers;
    std::unique_ptr<Converter> m_converter;
    // The handle of a merge that cannot start: the first data set could not be opened.
    ProcessHandle m_idleHandle;
};

}  // namespace HSPC
