// The "attribute-description" member of a client's JSON: which attributes the client wants statistics for,
// with fixed bounds, histogram sizes, encoding parameters and value labels. Each entry looks like
//
//   {"attribute": {"name": "...", "role": "INTENSITY", "type": "U16"},
//    "scale": 1.0, "offset": 0.0, "min": 0, "max": 65535,
//    "histogram": {"min": 0, "max": 65535, "distribution": [0, 0, 0, 0]},
//    "mapping": [{"id": 2, "name": "ground"}]}
//
// and only "attribute" is required.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "hspc/format/Attribute.h"
#include "hspc/format/Loggers.h"

namespace HSPC
{

// What statistics to gather for one attribute during a conversion.
struct HistogramSpec
{
    uint8_t role = AttributeRole::CUSTOM;
    uint8_t type = AttributeType::UNDEFINED;
    std::string name;
    // Bounds the client fixed; without them the data's own min and max are used.
    double min = 0.0;
    double max = 0.0;
    // Buckets asked for; 0 means no histogram.
    uint16_t bucketCount = 0;
    bool hasMin = false;
    bool hasMax = false;
};

// A code of an enumerated attribute with its label, e.g. a classification.
struct ValueLabel
{
    int64_t id = 0;
    std::string name;
};

struct AttributeDescription
{
    HistogramSpec histogram;
    std::optional<double> scale;
    std::optional<double> offset;
    std::vector<ValueLabel> mapping;
};

// Parses the "attribute-description" array of `jsonText`; an empty text or one without that member describes
// nothing. The first malformed entry is reported on `errorLogger` and ends the parse with false. Histogram
// bounds given as numbers fix the bounds; the entry's own "min" and "max" fix them when the histogram does
// not. Distributions longer than 65535 buckets are cut to that length.
bool parseAttributeDescription(const std::string& jsonText, const LogFunction& errorLogger,
                               std::vector<AttributeDescription>& descriptions);

}  // namespace HSPC
