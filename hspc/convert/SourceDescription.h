// What an importer's own records hold, attribute by attribute, in record order: the layout that the encoding
// helper translates into the target's attribute list.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "hspc/format/Attribute.h"
#include "hspc/format/Loggers.h"

namespace HSPC
{

struct SourceAttribute
{
    Attribute attribute;
    // Bytes the value takes in a source record; the size of its type.
    uint32_t size = 0;
    // Real value = stored value * scale + offset; for coordinates, the source's grid.
    double scale = 1.0;
    double offset = 0.0;
    // Empty when the source does not say; then it is not compared with the target's unit.
    std::string unit;
    // The largest value the source uses, when known: a colour's depth follows from it.
    std::optional<double> max;
};

using SourceDescription = std::vector<SourceAttribute>;

SourceAttribute makeSourceAttribute(uint8_t type, uint8_t role, std::string name, double scale = 1.0,
                                    double offset = 0.0);

// Reads a source description from the "attribute-description" member of a JSON text, one entry per
// attribute in record order, e.g.
//
//   {"attribute-description": [
//      {"attribute": {"name": "X", "role": "X", "type": "I32"}, "scale": 0.001, "offset": 1000.0},
//      ...,
//      {"attribute": {"name": "Red", "role": "R", "type": "U16"}, "max": 4095}]}
//
// Entries without an "attribute" object are not attributes and are passed over. False, with the reason on
// the error logger, for a text that cannot be parsed, an entry with an unknown role or type, or a text that
// describes no attribute.
bool parseSourceDescription(const std::string& jsonText, const LogFunction& errorLogger,
                            SourceDescription& description);

// Bytes of one source record: the sum of the attribute sizes.
uint32_t sourceRecordSize(const SourceDescription& description);

}  // namespace HSPC
