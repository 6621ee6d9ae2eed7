#include "hspc/format/Attribute.h"

#include <array>
#include <cstdio>
#include <span>

namespace HSPC
{
namespace
{

struct RoleName
{
    uint8_t code;
    std::string_view name;
};

constexpr auto kRoleNames = std::to_array<RoleName>({
    {AttributeRole::POSITION, "POSITION"},
    {AttributeRole::X, "X"},
    {AttributeRole::Y, "Y"},
    {AttributeRole::Z, "Z"},
    {AttributeRole::R, "R"},
    {AttributeRole::G, "G"},
    {AttributeRole::B, "B"},
    {AttributeRole::NIR, "NIR"},
    {AttributeRole::INTENSITY, "INTENSITY"},
    {AttributeRole::CLASSIFICATION, "CLASSIFICATION"},
    {AttributeRole::RETURN, "RETURN"},
    {AttributeRole::TIMESTAMP, "TIMESTAMP"},
    {AttributeRole::SCAN_ANGLE, "SCAN_ANGLE"},
    {AttributeRole::POINT_SOURCE_ID, "POINT_SOURCE_ID"},
    {AttributeRole::WAVE_PACKET_DESCRIPTOR_INDEX, "WAVE_PACKET_DESCRIPTOR_INDEX"},
    {AttributeRole::BYTE_OFFSET_TO_WAVEFORM_DATA, "BYTE_OFFSET_TO_WAVEFORM_DATA"},
    {AttributeRole::WAVEFORM_PACKET_SIZE, "WAVEFORM_PACKET_SIZE"},
    {AttributeRole::RETURN_POINT_WAVEFORM_LOCATION, "RETURN_POINT_WAVEFORM_LOCATION"},
    {AttributeRole::Xt, "Xt"},
    {AttributeRole::Yt, "Yt"},
    {AttributeRole::Zt, "Zt"},
    {AttributeRole::NormalX, "NormalX"},
    {AttributeRole::NormalY, "NormalY"},
    {AttributeRole::NormalZ, "NormalZ"},
    {AttributeRole::SCAN_INDEX, "SCAN_INDEX"},
    {AttributeRole::ELEVATION, "ELEVATION"},
    {AttributeRole::CORRECTION_X, "CORRECTION_X"},
    {AttributeRole::CORRECTION_Y, "CORRECTION_Y"},
    {AttributeRole::CORRECTION_Z, "CORRECTION_Z"},
    {AttributeRole::RNSE, "RNSE"},
    {AttributeRole::RNNR, "RNNR"},
    {AttributeRole::CSSE, "CSSE"},
    {AttributeRole::USER_DATA, "USER_DATA"},
    {AttributeRole::NUMBER_OF_RETURNS, "NUMBER_OF_RETURNS"},
    {AttributeRole::SCAN_DIRECTION, "SCAN_DIRECTION"},
    {AttributeRole::SCANNER_CHANNEL, "SCANNER_CHANNEL"},
    {AttributeRole::EDGE_OF_FLIGHT_LINE, "EDGE_OF_FLIGHT_LINE"},
    {AttributeRole::CLASSIFICATION_FLAGS, "CLASSIFICATION_FLAGS"},
    {AttributeRole::CUSTOM, "CUSTOM"},
    {AttributeRole::INPUT_FILE_ID, "INPUT_FILE_ID"},
    {AttributeRole::FILE_POINT_ID, "FILE_POINT_ID"},
});

// Further spellings that clients and older files use; parsed, never printed.
constexpr auto kRoleAliases = std::to_array<RoleName>({
    {AttributeRole::R, "RED"},
    {AttributeRole::G, "GREEN"},
    {AttributeRole::B, "BLUE"},
    {AttributeRole::INTENSITY, "I"},
    {AttributeRole::CLASSIFICATION, "C"},
    {AttributeRole::RETURN, "RETURN_NUMBER"},
    {AttributeRole::TIMESTAMP, "T"},
    {AttributeRole::TIMESTAMP, "GPS_TIMESTAMP"},
    {AttributeRole::Xt, "XT"},
    {AttributeRole::Yt, "YT"},
    {AttributeRole::Zt, "ZT"},
    {AttributeRole::NormalX, "NORMALX"},
    {AttributeRole::NormalY, "NORMALY"},
    {AttributeRole::NormalZ, "NORMALZ"},
});

struct TypeInfo
{
    std::string_view name;
    uint32_t size;
};

constexpr std::array<TypeInfo, AttributeType::UNDEFINED> kTypes = {{
    {"U8", 1},
    {"U16", 2},
    {"U32", 4},
    {"U64", 8},
    {"I8", 1},
    {"I16", 2},
    {"I32", 4},
    {"I64", 8},
    {"F32", 4},
    {"F64", 8},
    {"M96", 12},
    {"M192", 24},
}};

}  // namespace

bool isUnsignedInteger(uint8_t type)
{
    return type <= AttributeType::U64;
}
bool isSignedInteger(uint8_t type)
{
    return type >= AttributeType::I8 && type <= AttributeType::I64;
}
bool isFloat(uint8_t type)
{
    return type == AttributeType::F32 || type == AttributeType::F64;
}

bool isCoordinateType(uint8_t type)
{
    return type == AttributeType::U32 || type == AttributeType::U64 || type == AttributeType::I32 ||
           type == AttributeType::I64 || isFloat(type);
}

std::string getRoleName(uint8_t role)
{
    for (const RoleName& entry : kRoleNames)
    {
        if (entry.code == role)
        {
            return std::string(entry.name);
        }
    }
    return {};
}

bool parseRole(std::string_view text, uint8_t& role)
{
    for (const auto& table : {std::span<const RoleName>(kRoleNames), std::span<const RoleName>(kRoleAliases)})
    {
        for (const RoleName& entry : table)
        {
            if (entry.name == text)
            {
                role = entry.code;
                return true;
            }
        }
    }
    return false;
}

std::string getTypeName(uint8_t type)
{
    return type < kTypes.size() ? std::string(kTypes[type].name) : std::string("undefined");
}

bool parseType(std::string_view text, uint8_t& type)
{
    for (uint8_t code = 0; code < kTypes.size(); ++code)
    {
        if (kTypes[code].name == text)
        {
            type = code;
            return true;
        }
    }
    if (text == "F" || text == "D")
    {
        type = text == "F" ? AttributeType::F32 : AttributeType::F64;
        return true;
    }
    return false;
}

uint32_t typeSize(uint8_t type)
{
    return type < kTypes.size() ? kTypes[type].size : 0;
}

bool isMortonType(uint8_t type)
{
    return type == AttributeType::M96 || type == AttributeType::M192;
}

bool canWiden(uint8_t from, uint8_t to)
{
    if (from == to)
    {
        return true;
    }
    if (isFloat(to))
    {
        // Every integer and either float may become a float: range, not precision, is what counts here.
        return isUnsignedInteger(from) || isSignedInteger(from) || isFloat(from);
    }
    if (isUnsignedInteger(from) && isUnsignedInteger(to))
    {
        return typeSize(to) > typeSize(from);
    }
    if (isSignedInteger(from) && isSignedInteger(to))
    {
        return typeSize(to) > typeSize(from);
    }
    return false;
}

uint32_t recordSize(const std::vector<Attribute>& attributes)
{
    uint32_t size = 0;
    for (const Attribute& attribute : attributes)
    {
        size += typeSize(attribute.type);
    }
    return size;
}

std::vector<uint32_t> attributeOffsets(const std::vector<Attribute>& attributes)
{
    std::vector<uint32_t> offsets;
    offsets.reserve(attributes.size());
    uint32_t offset = 0;
    for (const Attribute& attribute : attributes)
    {
        offsets.push_back(offset);
        offset += typeSize(attribute.type);
    }
    return offsets;
}

bool generateAttributeFormat(uint8_t positionType, const std::vector<Attribute>& source,
                             std::vector<Attribute>& out, uint32_t& size)
{
    if (source.empty() || !isMortonType(source.front().type))
    {
        return false;
    }
    out.clear();
    size = 0;
    if (positionType >= AttributeType::I32 && positionType <= AttributeType::F64)
    {
        out.push_back({positionType, AttributeRole::X, "X"});
        out.push_back({positionType, AttributeRole::Y, "Y"});
        out.push_back({positionType, AttributeRole::Z, "Z"});
        size = 3 * typeSize(positionType);
    }
    else if (isMortonType(positionType))
    {
        out.push_back({positionType, AttributeRole::POSITION, "POSITION"});
        size = typeSize(positionType);
    }
    else
    {
        std::fputs("generateAttributeFormat: undefined position type.\n", stderr);
        return false;
    }
    for (auto it = source.begin() + 1; it != source.end(); ++it)
    {
        out.push_back(*it);
        size += typeSize(it->type);
    }
    return true;
}

}  // namespace HSPC
