#include "hspc/convert/BinaryRecordImporter.h"

#include <algorithm>
#include <utility>

#include "hspc/format/LittleEndian.h"

namespace HSPC
{

std::shared_ptr<BinaryRecordImporter> BinaryRecordImporter::create(const std::string& descriptionText,
                                                                   std::shared_ptr<RecordSource> source,
                                                                   const EncodingTarget& target,
                                                                   const EncodingFlags& flags,
                                                                   LogFunction errorLogger)
{
    SourceDescription description;
    if (!parseSourceDescription(descriptionText, errorLogger, description))
    {
        return nullptr;
    }
    return create(description, std::move(source), target, flags, std::move(errorLogger));
}

std::shared_ptr<BinaryRecordImporter> BinaryRecordImporter::create(const SourceDescription& description,
                                                                   std::shared_ptr<RecordSource> source,
                                                                   const EncodingTarget& target,
                                                                   const EncodingFlags& flags,
                                                                   LogFunction errorLogger)
{
    EncodingImporterHelper helper(errorLogger, description);
    if (!helper.setEncodingParameters(target, flags))
    {
        return nullptr;
    }
    const uint32_t recordSize = helper.sourceRecordSize();
    if (!source || recordSize == 0 || source->byteCount() % recordSize != 0)
    {
        errorLogger("BinaryRecordImporter: source of " + std::to_string(source ? source->byteCount() : 0) +
                    " bytes does not hold whole records of " + std::to_string(recordSize) + " bytes.");
        return nullptr;
    }
    std::vector<Attribute> attributes;
    for (const SourceAttribute& attribute : description)
    {
        attributes.push_back(attribute.attribute);
    }
    const uint64_t pointCount = source->byteCount() / recordSize;
    return std::shared_ptr<BinaryRecordImporter>(
        new BinaryRecordImporter(std::move(attributes), target, pointCount, std::move(helper),
                                 std::move(source), std::move(errorLogger)));
}

BinaryRecordImporter::BinaryRecordImporter(std::vector<Attribute> attributes, const EncodingTarget& target,
                                           uint64_t pointCount, EncodingImporterHelper helper,
                                           std::shared_ptr<RecordSource> source, LogFunction errorLogger)
    // Converted records lie on the target's grid, so that is the grid this importer reports.
    : ImporterBase(std::move(attributes), target.origin, target.scale, pointCount),
      m_helper(std::move(helper)),
      m_source(std::move(source)),
      m_errorLogger(std::move(errorLogger))
{
}

ReadResult BinaryRecordImporter::readBatch(HSPCBuffer<uint8_t>& buffer, uint64_t maxBytes)
{
    buffer.clear();
    const uint64_t remaining = pointCount() - m_nextRecord;
    if (remaining == 0)
    {
        return ReadResult::kEnd;
    }
    const uint64_t recordSize = sourceRecordSize();
    if (maxBytes < kBatchHeaderSize + recordSize)
    {
        m_errorLogger("BinaryRecordImporter: a batch of " + std::to_string(maxBytes) +
                      " bytes cannot take one record of " + std::to_string(recordSize) + " bytes.");
        return ReadResult::kRequestFailed;
    }
    const uint64_t count = std::min(remaining, (maxBytes - kBatchHeaderSize) / recordSize);
    buffer.resize(kBatchHeaderSize + count * recordSize);
    little_endian::store<uint64_t>(buffer.data(), m_nextRecord);
    if (!m_source->read(m_nextRecord * recordSize, count * recordSize, buffer.data() + kBatchHeaderSize,
                        m_errorLogger))
    {
        buffer.clear();
        return ReadResult::kRequestFailed;
    }
    m_nextRecord += count;
    return ReadResult::kData;
}

bool BinaryRecordImporter::convertBatch(HSPCBuffer<uint8_t>& input, HSPCBuffer<uint8_t>& output) const
{
    const uint64_t recordSize = sourceRecordSize();
    if (input.size() < kBatchHeaderSize || (input.size() - kBatchHeaderSize) % recordSize != 0)
    {
        m_errorLogger("BinaryRecordImporter: a batch of " + std::to_string(input.size()) +
                      " bytes is not a batch header and whole records of " + std::to_string(recordSize) +
                      " bytes.");
        return false;
    }
    const uint64_t count = (input.size() - kBatchHeaderSize) / recordSize;
    output.resize(count * encodedRecordSize());
    return m_helper.encodePoints(input.data() + kBatchHeaderSize, count, output.data(),
                                 little_endian::load<uint64_t>(input.data()));
}

}  // namespace HSPC
