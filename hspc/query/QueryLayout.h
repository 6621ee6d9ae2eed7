// The record a query delivers: which stored attribute fills which bytes, in which form. An action's code is
// the output type of a plain attribute (0 to 9) or one of the position forms below; an attribute the data
// set lacks has no source and is zero.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "hspc/format/Attribute.h"
#include "hspc/format/NodeDecompressor.h"

namespace HSPC
{

namespace query_action
{
enum Code : uint8_t
{
    kCopyM96 = 10,
    kCopyM192 = 11,
    kIntegerI32 = 13,
    kIntegerI64 = 14,
    kRealF32 = 15,
    kRealF64 = 16,
    kAxisX = 19,
    kAxisY = 20,
    kAxisZ = 21,
    kNoSource = 23,
};
}  // namespace query_action

inline constexpr uint32_t kNoSourceAttribute = UINT32_MAX;

// One output field: the stored attribute it comes from (kNoSourceAttribute for none), where it goes, how.
struct QueryAction
{
    uint32_t source = kNoSourceAttribute;
    uint32_t offset = 0;
    uint8_t code = 0;
};

struct QueryLayout
{
    std::vector<Attribute> attributes;
    std::vector<QueryAction> actions;
    uint32_t recordSize = 0;
    // The position type the record asks for (6 to 11); single axes count as F64.
    uint8_t positionType = AttributeType::UNDEFINED;
};

// Bytes that an action of `code` writes; 0 for a code no action has.
uint32_t actionOutputSize(uint8_t code);

// Whether stored positions of `storedType` can be delivered as `positionType`: 6 to 11, with I32 only from
// M96 and I64 only from M192.
bool positionTypeFits(uint8_t positionType, uint8_t storedType);

// Matches `requested` to the `stored` attributes of a data set. False with the message in `error` when the
// position is missing or of no valid type, or an attribute's stored type can't be widened to the requested.
bool computeActions(const std::vector<Attribute>& requested, const std::vector<Attribute>& stored,
                    QueryLayout& layout, std::string& error);

// The layout of the records as stored: the Morton position and every attribute in its own type.
QueryLayout storedLayout(const std::vector<Attribute>& stored);

}  // namespace HSPC
