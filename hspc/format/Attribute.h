// The attributes of an HSPC point: value type codes, role codes, their names, and the packed record that a
// list of attributes describes. The codes appear in files, in JSON and in messages, so they never change.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace HSPC
{

// Value type codes. Plain constants in a namespace rather than an enum class: attribute records carry the raw
// byte, and codes that no type has must stay representable.
namespace AttributeType
{
enum Code : uint8_t
{
    U8 = 0,
    U16 = 1,
    U32 = 2,
    U64 = 3,
    I8 = 4,
    I16 = 5,
    I32 = 6,
    I64 = 7,
    F32 = 8,
    F64 = 9,
    M96 = 10,   // MortonIndex3D<unsigned int>
    M192 = 11,  // MortonIndex3D<uint64_t>
    UNDEFINED = 12,
};
}  // namespace AttributeType

// Role codes: what a value means. The gaps between the groups are reserved.
namespace AttributeRole
{
enum Code : uint8_t
{
    POSITION = 0,
    X = 1,
    Y = 2,
    Z = 3,
    R = 4,
    G = 5,
    B = 6,
    NIR = 7,
    INTENSITY = 8,
    CLASSIFICATION = 9,
    RETURN = 10,
    TIMESTAMP = 11,
    SCAN_ANGLE = 12,
    POINT_SOURCE_ID = 13,
    WAVE_PACKET_DESCRIPTOR_INDEX = 14,
    BYTE_OFFSET_TO_WAVEFORM_DATA = 15,
    WAVEFORM_PACKET_SIZE = 16,
    RETURN_POINT_WAVEFORM_LOCATION = 17,
    Xt = 18,
    Yt = 19,
    Zt = 20,
    NormalX = 21,
    NormalY = 22,
    NormalZ = 23,
    SCAN_INDEX = 24,
    ELEVATION = 25,
    CORRECTION_X = 26,
    CORRECTION_Y = 27,
    CORRECTION_Z = 28,
    RNSE = 80,
    RNNR = 81,
    CSSE = 82,
    USER_DATA = 83,
    NUMBER_OF_RETURNS = 84,
    SCAN_DIRECTION = 85,
    SCANNER_CHANNEL = 86,
    EDGE_OF_FLIGHT_LINE = 87,
    CLASSIFICATION_FLAGS = 88,
    CUSTOM = 100,
    INPUT_FILE_ID = 101,
    FILE_POINT_ID = 102,
};
}  // namespace AttributeRole

struct Attribute
{
    uint8_t type = AttributeType::UNDEFINED;
    uint8_t role = AttributeRole::CUSTOM;
    // Significant only for CUSTOM; for every other role a label.
    std::string name;

    // Two attributes are the same attribute when they play the same role: a data set has at most one
    // intensity, whatever it is called or stored as. Custom attributes are told apart by their names.
    friend bool operator==(const Attribute& a, const Attribute& b)
    {
        return a.role == b.role && (a.role != AttributeRole::CUSTOM || a.name == b.name);
    }
};

// An attribute as the converter encodes it: real value = stored value * scale + offset.
struct EncodingAttribute
{
    Attribute attribute;
    std::string unit;
    double offset = 0.0;
    double scale = 1.0;
    // Stored value written for points whose input lacks the attribute; without one, such input is refused.
    std::optional<double> defaultValue;
};

// Name of a role code; empty for a code no role has.
std::string getRoleName(uint8_t role);
// Role code of a name or one of its aliases ("RED", "I", "GPS_TIMESTAMP", ...).
bool parseRole(std::string_view text, uint8_t& role);
// Name of a type code; "undefined" for a code no type has.
std::string getTypeName(uint8_t type);
// Type code of a name; "F" and "D" are accepted for F32 and F64.
bool parseType(std::string_view text, uint8_t& type);
// Bytes of one value of the type; 0 for a code no type has.
uint32_t typeSize(uint8_t type);
// Whether every value of type `from` keeps its range as type `to`. Signed and unsigned integers never mix,
// floats never become integers, Morton codes only stay what they are; F64 may narrow to F32 because
// coordinates and colours stored as doubles are routinely requested as floats.
bool canWiden(uint8_t from, uint8_t to);
bool isMortonType(uint8_t type);
bool isUnsignedInteger(uint8_t type);
bool isSignedInteger(uint8_t type);
bool isFloat(uint8_t type);
// The types that x, y and z may have in a source: 32- and 64-bit integers and floats.
bool isCoordinateType(uint8_t type);

// A point record packs its attributes in list order without padding.
uint32_t recordSize(const std::vector<Attribute>& attributes);
// Byte offset of each attribute inside the record.
std::vector<uint32_t> attributeOffsets(const std::vector<Attribute>& attributes);

// Builds the record a client asked for from a Morton-coded source list: the position in the wanted form
// (X, Y, Z of type I32..F64, or one M96 / M192 code) followed by all other source attributes. Returns false
// and leaves the output alone when the source is empty or does not start with a Morton position; returns
// false with a message on standard error for a position type that is neither.
bool generateAttributeFormat(uint8_t positionType, const std::vector<Attribute>& source,
                             std::vector<Attribute>& out, uint32_t& size);

}  // namespace HSPC
