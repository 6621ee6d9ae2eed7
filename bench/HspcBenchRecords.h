// Raw records for the HSPC converter's benchmarks: random positions within 500 m of the origin and random
// colours and intensities, with the description the binary record importer reads them by, and the target
// they are encoded to (millimetre grid, 8-bit colours, intensity).
#pragma once

#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "hspc/convert/EncodingImporterHelper.h"

namespace pcp_bench
{

// x, y, z as F64 in metres, then R, G, B and intensity as U16: 32 bytes a record.
inline constexpr const char* kDescription = R"({"attribute-description": [
    {"attribute": {"name": "X", "role": "X", "type": "F64"}},
    {"attribute": {"name": "Y", "role": "Y", "type": "F64"}},
    {"attribute": {"name": "Z", "role": "Z", "type": "F64"}},
    {"attribute": {"name": "Red", "role": "R", "type": "U16"}},
    {"attribute": {"name": "Green", "role": "G", "type": "U16"}},
    {"attribute": {"name": "Blue", "role": "B", "type": "U16"}},
    {"attribute": {"name": "Intensity", "role": "INTENSITY", "type": "U16"}}]})";

inline std::shared_ptr<std::vector<uint8_t>> randomRecords(uint64_t count)
{
    std::mt19937_64 random(1);
    std::uniform_real_distribution<double> metres(-500.0, 500.0);
    auto bytes = std::make_shared<std::vector<uint8_t>>(count * 32);
    for (uint64_t point = 0; point < count; ++point)
    {
        uint8_t* record = bytes->data() + point * 32;
        const double xyz[3] = {metres(random), metres(random), metres(random)};
        const uint64_t bits = random();
        std::memcpy(record, xyz, 24);
        std::memcpy(record + 24, &bits, 8);
    }
    return bytes;
}

inline HSPC::EncodingTarget millimetreGrid()
{
    auto attribute = [](uint8_t type, uint8_t role, const char* name)
    {
        HSPC::EncodingAttribute encoding;
        encoding.attribute = HSPC::Attribute{type, role, name};
        return encoding;
    };
    HSPC::EncodingTarget target;
    target.attributes = {attribute(HSPC::AttributeType::M96, HSPC::AttributeRole::POSITION, "POSITION"),
                         attribute(HSPC::AttributeType::U8, HSPC::AttributeRole::R, "Red"),
                         attribute(HSPC::AttributeType::U8, HSPC::AttributeRole::G, "Green"),
                         attribute(HSPC::AttributeType::U8, HSPC::AttributeRole::B, "Blue"),
                         attribute(HSPC::AttributeType::U16, HSPC::AttributeRole::INTENSITY, "Intensity")};
    target.scale = {0.001, 0.001, 0.001};
    return target;
}

}  // namespace pcp_bench
