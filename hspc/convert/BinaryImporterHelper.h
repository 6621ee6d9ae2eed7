// The interpreter of an action list: runs it over one source record and writes one encoded record.
#pragma once

#include <cstdint>
#include <span>

#include "hspc/convert/ConversionAction.h"
#include "hspc/format/Loggers.h"
#include "hspc/format/MortonIndex3D.h"

namespace HSPC
{

// What a record's actions need beyond the record's own bytes.
struct RecordValues
{
    // Number of the point in its source: the value of a counter action.
    uint64_t pointNumber = 0;
    // The point's position on the target grid, worked out before the actions run, since a transformation
    // may have to see all positions of a batch first.
    MortonIndex3D<uint32_t> position;
};

class BinaryImporterHelper
{
public:
    // Elevations are real heights: the source's z times zScale plus zOffset.
    BinaryImporterHelper(LogFunction errorLogger, double zScale, double zOffset);

    // Runs `actions` over `record` and writes the encoded record at `cursor`, which it moves past the bytes
    // written. False, with the reason on the error logger, for an elevation of a type that is no float.
    bool convertPoints(std::span<const ConversionAction> actions, const uint8_t* record,
                       const RecordValues& values, uint8_t*& cursor) const;

private:
    bool writeElevation(const ConversionAction& action, const uint8_t* record, uint8_t* target) const;

    LogFunction m_errorLogger;
    double m_zScale;
    double m_zOffset;
};

// The bytes of `value` as a value of `type` (a number type), saturated to its range: how constants and
// defaults are stored.
uint64_t numberBytes(double value, uint8_t type);
// A number of any number type read as a double, and a double written as any number type, saturated.
double readNumber(const uint8_t* bytes, uint8_t type);

}  // namespace HSPC
