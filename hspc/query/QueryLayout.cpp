#include "hspc/query/QueryLayout.h"

namespace HSPC
{
namespace
{

constexpr const char* kEncodingMessage = "Process handler : error : something is wrong with the encoding.";
constexpr const char* kCastMessage =
    " QueryExecutor::updateAttributeLayout: error : final attributes have types which cannot be casted from "
    "types of source attributes.";

bool isAxisRole(uint8_t role)
{
    return role == AttributeRole::X || role == AttributeRole::Y || role == AttributeRole::Z;
}

uint8_t positionCode(uint8_t positionType)
{
    switch (positionType)
    {
        case AttributeType::I32:
            return query_action::kIntegerI32;
        case AttributeType::I64:
            return query_action::kIntegerI64;
        case AttributeType::F32:
            return query_action::kRealF32;
        case AttributeType::F64:
            return query_action::kRealF64;
        default:
            return positionType;  // M96 and M192: copied as stored
    }
}

// X, Y, Z of one coordinate type at `first`: the position as generateAttributeFormat spells it.
bool isAxisTriple(const std::vector<Attribute>& requested, size_t first)
{
    if (requested.size() < first + 3)
    {
        return false;
    }
    const uint8_t type = requested[first].type;
    return type >= AttributeType::I32 && type <= AttributeType::F64 &&
           requested[first].role == AttributeRole::X && requested[first + 1].role == AttributeRole::Y &&
           requested[first + 2].role == AttributeRole::Z && requested[first + 1].type == type &&
           requested[first + 2].type == type;
}

// The position actions at the head of `requested`; returns how many attributes they took, 0 for none.
size_t positionActions(const std::vector<Attribute>& requested, uint8_t storedType, QueryLayout& layout)
{
    const Attribute& first = requested.front();
    uint8_t type = AttributeType::UNDEFINED;
    size_t taken = 0;
    if (first.role == AttributeRole::POSITION)
    {
        type = first.type;
        taken = 1;
    }
    else if (isAxisTriple(requested, 0))
    {
        type = first.type;
        taken = 3;
    }
    else if (isAxisRole(first.role) && first.type == AttributeType::F64)
    {
        // Single axes: this one and any further F64 axis in the list.
        layout.positionType = AttributeType::F64;
        return 1;
    }
    // A Morton code is delivered only in the width it is stored in: codes of one width do not convert to the
    // other's, so describing such a record (getInfo) works but serving it does not.
    if (taken == 0 || !positionTypeFits(type, storedType) || (isMortonType(type) && type != storedType))
    {
        return 0;
    }
    layout.positionType = type;
    layout.actions.push_back({0, 0, positionCode(type)});
    return taken;
}

uint8_t singleAxisCode(uint8_t role)
{
    return uint8_t(query_action::kAxisX + (role - AttributeRole::X));
}

// Index of the stored attribute that plays the role of `wanted`, past the position; none when absent.
uint32_t sourceOf(const Attribute& wanted, const std::vector<Attribute>& stored)
{
    for (uint32_t i = 1; i < stored.size(); ++i)
    {
        if (stored[i] == wanted)
        {
            return i;
        }
    }
    return kNoSourceAttribute;
}

}  // namespace

uint32_t actionOutputSize(uint8_t code)
{
    switch (code)
    {
        case 0:
        case 4:
        case 22:
            return 1;
        case 1:
        case 5:
        case 12:
            return 2;
        case 2:
        case 6:
        case 8:
        case 17:
            return 4;
        case 3:
        case 7:
        case 9:
        case 18:
        case query_action::kAxisX:
        case query_action::kAxisY:
        case query_action::kAxisZ:
            return 8;
        case 10:
        case 13:
        case 15:
            return 12;
        case 11:
        case 14:
        case 16:
            return 24;
        default:
            return 0;
    }
}

bool positionTypeFits(uint8_t positionType, uint8_t storedType)
{
    if (positionType < AttributeType::I32 || positionType > AttributeType::M192)
    {
        return false;
    }
    if (positionType == AttributeType::I32)
    {
        return storedType == AttributeType::M96;
    }
    if (positionType == AttributeType::I64)
    {
        return storedType == AttributeType::M192;
    }
    return true;
}

bool computeActions(const std::vector<Attribute>& requested, const std::vector<Attribute>& stored,
                    QueryLayout& layout, std::string& error)
{
    QueryLayout result;
    if (requested.empty() || stored.empty() || !isMortonType(stored.front().type))
    {
        error = kEncodingMessage;
        return false;
    }
    const size_t positionCount = positionActions(requested, stored.front().type, result);
    if (positionCount == 0)
    {
        error = kEncodingMessage;
        return false;
    }
    uint32_t offset = result.actions.empty() ? 0 : actionOutputSize(result.actions.front().code);
    // Single axes start at the first attribute; a triple or a POSITION has been taken already.
    const size_t firstOther = result.actions.empty() ? 0 : positionCount;
    for (size_t i = firstOther; i < requested.size(); ++i)
    {
        const Attribute& wanted = requested[i];
        QueryAction action{kNoSourceAttribute, offset, query_action::kNoSource};
        if (isAxisRole(wanted.role))
        {
            if (wanted.type != AttributeType::F64)
            {
                error = kEncodingMessage;
                return false;
            }
            action = {0, offset, singleAxisCode(wanted.role)};
        }
        else if (const uint32_t source = sourceOf(wanted, stored); source != kNoSourceAttribute)
        {
            if (isMortonType(wanted.type) || !canWiden(stored[source].type, wanted.type))
            {
                error = kCastMessage;
                return false;
            }
            action = {source, offset, wanted.type};
        }
        const uint32_t size = action.code == query_action::kNoSource ? typeSize(wanted.type)
                                                                     : actionOutputSize(action.code);
        if (size == 0 || isMortonType(wanted.type))
        {
            error = kCastMessage;
            return false;
        }
        result.actions.push_back(action);
        offset += size;
    }
    result.attributes = requested;
    result.recordSize = offset;
    layout = std::move(result);
    return true;
}

QueryLayout storedLayout(const std::vector<Attribute>& stored)
{
    QueryLayout layout;
    layout.attributes = stored;
    layout.positionType = stored.empty() ? uint8_t(AttributeType::UNDEFINED) : stored.front().type;
    const std::vector<uint32_t> offsets = attributeOffsets(stored);
    for (uint32_t i = 0; i < stored.size(); ++i)
    {
        layout.actions.push_back({i, offsets[i], stored[i].type});
    }
    layout.recordSize = recordSize(stored);
    return layout;
}

}  // namespace HSPC
