// Turns the points of any number of importers into one HSPC data set, out of core.
//
//   Converter converter(basic, advanced, encoding);   // checks the records, reports the first problem
//   converter.addImporter(importer);                  // false when the records did not pass
//   int result = converter.run();                     // 0 on success, 1 on failure
//
// run blocks until every thread of the conversion has been joined. Another thread may cancel it at any
// time through processHandle(); a cancel before run reaches the first stage as soon as it starts. Failures
// are reported on the error logger, one line each, in the order in which they happened.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "hspc/convert/ConversionFailure.h"
#include "hspc/convert/Importer.h"
#include "hspc/convert/ProcessHandle.h"
#include "hspc/format/Config.h"
#include "hspc/format/RuntimeConfig.h"

namespace HSPC
{

class Converter
{
public:
    // Checks the records; when they pass, resolves the runtime configuration (threads, memory, batch size,
    // node sizes, statistics requests and temporary file names).
    Converter(const BasicConfig& basic, const AdvancedConfig& advanced, const PointCloudEncodingConfig& encoding);
    Converter(const Converter&) = delete;
    Converter& operator=(const Converter&) = delete;

    // Importers are read in the order in which they were added. False, and nothing kept, when the records did
    // not pass their checks or `importer` is empty.
    bool addImporter(std::shared_ptr<Importer> importer);

    // 0 when the data set was written, 1 otherwise. Without a configuration that passed its checks, 1 at once.
    // A converter runs once: its importers are read to their end.
    int run();

    // Joins the importers, all of them data sets on the grid of this converter's records, into one data set
    // without sorting their points again; 0 on success, 1 otherwise. Without an importer it fails with "No
    // data to merge.", and when any importer is not aligned (AlignedInput.h) with "Input data is not
    // mergeable.", after naming each such input (by `inputNames` where given, else by its position) and why
    // on the error logger. Like run, it runs once.
    int merge(const std::vector<std::string>& inputNames = {});

    ProcessHandle& processHandle() { return m_handle; }
    bool isConfigured() const { return m_configured; }
    const RuntimeConfig& runtimeConfig() const { return m_runtime; }

private:
    enum class Mode
    {
        kStatic,
        kProgressive,
        kVoxelsOnly,
    };

    bool setUp(const BasicConfig& basic, const AdvancedConfig& advanced, const PointCloudEncodingConfig& encoding);
    Mode mode() const;
    ConversionFailures convert(Mode mode);
    ConversionFailures mergeInputs(const std::vector<std::string>& inputNames);
    // The frame of run and merge: start and end reports, the failure report, the finished flag.
    int execute(const std::function<ConversionFailures(Mode)>& stages);

    bool m_configured = false;
    bool m_ran = false;
    RuntimeConfig m_runtime;
    std::vector<std::string> m_inputTrees;
    std::vector<std::shared_ptr<Importer>> m_importers;
    ProcessHandle m_handle;
};

}  // namespace HSPC
