// Raw sorts of generated points for the distribution's tests: records of a 32-bit Morton position and the
// point's number (16 bytes, the encoded layout itself), from positions that a function gives by number.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <utility>

#include "hspc/convert/Importer.h"
#include "hspc/format/MortonIndex3D.h"
#include "hspc/format/RuntimeConfig.h"

namespace pcp_test
{

inline constexpr uint32_t kMortonRecordSize = 16;
using GeneratedPosition = std::array<int32_t, 3>;

// Well-mixed bits of a number, for positions that look random but are the same in every run.
inline uint64_t mixedBits(uint64_t value)
{
    uint64_t h = value * 0x9E3779B97F4A7C15ull;
    h ^= h >> 31;
    h *= 0x94D049BB133111EBull;
    return h ^ (h >> 29);
}

// In blocks of 2048 points close together (within 2^12 cells a side), the blocks anywhere in a cube of 2^20
// cells a side, as a scanner's stream comes.
inline GeneratedPosition blockPosition(uint64_t id)
{
    GeneratedPosition p;
    for (unsigned axis = 0; axis < 3; ++axis)
    {
        const uint64_t block = mixedBits((id / 2048 + 1) * 3 + axis);
        const uint64_t inBlock = mixedBits((id + 1) * 3 + axis);
        p[axis] = int32_t(block % (1u << 20)) - (1 << 19) + int32_t(inBlock % (1u << 12));
    }
    return p;
}

// Delivers the points numbered [first, first + count).
class GeneratedMortonImporter : public HSPC::Importer
{
public:
    GeneratedMortonImporter(uint64_t first, uint64_t count, std::function<GeneratedPosition(uint64_t)> positionOf)
        : m_next(first), m_end(first + count), m_positionOf(std::move(positionOf))
    {
    }

    HSPC::ReadResult readBatch(HSPC::HSPCBuffer<uint8_t>& buffer, uint64_t maxBytes) override
    {
        const uint64_t count = std::min(m_end - m_next, maxBytes / kMortonRecordSize);
        if (count == 0)
        {
            return HSPC::ReadResult::kEnd;
        }
        buffer = HSPC::HSPCBuffer<uint8_t>(count * kMortonRecordSize);
        for (uint64_t i = 0; i < count; ++i, ++m_next)
        {
            const GeneratedPosition p = m_positionOf(m_next);
            const HSPC::MortonIndex3D<uint32_t> code = HSPC::encodeMortonSigned<uint32_t>(p[0], p[1], p[2]);
            const uint32_t id = uint32_t(m_next);
            std::memcpy(buffer.data() + i * kMortonRecordSize, code.words.data(), 12);
            std::memcpy(buffer.data() + i * kMortonRecordSize + 12, &id, 4);
        }
        return HSPC::ReadResult::kData;
    }
    bool convertBatch(HSPC::HSPCBuffer<uint8_t>& batch, HSPC::HSPCBuffer<uint8_t>& output) const override
    {
        output = std::move(batch);
        return true;
    }
    std::array<double, 3> origin() const override { return {0.0, 0.0, 0.0}; }
    std::array<double, 3> scale() const override { return {1.0, 1.0, 1.0}; }

private:
    uint64_t m_next;
    uint64_t m_end;
    std::function<GeneratedPosition(uint64_t)> m_positionOf;
};

// A raw sort of such records into `tempPath` on two workers, two input threads and two temp writers, with
// batches of `batchBytes` and the given target memory.
inline void setUpMortonRecordSort(HSPC::RuntimeConfig& config, const std::string& tempPath, uint64_t batchBytes,
                                  uint64_t targetMemory)
{
    using namespace HSPC;
    config.batchSize = batchBytes;
    config.targetMemory = targetMemory;
    config.workerCount = 2;
    config.reservedThreads = 2;
    config.tempWriterCount = 2;
    config.encodingAttributes = {
        {MortonIndex3D<uint32_t>::kAttributeTypeCode, AttributeRole::POSITION, "POSITION"},
        {AttributeType::U32, AttributeRole::CUSTOM, "id"}};
    config.inputAttributes = config.encodingAttributes;
    config.inputRecordSize = config.encodedRecordSize = kMortonRecordSize;
    config.scale = {1.0, 1.0, 1.0};
    config.tempPath = tempPath;
    setTempPrefixes(config, 3);
}

}  // namespace pcp_test
