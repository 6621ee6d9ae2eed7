#include "hspc/query/HSPCImporter.h"

#include <utility>

#include "hspc/query/HSPCImporterImpl.h"
#include "hspc/query/PointReader.h"

namespace HSPC
{

HSPCImporter::HSPCImporter(const ImporterConfig& config)
    : HSPCImporter(std::make_shared<HSPCImporterImpl>(config))
{
}

// Converted records lie on the target's grid, so that is the grid this importer reports.
HSPCImporter::HSPCImporter(std::shared_ptr<HSPCImporterImpl> impl)
    : ImporterBase(impl->attributes(), impl->targetOrigin(), impl->targetScale(),
                   impl->isValid() ? impl->tree().header.pointCount : 0),
      m_impl(std::move(impl)),
      m_reader(std::make_unique<PointReader>(*m_impl))
{
}

HSPCImporter::~HSPCImporter() = default;

bool HSPCImporter::isValid() const
{
    return m_impl->isValid();
}

const Tree& HSPCImporter::tree() const
{
    return m_impl->tree();
}

const std::vector<EncodingAttribute>& HSPCImporter::attributeDescription() const
{
    return m_impl->attributeDescription();
}

const std::vector<ScanInfo>& HSPCImporter::scanInfos() const
{
    return m_impl->scanInfos();
}

const std::vector<InputInfo>& HSPCImporter::inputInfos() const
{
    return m_impl->inputInfos();
}

bool HSPCImporter::hasTransform() const
{
    return m_impl->hasTransform();
}

const std::vector<uint8_t>& HSPCImporter::nodeLods() const
{
    return m_impl->nodeLods();
}

const std::vector<std::array<uint64_t, 3>>& HSPCImporter::nodeCorners() const
{
    return m_impl->nodeCorners();
}

bool HSPCImporter::readNodeBlock(uint32_t nodeIndex, std::vector<uint8_t>& block, std::string& error) const
{
    return m_impl->readNodeBlock(nodeIndex, block, error);
}

bool HSPCImporter::readNodeRecords(uint32_t nodeIndex, NodeReading& reading, HSPCBuffer<uint8_t>& records,
                                   std::string& error) const
{
    const uint32_t recordSize = m_impl->rawRecordSize();
    uint64_t count = 0;
    const bool read = m_impl->readNodeRecords(
        nodeIndex, reading,
        [&](uint64_t pointCount)
        {
            records.resize(size_t(pointCount * recordSize));
            return records.data();
        },
        count, error);
    if (!read)
    {
        records.clear();
    }
    return read;
}

ReadResult HSPCImporter::readBatch(HSPCBuffer<uint8_t>& buffer, uint64_t maxBytes)
{
    if (!m_impl->isValid())
    {
        buffer.clear();
        return ReadResult::kRequestFailed;
    }
    return m_reader->next(buffer, maxBytes);
}

bool HSPCImporter::convertBatch(HSPCBuffer<uint8_t>& input, HSPCBuffer<uint8_t>& output) const
{
    const uint32_t recordSize = rawRecordSize();
    if (!m_impl->isValid() || input.size() % recordSize != 0)
    {
        reportTo(m_impl->config().errorLogger, "HSPCImporter: a batch of " + std::to_string(input.size()) +
                                                   " bytes is not whole records of " + std::to_string(recordSize) +
                                                   " bytes.");
        return false;
    }
    if (m_impl->passesRecordsThrough())
    {
        output = std::move(input);
        input.clear();
        return true;
    }
    const uint64_t count = input.size() / recordSize;
    output.resize(size_t(count) * encodedRecordSize());
    return m_impl->encodeRecords(input.data(), count, output.data());
}

uint32_t HSPCImporter::rawRecordSize() const
{
    return m_impl->rawRecordSize();
}

uint32_t HSPCImporter::encodedRecordSize() const
{
    return m_impl->isValid() ? m_impl->encodedRecordSize() : 0;
}

}  // namespace HSPC
