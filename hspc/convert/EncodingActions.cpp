// How each target attribute is made from the source: the rules that compute the action list.
#include <bit>
#include <limits>
#include <optional>
#include <string>
#include <utility>

#include "hspc/convert/EncodingImporterHelper.h"

namespace HSPC
{
namespace
{

constexpr const char* kPrefix = "EncodingImporterHelper::computeActions: ";

// A source attribute with its place in the record.
struct SourceField
{
    const SourceAttribute* attribute = nullptr;
    uint32_t index = 0;
    uint32_t offset = 0;
};

std::optional<SourceField> findSource(const SourceDescription& source, const std::vector<uint32_t>& offsets,
                                      const Attribute& wanted)
{
    for (uint32_t index = 0; index < source.size(); ++index)
    {
        if (source[index].attribute == wanted)
        {
            return SourceField{&source[index], index, offsets[index]};
        }
    }
    return std::nullopt;
}

std::optional<SourceField> findRole(const SourceDescription& source, const std::vector<uint32_t>& offsets,
                                    uint8_t role)
{
    return findSource(source, offsets, Attribute{AttributeType::UNDEFINED, role, {}});
}

bool isInteger(uint8_t type)
{
    return isUnsignedInteger(type) || isSignedInteger(type);
}

bool isColor(uint8_t role)
{
    return role == AttributeRole::R || role == AttributeRole::G || role == AttributeRole::B;
}

// The cast that widens `from` to `to`, if there is one.
std::optional<uint8_t> castKind(uint8_t from, uint8_t to)
{
    if (!canWiden(from, to) || isMortonType(from) || isMortonType(to))
    {
        return std::nullopt;
    }
    if (isFloat(to))
    {
        return isFloat(from) ? ActionKind::kFloatCast : ActionKind::kIntegerToFloat;
    }
    return ActionKind::kIntegerCast;
}

uint8_t bitsOfDepth(std::optional<double> white, uint32_t size)
{
    if (white && *white >= 1.0 && *white < 4294967296.0)
    {
        return uint8_t(std::bit_width(uint64_t(*white)));
    }
    return uint8_t(8 * size);
}

// Builds the action list attribute by attribute; every rule that cannot be met reports and stops.
class ActionPlanner
{
public:
    ActionPlanner(const SourceDescription& source, const EncodingFlags& flags, const LogFunction& errorLogger,
                  ActionPlan& plan)
        : m_source(source), m_flags(flags), m_errorLogger(errorLogger), m_plan(plan)
    {
    }

    bool plan(const std::vector<EncodingAttribute>& target)
    {
        uint64_t offset = 0;
        for (const SourceAttribute& attribute : m_source)
        {
            m_offsets.push_back(uint32_t(offset));
            offset += attribute.size;
        }
        // Offsets are 16-bit in an action.
        if (offset > std::numeric_limits<uint16_t>::max())
        {
            m_errorLogger(std::string(kPrefix) + "source record of " + std::to_string(offset) +
                          " bytes is larger than 65535 bytes.");
            return false;
        }
        m_plan.sourceRecordSize = uint32_t(offset);
        for (const EncodingAttribute& attribute : target)
        {
            if (!planAttribute(attribute))
            {
                return false;
            }
            m_plan.targetRecordSize += typeSize(attribute.attribute.type);
        }
        return true;
    }

private:
    bool planAttribute(const EncodingAttribute& target)
    {
        const uint8_t role = target.attribute.role;
        if (role == AttributeRole::FILE_POINT_ID && m_flags.addFilePointId)
        {
            add(ActionKind::kCounter, target, std::nullopt, 0);
            return true;
        }
        if (role == AttributeRole::INPUT_FILE_ID && m_flags.addInputFileId)
        {
            add(ActionKind::kConstant, target, std::nullopt, m_flags.inputFileId);
            return true;
        }
        if (role == AttributeRole::ELEVATION)
        {
            return planElevation(target);
        }
        if (role == AttributeRole::POSITION)
        {
            return planPosition(target);
        }
        const std::optional<SourceField> source = findSource(m_source, m_offsets, target.attribute);
        if (!source)
        {
            return planDefault(target);
        }
        const uint8_t sourceType = source->attribute->attribute.type;
        if (role == AttributeRole::SCAN_INDEX && isUnsignedInteger(sourceType) &&
            isInteger(target.attribute.type))
        {
            add(ActionKind::kScanIndex, target, source, source->index);
            return true;
        }
        if (isColor(role) && planColor(*source, target))
        {
            return true;
        }
        return planConversion(*source, target);
    }

