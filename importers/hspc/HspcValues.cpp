#include "importers/hspc/HspcValues.h"

#include <cmath>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <string>

#include "importers/pts/ValueScaling.h"
#include "scanview/NormalCodes.h"

namespace pc_preprocess
{

namespace
{

namespace Type = HSPC::AttributeType;

template <typename T>
double load(const uint8_t* bytes)
{
    T value;
    std::memcpy(&value, bytes, sizeof value);
    return static_cast<double>(value);
}

std::string intensityText(EIntensityMode mode, uint64_t count)
{
    const char* range = "[0.0, 65536.0[";
    if (mode == kIntensityUnit)
        range = "[0.0, 1.0]";
    else if (mode == kIntensity8Bit)
        range = "[0.0, 256.0[";
    else if (mode == kIntensitySigned)
        range = "[-2048.0, 2048.0]";
    return std::string("HspcImporter ERROR: Expected intensity in range ") + range + " based on first " +
           std::to_string(count) + " valid points.";
}

struct Extremes
{
    double min = std::numeric_limits<double>::infinity();
    double max = -std::numeric_limits<double>::infinity();
    void add(double v)
    {
        min = std::min(min, v);
        max = std::max(max, v);
    }
};

ERgbMode rgbModeOf(uint8_t type, const Extremes& seen)
{
    if (type == Type::U8)
        return kRgb8Bit;
    if (type == Type::U16)
        return kRgb16Bit;
    if (seen.min < 0.0 || seen.max >= 65536.0)
        throw std::runtime_error("HspcImporter ERROR: Expected RGB in range [0.0, 65536.0[.");
    return seen.max <= 255.0 ? kRgb8Bit : kRgb16Bit;
}

EIntensityMode intensityModeOf(uint8_t type, const Extremes& seen, uint64_t count)
{
    if (type == Type::U8)
        return kIntensity8Bit;
    if (type == Type::U16)
        return kIntensity16Bit;
    if (seen.min < 0.0)
    {
        if (seen.min < -2048.0 || seen.max > 2048.0)
            throw std::runtime_error(intensityText(kIntensitySigned, count));
        return kIntensitySigned;
    }
    if (HSPC::isFloat(type) && seen.max <= 1.0)
        return kIntensityUnit;
    if (seen.max < 256.0)
        return kIntensity8Bit;
    if (seen.max < 65536.0)
        return kIntensity16Bit;
    throw std::runtime_error(intensityText(kIntensity16Bit, count));
}

}  // namespace

double readHspcValue(uint8_t type, const uint8_t* bytes)
{
    switch (type)
    {
        case Type::U8: return load<uint8_t>(bytes);
        case Type::U16: return load<uint16_t>(bytes);
        case Type::U32: return load<uint32_t>(bytes);
        case Type::U64: return load<uint64_t>(bytes);
        case Type::I8: return load<int8_t>(bytes);
        case Type::I16: return load<int16_t>(bytes);
        case Type::I32: return load<int32_t>(bytes);
        case Type::I64: return load<int64_t>(bytes);
        case Type::F32: return load<float>(bytes);
        case Type::F64: return load<double>(bytes);
        default:
            throw std::runtime_error("HspcImporter ERROR: " + HSPC::getTypeName(type) +
                                     " unsupported for read(type, uint8_t *).");
    }
}

void HspcColorScaling::fix(const uint8_t* records, uint64_t count)
{
    const HspcRoleLayout& layout = *m_layout;
    Extremes rgb;
    Extremes intensity;
    for (uint64_t i = 0; i < count; ++i)
    {
        const uint8_t* record = records + i * layout.recordSize;
        double values[4] = {};
        int n = 0;
        if (layout.hasColor())
            for (const HspcField* field : {&*layout.r, &*layout.g, &*layout.b})
                values[n++] = readHspcValue(field->type, record + field->offset);
        if (layout.intensity)
            values[n++] = readHspcValue(layout.intensity->type, record + layout.intensity->offset);
        bool valid = true;
        for (int k = 0; k < n; ++k)
            valid = valid && std::isfinite(values[k]);
        if (!valid)
            continue;
        ++m_sampleCount;
        if (layout.hasColor())
            for (int k = 0; k < 3; ++k)
                rgb.add(values[k]);
        if (layout.intensity)
            intensity.add(values[n - 1]);
    }
    if (layout.hasColor())
        m_rgb = rgbModeOf(layout.r->type, rgb);
    if (layout.intensity)
        m_intensity = intensityModeOf(layout.intensity->type, intensity, m_sampleCount);
    m_fixed = true;
}

uint16_t HspcColorScaling::channel(double value) const
{
    if (m_rgb == kRgb8Bit)
    {
        if (!(value >= 0.0 && value <= 255.0))
            throw std::runtime_error("HspcImporter ERROR: Expected R, G & B in range [0, 255] based on first " +
                                     std::to_string(m_sampleCount) + " valid points.");
        return static_cast<uint16_t>(static_cast<unsigned>(value) << 8);
    }
    if (!(value >= 0.0 && value < 65536.0))
        throw std::runtime_error("HspcImporter ERROR: Expected RGB in range [0.0, 65536.0[.");
    return static_cast<uint16_t>(value);
}

void HspcColorScaling::color(const uint8_t* record, uint16_t& r, uint16_t& g, uint16_t& b) const
{
    const HspcRoleLayout& layout = *m_layout;
    r = channel(readHspcValue(layout.r->type, record + layout.r->offset));
    g = channel(readHspcValue(layout.g->type, record + layout.g->offset));
    b = channel(readHspcValue(layout.b->type, record + layout.b->offset));
}

uint16_t HspcColorScaling::intensity(const uint8_t* record) const
{
    const HspcField& field = *m_layout->intensity;
    uint16_t scaled = 0;
    if (!scaleIntensity(readHspcValue(field.type, record + field.offset), m_intensity, scaled))
        throw std::runtime_error(intensityText(m_intensity, m_sampleCount));
    return scaled;
}

namespace
{

float floatAt(const uint8_t* record, const std::optional<HspcField>& field)
{
    return static_cast<float>(readHspcValue(field->type, record + field->offset));
}

}  // namespace

HspcPointValues readHspcPoint(const uint8_t* record, const HspcRoleLayout& layout, const HspcColorScaling& scaling)
{
    HspcPointValues point;
    std::memcpy(point.position, record, sizeof point.position);
    if (layout.pointSize)
        point.radius = floatAt(record, layout.pointSize);
    if (layout.hasColor())
        scaling.color(record, point.r, point.g, point.b);
    if (layout.intensity)
        point.intensity = scaling.intensity(record);
    if (layout.classification)
        point.classification =
            static_cast<uint8_t>(readHspcValue(layout.classification->type, record + layout.classification->offset));
    if (layout.scanId)
        point.scanId = static_cast<uint16_t>(readHspcValue(layout.scanId->type, record + layout.scanId->offset));
    if (layout.normal)
    {
        const geom::Vector3d normal = decodeNormal(record + layout.normal->offset);
        point.normal[0] = static_cast<float>(normal.x);
        point.normal[1] = static_cast<float>(normal.y);
        point.normal[2] = static_cast<float>(normal.z);
    }
    else if (layout.hasNormals())
    {
        point.normal[0] = floatAt(record, layout.normalX);
        point.normal[1] = floatAt(record, layout.normalY);
        point.normal[2] = floatAt(record, layout.normalZ);
    }
    return point;
}

}  // namespace pc_preprocess
