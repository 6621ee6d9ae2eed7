// Min, max and histograms of the attributes a client asked about, gathered while points stream through a
// conversion. Each worker owns one instance and merges it into a shared one when it is done:
//
//   1. initialize from the encoding attributes and the client's histogram requests;
//   2. addRange over every batch, mergeRange across workers;
//   3. beginHistograms once the ranges are known, which sizes the buckets;
//   4. addToHistograms over every node, mergeHistograms across workers.
//
// The per-batch calls do not allocate.
#pragma once

#include <cstdint>
#include <variant>
#include <vector>

#include "hspc/format/Attribute.h"
#include "hspc/format/AttributeDescription.h"
#include "hspc/format/Loggers.h"

namespace HSPC
{

// A value of a scalar attribute type, held in the widest type of its kind (unsigned, signed, float).
using ScalarValue = std::variant<uint64_t, int64_t, double>;

double toDouble(const ScalarValue& value);

struct AttributeRange
{
    Attribute attribute;
    // Byte offset of the value inside a point record.
    uint32_t offset = 0;
    HistogramSpec request;
    // Of the values seen so far; meaningful once valueCount is non-zero.
    ScalarValue min;
    ScalarValue max;
    uint64_t valueCount = 0;
    // Bounds the buckets span, fixed by beginHistograms: the request's where given, else the data's.
    double histogramMin = 0.0;
    double histogramMax = 0.0;
    // One count per bucket; values outside the bounds, and NaN, fall into none.
    std::vector<uint64_t> distribution;
};

class AttributeStatistics
{
public:
    // Tracks min and max of every attribute of `attributes` with a scalar type, in list order: the tree's
    // header lists them all, and an importer of the data set reads them back. A request that names an
    // attribute (by role, and by name for CUSTOM) with a histogram or fixed bounds adds its histogram. Fails
    // when a request names an attribute without a scalar type, such as the position.
    bool initialize(const std::vector<Attribute>& attributes, const std::vector<HistogramSpec>& requests,
                    const LogFunction& errorLogger);

    // `records` holds `count` point records of the layout given to initialize.
    void addRange(const uint8_t* records, uint64_t count);
    bool mergeRange(const AttributeStatistics& other, const LogFunction& errorLogger);

    bool beginHistograms(const LogFunction& errorLogger);
    void addToHistograms(const uint8_t* records, uint64_t count);
    bool mergeHistograms(const AttributeStatistics& other, const LogFunction& errorLogger);

    const std::vector<AttributeRange>& ranges() const { return m_ranges; }
    // The range of the same attribute (Attribute's equality); null when it is not tracked.
    const AttributeRange* find(const Attribute& attribute) const;

private:
    bool sameLayout(const AttributeStatistics& other, const LogFunction& errorLogger) const;

    uint32_t m_recordSize = 0;
    std::vector<AttributeRange> m_ranges;
};

}  // namespace HSPC