    bool planElevation(const EncodingAttribute& target)
    {
        if (const std::optional<SourceField> elevation = findSource(m_source, m_offsets, target.attribute))
        {
            if (elevation->attribute->attribute.type != target.attribute.type)
            {
                m_errorLogger(std::string(kPrefix) + "Cannot convert height attribute.");
                return false;
            }
            add(ActionKind::kCopy, target, elevation, 0);
            return true;
        }
        const std::optional<SourceField> z = findRole(m_source, m_offsets, AttributeRole::Z);
        if (!z)
        {
            m_errorLogger(std::string(kPrefix) + "Could not extract z coordinate for height.");
            return false;
        }
        m_plan.sourceScale[2] = z->attribute->scale;
        m_plan.sourceOffset[2] = z->attribute->offset;
        add(ActionKind::kElevation, target, z,
            TypePair::pack(z->attribute->attribute.type, target.attribute.type));
        return true;
    }

    bool planPosition(const EncodingAttribute& target)
    {
        const std::optional<SourceField> morton = findRole(m_source, m_offsets, AttributeRole::POSITION);
        if (morton && isMortonType(morton->attribute->attribute.type))
        {
            if (morton->attribute->attribute.type != target.attribute.type)
            {
                m_errorLogger(std::string(kPrefix) + "Cannot cast between different Morton integer types");
                return false;
            }
            m_plan.positionType = target.attribute.type;
            add(ActionKind::kCopy, target, morton, 0);
            return true;
        }
        std::array<std::optional<SourceField>, 3> axes;
        for (unsigned axis = 0; axis < 3; ++axis)
        {
            axes[axis] = findRole(m_source, m_offsets, uint8_t(AttributeRole::X + axis));
            if (!axes[axis])
            {
                m_errorLogger(std::string(kPrefix) + "No position found in source data.");
                return false;
            }
        }
        const uint8_t type = axes[0]->attribute->attribute.type;
        const bool readable = isCoordinateType(type) && axes[1]->attribute->attribute.type == type &&
                              axes[2]->attribute->attribute.type == type &&
                              target.attribute.type == AttributeType::M96;
        if (!readable)
        {
            m_errorLogger(std::string(kPrefix) +
                          "Cannot perform casting operation for this coordinate type.");
            return false;
        }
        m_plan.positionType = type;
        for (unsigned axis = 0; axis < 3; ++axis)
        {
            m_plan.axisOffsets[axis] = uint16_t(axes[axis]->offset);
            m_plan.sourceScale[axis] = axes[axis]->attribute->scale;
            m_plan.sourceOffset[axis] = axes[axis]->attribute->offset;
        }
        add(ActionKind::kPosition, target, axes[0],
            AxisOffsets::pack(m_plan.axisOffsets[1], m_plan.axisOffsets[2]));
        m_plan.actions.back().sourceSize = uint16_t(3 * typeSize(type));
        return true;
    }

