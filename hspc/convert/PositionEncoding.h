// Replacing the x, y, z at the start of each record of a batch by the Morton code of the point's cell.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "hspc/format/TrackedMemory.h"

namespace HSPC
{

// Where a batch's positions are and what they become.
//
//   source record:   x, y, z (coordinateType each) | other attributes
//   encoded record:  Morton code (3 * sizeof(W))   | the same other attributes
struct PositionLayout
{
    // The attribute type code of the coordinates: U32, U64, I32, I64, F32 or F64.
    uint8_t coordinateType;
    uint32_t sourceRecordSize;
    uint32_t encodedRecordSize;
    // The data set's grid: cell = round((v - origin) / scale), halves away from zero.
    std::array<double, 3> origin{}, scale{};
};

// Encodes every record of `records` as the layout says: in place when the encoded record is no larger than
// the source record, through a second buffer that then replaces `records` otherwise. Returns nothing on
// success, else the reason; `records` is then unchanged.
template <typename W>
std::optional<std::string> encodePosition(HSPCBuffer<uint8_t>& records, const PositionLayout& layout);

extern template std::optional<std::string> encodePosition<uint32_t>(HSPCBuffer<uint8_t>&,
                                                                    const PositionLayout&);
extern template std::optional<std::string> encodePosition<uint64_t>(HSPCBuffer<uint8_t>&,
                                                                    const PositionLayout&);

}  // namespace HSPC
