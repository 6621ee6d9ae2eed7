// An importer of raw binary records: fixed-size records laid out as a source description says, from memory
// or a file. It hands out the records as they are and has the converter's workers encode them.
//
// A raw batch, as readBatch gives it:
//
//   offset  size            field
//   0       8               number of the batch's first record in the source, unsigned, little-endian
//   8       n * record size the records as the source holds them
//
// The number travels with the batch so that workers converting batches out of order still number each
// point by its place in the source.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "hspc/convert/EncodingImporterHelper.h"
#include "hspc/convert/Importer.h"
#include "hspc/convert/RecordSource.h"
#include "hspc/convert/SourceDescription.h"

namespace HSPC
{

class BinaryRecordImporter : public ImporterBase
{
public:
    static constexpr uint64_t kBatchHeaderSize = 8;

    // Nothing, with the reason on `errorLogger`, when the description cannot be read, the source does not
    // hold whole records, or the records cannot be made into the target's.
    static std::shared_ptr<BinaryRecordImporter> create(const SourceDescription& description,
                                                        std::shared_ptr<RecordSource> source,
                                                        const EncodingTarget& target,
                                                        const EncodingFlags& flags, LogFunction errorLogger);
    // The same with the description as an "attribute-description" text.
    static std::shared_ptr<BinaryRecordImporter> create(const std::string& descriptionText,
                                                        std::shared_ptr<RecordSource> source,
                                                        const EncodingTarget& target,
                                                        const EncodingFlags& flags, LogFunction errorLogger);

    ReadResult readBatch(HSPCBuffer<uint8_t>& buffer, uint64_t maxBytes) override;
    bool convertBatch(HSPCBuffer<uint8_t>& input, HSPCBuffer<uint8_t>& output) const override;

    uint32_t sourceRecordSize() const { return m_helper.sourceRecordSize(); }
    uint32_t encodedRecordSize() const { return m_helper.targetRecordSize(); }

private:
    BinaryRecordImporter(std::vector<Attribute> attributes, const EncodingTarget& target, uint64_t pointCount,
                         EncodingImporterHelper helper, std::shared_ptr<RecordSource> source,
                         LogFunction errorLogger);

    EncodingImporterHelper m_helper;
    std::shared_ptr<RecordSource> m_source;
    LogFunction m_errorLogger;
    uint64_t m_nextRecord = 0;
};

}  // namespace HSPC
