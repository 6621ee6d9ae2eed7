// Makes an importer's records into encoded records of the target's attribute list. The translation is worked
// out once, as a list of actions (computeActions), and then run for every point of every batch
// (encodePoints). The helper is configured on one thread and then only read, so that the converter's workers
// may encode batches of one importer at the same time.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "hspc/convert/BinaryImporterHelper.h"
#include "hspc/convert/ConversionAction.h"
#include "hspc/convert/SourceDescription.h"
#include "hspc/format/Attribute.h"
#include "hspc/format/Config.h"
#include "hspc/format/Loggers.h"

namespace HSPC
{

// What the encoded records must look like: the encoding attributes, first the position as an M96 code, and
// the integer grid that the position is on. At most one of the two transformations may be set; both work on
// real positions before they are put on the grid. They are called from several threads at once.
struct EncodingTarget
{
    std::vector<EncodingAttribute> attributes;
    std::array<double, 3> origin{};
    std::array<double, 3> scale{};
    PointTransformation transformation;
    BufferTransformation transformAll;
};

// Values that the helper adds to every point rather than taking them from the source.
struct EncodingFlags
{
    // A FILE_POINT_ID attribute of the target numbers the points of the source, from 0.
    bool addFilePointId = false;
    // An INPUT_FILE_ID attribute of the target holds inputFileId.
    bool addInputFileId = false;
    uint64_t inputFileId = 0;
};

// How far a colour comes down from the source's depth to the target's. A source's depth follows from the
// largest value it uses, or else from its size; a target's from its default value, which is the white of
// its depth (255.0 or 65535.0), or else from its size.
struct ColorShift
{
    uint8_t sourceBits = 0;
    uint8_t targetBits = 0;

    uint8_t shift() const { return sourceBits > targetBits ? uint8_t(sourceBits - targetBits) : 0; }
    // Source values above this are capped before the shift: the source's white when a shift is due.
    uint32_t maxColor() const
    {
        if (shift() == 0)
        {
            return 65535;
        }
        return sourceBits >= 32 ? 0xffffffffu : (uint32_t(1) << sourceBits) - 1;
    }
};

ColorShift colorShift(const SourceAttribute& source, const EncodingAttribute& target);

// The outcome of computeActions: the action list and what the position step needs beside it.
struct ActionPlan
{
    std::vector<ConversionAction> actions;
    // Type of the source's coordinates; M96 when the source brings the Morton code itself.
    uint8_t positionType = AttributeType::UNDEFINED;
    // Offsets of x, y and z in a source record.
    std::array<uint16_t, 3> axisOffsets{};
    // The source's grid: real = stored * scale + offset, per axis.
    std::array<double, 3> sourceScale{1.0, 1.0, 1.0};
    std::array<double, 3> sourceOffset{};
    uint32_t sourceRecordSize = 0;
    uint32_t targetRecordSize = 0;
};

class EncodingImporterHelper
{
public:
    EncodingImporterHelper(LogFunction errorLogger, SourceDescription source);

    // Takes over the target and computes the actions. False, with the reason on the error logger, when the
    // target is unusable or the source cannot be made into it; the helper then encodes nothing.
    bool setEncodingParameters(const EncodingTarget& target, const EncodingFlags& flags);
    // Works out the action list that makes records of `source` into records of `target`, with the flags of
    // the last setEncodingParameters.
    bool computeActions(const SourceDescription& source, const std::vector<EncodingAttribute>& target);
    // Encodes `pointCount` source records into `target`, which must hold pointCount * targetRecordSize()
    // bytes. The first point is number `firstPointNumber` of its source. On false the target's bytes are
    // undefined.
    bool encodePoints(const uint8_t* source, uint64_t pointCount, uint8_t* target,
                      uint64_t firstPointNumber = 0) const;

    bool isValid() const { return m_valid; }
    const std::vector<ConversionAction>& actions() const { return m_plan.actions; }
    uint32_t sourceRecordSize() const { return m_plan.sourceRecordSize; }
    uint32_t targetRecordSize() const { return m_plan.targetRecordSize; }
    const std::array<double, 3>& origin() const { return m_origin; }
    const std::array<double, 3>& scale() const { return m_scale; }

private:
    template <typename T>
    bool encodeRecords(const uint8_t* source, uint64_t pointCount, uint8_t* target,
                       uint64_t firstPointNumber) const;

    LogFunction m_errorLogger;
    SourceDescription m_source;
    std::vector<EncodingAttribute> m_target;
    std::array<double, 3> m_origin{};
    std::array<double, 3> m_scale{};
    EncodingFlags m_flags;
    PointTransformation m_transformation;
    BufferTransformation m_transformAll;
    bool m_valid = false;
    ActionPlan m_plan;
    BinaryImporterHelper m_interpreter;
};

}  // namespace HSPC
