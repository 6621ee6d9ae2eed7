#include "hspc/convert/DataSetMerge.h"

#include <utility>

#include "hspc/query/HSPCImporter.h"

namespace HSPC
{

DataSetMerge::DataSetMerge(std::vector<std::string> dataSets, const BasicConfig& basic,
                           const AdvancedConfig& advanced, const PointCloudEncodingConfig& encoding)
    : m_dataSets(std::move(dataSets)), m_errorLogger(advanced.errorLogger)
{
    for (const std::string& path : m_dataSets)
    {
        ImporterConfig config;
        config.path = path;
        config.infoLogger = advanced.infoLogger;
        config.warningLogger = advanced.warningLogger;
        config.errorLogger = advanced.errorLogger;
        m_importers.push_back(std::make_shared<HSPCImporter>(config));
    }
    if (m_importers.empty() || !m_importers.front()->isValid())
    {
        return;
    }
    // The records the importers deliver are the first data set's stored records: the converter's input
    // attributes are its encoding attributes, on its grid.
    const Tree& first = m_importers.front()->tree();
    BasicConfig target = basic;
    target.attributes = first.attributes.attributes;
    target.origin = first.header.origin;
    target.scale = first.header.scale;
    AdvancedConfig settings = advanced;
    settings.positionType = first.attributes.attributes.front().type;
    // The tiles of one survey were made with one node size; the survey keeps it.
    PointCloudEncodingConfig nodes = encoding;
    if (first.header.nodeSize != 0 && first.header.maxNodeSize != 0)
    {
        nodes.nodeSize = first.header.nodeSize;
        nodes.maxNodeSize = first.header.maxNodeSize;
    }
    m_converter = std::make_unique<Converter>(target, settings, nodes);
}

DataSetMerge::~DataSetMerge() = default;

int DataSetMerge::run()
{
    if (m_dataSets.empty())
    {
        m_errorLogger("No data to merge.");
        return 1;
    }
    if (!m_converter)
    {
        m_errorLogger(m_dataSets.front() + " is not aligned: its tree could not be read.");
        m_errorLogger("Input data is not mergeable.");
        return 1;
    }
    if (!m_converter->isConfigured())
    {
        m_errorLogger("Could not initialize min and max.");
        return 1;
    }
    for (const std::shared_ptr<HSPCImporter>& importer : m_importers)
    {
        m_converter->addImporter(importer);
    }
    return m_converter->merge(m_dataSets);
}

}  // namespace HSPC
