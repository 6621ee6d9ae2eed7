#include "hspc/convert/Converter.h"

#include <chrono>
#include <cstdlib>
#include <exception>
#include <string>
#include <utility>

#include "hspc/convert/AlignedInput.h"
#include "hspc/convert/ConverterChecks.h"
#include "hspc/convert/FailureReport.h"
#include "hspc/convert/StaticConversion.h"
#include "hspc/format/AttributeDescription.h"
#include "hspc/format/AttributeStatistics.h"

namespace HSPC
{
namespace
{

// Parses the statistics the client asks for and tries them on the encoding attributes, so that a request
// the conversion could not serve fails before any point is read.
bool setUpStatistics(RuntimeConfig& runtime)
{
    std::vector<AttributeDescription> descriptions;
    if (!parseAttributeDescription(runtime.requestJsonConfig().text(), runtime.errorLogger, descriptions))
    {
        return false;
    }
    runtime.statisticsRequests.clear();
    for (const AttributeDescription& description : descriptions)
    {
        runtime.statisticsRequests.push_back(description.histogram);
    }
    AttributeStatistics trial;
    return trial.initialize(runtime.encodingAttributes, runtime.statisticsRequests, runtime.errorLogger);
}

// One value of the C library's rand, seeded with the time, names a conversion's temporary files, so that
// conversions sharing a temp folder keep apart. The seed counts nanoseconds: conversions started within the
// same second get different names too.
unsigned temporaryRunNumber()
{
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    std::srand(static_cast<unsigned>(std::chrono::duration_cast<std::chrono::nanoseconds>(now).count()));
    return static_cast<unsigned>(std::rand());
}

}  // namespace

Converter::Converter(const BasicConfig& basic, const AdvancedConfig& advanced,
                     const PointCloudEncodingConfig& encoding)
{
    m_configured = checkConverterConfiguration(basic, advanced, encoding) && setUp(basic, advanced, encoding);
}

bool Converter::setUp(const BasicConfig& basic, const AdvancedConfig& advanced,
                      const PointCloudEncodingConfig& encoding)
{
    // Only a static conversion is ever asked for; the node size fallback below depends on it.
    m_runtime.progressive = false;
    applyEncodingConfig(encoding, m_runtime);
    initializeRuntimeConfig(basic, advanced, m_runtime);
    if (!setUpStatistics(m_runtime))
    {
        // A library in its host's process must not abort the host: the conversion is refused instead.
        m_runtime.errorLogger("Could not initialize statistis.");
        return false;
    }
    setTempPrefixes(m_runtime, temporaryRunNumber());
    m_inputTrees = encoding.inputTreeArray;
    return true;
}

bool Converter::addImporter(std::shared_ptr<Importer> importer)
{
    if (!m_configured || importer == nullptr)
    {
        return false;
    }
    m_importers.push_back(std::move(importer));
    return true;
}

Converter::Mode Converter::mode() const
{
    if (!m_runtime.convert)
    {
        return Mode::kVoxelsOnly;
    }
    return m_runtime.progressive ? Mode::kProgressive : Mode::kStatic;
}

ConversionFailures Converter::convert(Mode mode)
{
    // The progressive and the voxels-only runs are selected by flags that no caller's record sets; until
    // they exist, reaching them is a failure rather than a silent static run.
    switch (mode)
    {
        case Mode::kVoxelsOnly:
            return {makeFailure(FailureCode::kStage,
                                "Converter::run: the render voxel run is not available in this build.")};
        case Mode::kProgressive:
            return {makeFailure(FailureCode::kStage,
                                "Converter::run: the progressive conversion is not available in this build.")};
        case Mode::kStatic:
            break;
    }
    std::vector<Importer*> importers;
    for (const std::shared_ptr<Importer>& importer : m_importers)
    {
        importers.push_back(importer.get());
    }
    try
    {
        return staticConversion(m_runtime, m_inputTrees, importers, m_handle);
    }
    catch (const std::exception& error)
    {
        // A thread that cannot be started, or memory that cannot be had, ends the conversion, not the host.
        return {makeFailure(FailureCode::kStage, std::string("Converter::run: ") + error.what())};
    }
}

ConversionFailures Converter::mergeInputs(const std::vector<std::string>& inputNames)
{
    if (m_importers.empty())
    {
        m_runtime.errorLogger("No data to merge.");
        return {makeFailure(FailureCode::kStage, "No data to merge.")};
    }
    bool mergeable = true;
    for (std::size_t i = 0; i < m_importers.size(); ++i)
    {
        std::string reason;
        if (!alignedDataSetOf(*m_importers[i], m_runtime, reason))
        {
            const std::string name = i < inputNames.size() ? inputNames[i] : "input " + std::to_string(i);
            m_runtime.errorLogger(name + " is not aligned: " + reason + ".");
            mergeable = false;
        }
    }
    if (!mergeable)
    {
        m_runtime.errorLogger("Input data is not mergeable.");
        return {makeFailure(FailureCode::kStage, "Input data is not mergeable.")};
    }
    return convert(Mode::kStatic);
}

int Converter::run()
{
    return execute([this](Mode chosen) { return convert(chosen); });
}

int Converter::merge(const std::vector<std::string>& inputNames)
{
    // A merge is a static conversion of aligned inputs only, whatever mode the flags would choose.
    return execute([this, &inputNames](Mode) { return mergeInputs(inputNames); });
}

int Converter::execute(const std::function<ConversionFailures(Mode)>& stages)
{
    if (!m_configured)
    {
        m_handle.markFinished();
        return 1;
    }
    if (m_ran)
    {
        m_runtime.errorLogger("Converter::run: a converter runs once; its importers have been read.");
        m_handle.markFinished();
        return 1;
    }
    m_ran = true;
    const int64_t startSeconds = conversionClockSeconds();
    m_runtime.progressLogger(0, "Run started");
    const Mode chosen = mode();
    ConversionFailures failures = stages(chosen);
    // The run's own writer goes with it: a pack archive writes its directory when closed, and the data set
    // must be whole when the host hears the result, not only once the converter is gone.
    m_runtime.rootWriter.reset();
    const bool succeeded = failures.empty();
    const std::string name = chosen == Mode::kProgressive ? "Progressive" : "Static";
    for (const std::string& line : failureReport(name, std::move(failures), startSeconds))
    {
        m_runtime.errorLogger(line);
    }
    if (succeeded)
    {
        m_runtime.progressLogger(100, "Done");
    }
    else
    {
        m_runtime.errorLogger("Conversion failed.");
    }
    m_handle.markFinished();
    return succeeded ? 0 : 1;
}

}  // namespace HSPC
