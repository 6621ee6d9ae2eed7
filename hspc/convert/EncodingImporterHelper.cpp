#include "hspc/convert/EncodingImporterHelper.h"

#include <utility>

#include "hspc/format/CellMapping.h"
#include "hspc/format/LittleEndian.h"
#include "hspc/format/TrackedMemory.h"

namespace HSPC
{
namespace
{

// Runs the actions over every record; `positionOf(point, record)` gives the record's Morton code.
template <typename PositionOf>
bool runActions(const BinaryImporterHelper& interpreter, const ActionPlan& plan, const uint8_t* source,
                uint64_t pointCount, uint8_t* target, uint64_t firstPointNumber, const PositionOf& positionOf)
{
    uint8_t* cursor = target;
    RecordValues values;
    for (uint64_t point = 0; point < pointCount; ++point)
    {
        const uint8_t* record = source + point * plan.sourceRecordSize;
        values.position = positionOf(point, record);
        values.pointNumber = firstPointNumber + point;
        if (!interpreter.convertPoints(plan.actions, record, values, cursor))
        {
            return false;
        }
    }
    return true;
}

}  // namespace

EncodingImporterHelper::EncodingImporterHelper(LogFunction errorLogger, SourceDescription source)
    : m_errorLogger(std::move(errorLogger)),
      m_source(std::move(source)),
      m_interpreter(m_errorLogger, 1.0, 0.0)
{
}

bool EncodingImporterHelper::setEncodingParameters(const EncodingTarget& target, const EncodingFlags& flags)
{
    m_valid = true;
    m_plan = ActionPlan{};
    m_origin = target.origin;
    m_scale = target.scale;
    m_target = target.attributes;
    m_flags = flags;
    m_transformation = target.transformation;
    m_transformAll = target.transformAll;
    if (m_target.empty())
    {
        m_errorLogger("setEncodingParameters: encoding attributes are empty.");
        m_valid = false;
        return false;
    }
    const Attribute& first = m_target.front().attribute;
    if (first.role != AttributeRole::POSITION || first.type != AttributeType::M96)
    {
        m_errorLogger("setEncodingParameters: first attribute not POSITION with MortonInteger96 type.");
        m_valid = false;
        return false;
    }
    if (m_transformation && m_transformAll)
    {
        m_errorLogger(
            "setEncodingParameters: both transformation and transformAll functions set, only one or zero can "
            "be "
            "used simultaneously.");
        m_valid = false;
        return false;
    }
    return computeActions(m_source, m_target);
}

template <typename T>
bool EncodingImporterHelper::encodeRecords(const uint8_t* source, uint64_t pointCount, uint8_t* target,
                                           uint64_t firstPointNumber) const
{
    // M96 keeps the low 32 bits of each signed cell.
    const CellMapping grid(m_origin, m_scale);
    const auto encode = [&grid](const double* xyz) {
        return grid.encode<uint32_t>({xyz[0], xyz[1], xyz[2]});
    };
    const uint32_t recordSize = m_plan.sourceRecordSize;
    auto realPosition = [&](const uint8_t* record, double* xyz)
    {
        for (unsigned axis = 0; axis < 3; ++axis)
        {
            const T stored = little_endian::load<T>(record + m_plan.axisOffsets[axis]);
            xyz[axis] = double(stored) * m_plan.sourceScale[axis] + m_plan.sourceOffset[axis];
        }
    };

    // A buffer transformation sees all positions of the batch before any of them is put on the grid.
    HSPCBuffer<double> transformed;
    if (m_transformAll)
    {
        transformed.resize(3 * pointCount);
        for (uint64_t point = 0; point < pointCount; ++point)
        {
            realPosition(source + point * recordSize, transformed.data() + 3 * point);
        }
        m_transformAll(transformed.data(), pointCount);
    }

    if (m_transformAll)
    {
        return runActions(m_interpreter, m_plan, source, pointCount, target, firstPointNumber,
                          [&](uint64_t point, const uint8_t*)
                          { return encode(transformed.data() + 3 * point); });
    }
    return runActions(m_interpreter, m_plan, source, pointCount, target, firstPointNumber,
                      [&](uint64_t, const uint8_t* record)
                      {
                          double xyz[3];
                          realPosition(record, xyz);
                          if (m_transformation)
                          {
                              m_transformation(xyz);
                          }
                          return encode(xyz);
                      });
}

bool EncodingImporterHelper::encodePoints(const uint8_t* source, uint64_t pointCount, uint8_t* target,
                                          uint64_t firstPointNumber) const
{
    if (!m_valid)
    {
        m_errorLogger("EncodingImporterHelper::encodePoints: encoding parameters are not valid.");
        return false;
    }
    switch (m_plan.positionType)
    {
        case AttributeType::U32:
            return encodeRecords<uint32_t>(source, pointCount, target, firstPointNumber);
        case AttributeType::U64:
            return encodeRecords<uint64_t>(source, pointCount, target, firstPointNumber);
        case AttributeType::I32:
            return encodeRecords<int32_t>(source, pointCount, target, firstPointNumber);
        case AttributeType::I64:
            return encodeRecords<int64_t>(source, pointCount, target, firstPointNumber);
        case AttributeType::F32:
            return encodeRecords<float>(source, pointCount, target, firstPointNumber);
        case AttributeType::F64:
            return encodeRecords<double>(source, pointCount, target, firstPointNumber);
        default:
            break;
    }
    // A source that brings its Morton codes is copied as it is; there is no real position to transform.
    if (m_plan.positionType == AttributeType::M96 && !m_transformation && !m_transformAll)
    {
        return runActions(m_interpreter, m_plan, source, pointCount, target, firstPointNumber,
                          [](uint64_t, const uint8_t*) { return MortonIndex3D<uint32_t>{}; });
    }
    m_errorLogger("EncodingImporterHelper::encodePoints: Cannot convert for this position type.");
    return false;
}

}  // namespace HSPC