    // Colours of one or two bytes; any other pair is converted like any attribute.
    bool planColor(const SourceField& source, const EncodingAttribute& target)
    {
        const uint32_t sourceSize = source.attribute->size;
        const uint32_t targetSize = typeSize(target.attribute.type);
        if (sourceSize == targetSize)
        {
            add(ActionKind::kCopy, target, source, 0);
            return true;
        }
        if ((sourceSize != 1 && sourceSize != 2) || (targetSize != 1 && targetSize != 2))
        {
            return false;
        }
        const ColorShift shift = colorShift(*source.attribute, target);
        add(sourceSize == 2 ? ActionKind::kColorDown8 : ActionKind::kColorDown16, target, source,
            ColorDown::pack(shift.shift(), shift.maxColor()));
        return true;
    }

    // Any other attribute the source has: copied when the types agree, widened when they can be.
    bool planConversion(const SourceField& source, const EncodingAttribute& target)
    {
        const SourceAttribute& from = *source.attribute;
        const bool sameUnit = from.unit.empty() || from.unit == target.unit;
        if (!sameUnit || from.offset != target.offset || from.scale != target.scale)
        {
            m_errorLogger(
                std::string(kPrefix) +
                "encoding parameters unit, offset or scale different for target and source attribute=.");
            return false;
        }
        const uint8_t sourceType = from.attribute.type;
        const uint8_t targetType = target.attribute.type;
        // Equal types are copied. Equal sizes are not enough: the bytes of an I16 are no U16, nor those of a
        // U32 a float.
        if (sourceType == targetType)
        {
            add(ActionKind::kCopy, target, source, 0);
            return true;
        }
        const std::optional<uint8_t> cast = castKind(sourceType, targetType);
        if (!cast)
        {
            m_errorLogger(std::string(kPrefix) + "Cannot perform casting operation for this attribute=" +
                          target.attribute.name + " (source type is " + std::to_string(from.size) +
                          " bytes while target type is " + std::to_string(typeSize(targetType)) + " bytes)");
            return false;
        }
        add(*cast, target, source, TypePair::pack(sourceType, targetType));
        return true;
    }

    bool planDefault(const EncodingAttribute& target)
    {
        if (!target.defaultValue)
        {
            m_errorLogger(std::string(kPrefix) + "Unsupported attribute: " + target.attribute.name +
                          "; and no default value specified.");
            return false;
        }
        add(ActionKind::kConstant, target, std::nullopt,
            numberBytes(*target.defaultValue, target.attribute.type));
        return true;
    }

    void add(uint8_t kind, const EncodingAttribute& target, const std::optional<SourceField>& source,
             uint64_t value)
    {
        ConversionAction action;
        action.kind = kind;
        action.targetSize = uint16_t(typeSize(target.attribute.type));
        if (source)
        {
            action.sourceSize = uint16_t(source->attribute->size);
            action.sourceOffset = uint16_t(source->offset);
        }
        action.value = value;
        m_plan.actions.push_back(action);
    }

    const SourceDescription& m_source;
    const EncodingFlags& m_flags;
    const LogFunction& m_errorLogger;
    ActionPlan& m_plan;
    std::vector<uint32_t> m_offsets;
};

}  // namespace

ColorShift colorShift(const SourceAttribute& source, const EncodingAttribute& target)
{
    // A target's default is its white; a source's largest value says how many bits it really uses.
    return ColorShift{bitsOfDepth(source.max, source.size),
                      bitsOfDepth(target.defaultValue, typeSize(target.attribute.type))};
}

bool EncodingImporterHelper::computeActions(const SourceDescription& source,
                                            const std::vector<EncodingAttribute>& target)
{
    ActionPlan plan;
    m_valid = ActionPlanner(source, m_flags, m_errorLogger, plan).plan(target);
    if (!m_valid)
    {
        m_plan = ActionPlan{};
        return false;
    }
    m_plan = std::move(plan);
    m_source = source;
    m_target = target;
    m_interpreter = BinaryImporterHelper(m_errorLogger, m_plan.sourceScale[2], m_plan.sourceOffset[2]);
    return true;
}

}  // namespace HSPC
