// Every input of the converter is an Importer: the converter's input threads read raw batches from it, one
// thread per importer at a time, and its workers have each batch converted to the encoded attribute layout,
// several batches of one importer at once. readBatch therefore may keep a read position; convertBatch must
// not change the importer.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "hspc/format/Attribute.h"
#include "hspc/format/TrackedMemory.h"

namespace HSPC
{

// The answer to a request for points; the values are the ones the converter's readers test.
enum class ReadResult : uint8_t
{
    kData = 0,           // the buffer holds a batch, and more may follow
    kRequestFailed = 1,  // the buffer cannot take one point, or the source could not be read
    kEnd = 2,            // nothing is left; the buffer holds nothing
};

class Importer
{
public:
    virtual ~Importer();

    // Reads one batch of at most `maxBytes` bytes into `points`, through readBatch; `points` is only
    // changed when the answer is kData.
    virtual ReadResult readPoints(std::vector<uint8_t>& points, uint64_t maxBytes);
    // Reads one batch of at most `maxBytes` bytes into `buffer`, replacing what it held.
    virtual ReadResult readBatch(HSPCBuffer<uint8_t>& buffer, uint64_t maxBytes) = 0;
    // Converts a batch that readPoints gave into encoded records, through convertBatch.
    virtual bool convertPoints(const std::vector<uint8_t>& input, std::vector<uint8_t>& output) const;
    // Converts a batch that readBatch gave into encoded records in `output`; may take `input` over. An
    // importer that cannot convert moves the input unchanged into `output` and answers false.
    virtual bool convertBatch(HSPCBuffer<uint8_t>& input, HSPCBuffer<uint8_t>& output) const;
    // The integer grid of the converted records: real = integer * scale + origin.
    virtual std::array<double, 3> origin() const = 0;
    virtual std::array<double, 3> scale() const = 0;
};

// What most importers know of their input: its attributes, its grid and how many points it holds.
class ImporterBase : public Importer
{
public:
    ImporterBase(std::vector<Attribute> attributes, std::array<double, 3> origin, std::array<double, 3> scale,
                 uint64_t pointCount);

    std::array<double, 3> origin() const override { return m_origin; }
    std::array<double, 3> scale() const override { return m_scale; }
    const std::vector<Attribute>& attributes() const { return m_attributes; }
    uint64_t pointCount() const { return m_pointCount; }

private:
    std::vector<Attribute> m_attributes;
    std::array<double, 3> m_origin;
    std::array<double, 3> m_scale;
    uint64_t m_pointCount;
};

}  // namespace HSPC
