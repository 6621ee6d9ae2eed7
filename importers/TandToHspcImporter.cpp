#include "importers/TandToHspcImporter.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <utility>

#include "core/IoTransfo.h"
#include "hspc/format/MortonIndex3D.h"
#include "scanview/NormalCodes.h"

namespace pc_preprocess
{

namespace
{

using HSPC::Attribute;
namespace Type = HSPC::AttributeType;
namespace Role = HSPC::AttributeRole;

template <typename T>
uint8_t* put(uint8_t* out, T value)
{
    std::memcpy(out, &value, sizeof value);
    return out + sizeof value;
}

template <typename T>
T inRangeOrZero(int32_t value)
{
    return value >= 0 && value <= int32_t(std::numeric_limits<T>::max()) ? static_cast<T>(value) : T(0);
}

}  // namespace

TandToHspcImporter::TandToHspcImporter(Exporter::BatchSource source, const SupportedAttributes& flags,
                                       const std::array<double, 3>& origin, const std::array<double, 3>& scale,
                                       const geom::Matrix3d& transform)
    : m_source(std::move(source)),
      m_flags(flags),
      m_recordSize(recordSize(flags)),
      m_origin(origin),
      m_scale(scale),
      m_inverseScale{1.0 / scale[0], 1.0 / scale[1], 1.0 / scale[2]},
      m_transform(transform)
{
}

std::vector<Attribute> TandToHspcImporter::attributes(const SupportedAttributes& flags)
{
    std::vector<Attribute> list{{Type::M96, Role::POSITION, "Position"}};
    if (flags.radius)
        list.push_back({Type::F32, Role::CUSTOM, "TandorelPointSize"});
    if (flags.color)
    {
        list.push_back({Type::U16, Role::R, "Red"});
        list.push_back({Type::U16, Role::G, "Green"});
        list.push_back({Type::U16, Role::B, "Blue"});
    }
    if (flags.intensity)
        list.push_back({Type::U16, Role::INTENSITY, "Intensity"});
    if (flags.classification)
        list.push_back({Type::U8, Role::CLASSIFICATION, "Classification"});
    if (flags.scanId)
        list.push_back({Type::U16, Role::SCAN_INDEX, "ScanID"});
    if (flags.normals)
        list.push_back({Type::U16, Role::CUSTOM, "Normal"});
    return list;
}

uint32_t TandToHspcImporter::recordSize(const SupportedAttributes& flags)
{
    return HSPC::recordSize(attributes(flags));
}

bool TandToHspcImporter::refill()
{
    m_buffer.clear();
    m_position = 0;
    // A source that said it has nothing more is not asked again.
    if (m_sourceEnded)
        return false;
    try
    {
        if (!m_source(m_buffer) || m_buffer.empty())
            m_sourceEnded = true;
    }
    catch (...)
    {
        m_sourceError = std::current_exception();
        m_sourceEnded = true;
        m_buffer.clear();
    }
    m_total += m_buffer.size();
    return !m_buffer.empty();
}

bool TandToHspcImporter::writeRecord(const ExportPoint& point, uint8_t* out) const
{
    const geom::Point3d p = m_transform.transform(point.position);
    int32_t cell[3];
    if (!toGridInteger(p.x, m_origin[0], m_inverseScale[0], cell[0]) ||
        !toGridInteger(p.y, m_origin[1], m_inverseScale[1], cell[1]) ||
        !toGridInteger(p.z, m_origin[2], m_inverseScale[2], cell[2]))
        return false;
    const auto code = HSPC::encodeMortonSigned<uint32_t>(cell[0], cell[1], cell[2]);
    out = put(out, code.words[0]);
    out = put(out, code.words[1]);
    out = put(out, code.words[2]);
    if (m_flags.radius)
        out = put(out, point.radius);
    if (m_flags.color)
    {
        out = put(out, point.r);
        out = put(out, point.g);
        out = put(out, point.b);
    }
    if (m_flags.intensity)
        out = put(out, point.intensity);
    if (m_flags.classification)
        out = put(out, inRangeOrZero<uint8_t>(point.classification));
    if (m_flags.scanId)
        out = put(out, inRangeOrZero<uint16_t>(point.scanId));
    if (m_flags.normals)
        put(out, encodeNormal(point.normal));
    return true;
}

HSPC::ReadResult TandToHspcImporter::readBatch(HSPC::HSPCBuffer<uint8_t>& buffer, uint64_t maxBytes)
{
    if (m_position >= m_buffer.size() && !refill())
        return m_sourceError ? HSPC::ReadResult::kRequestFailed : HSPC::ReadResult::kEnd;
    const uint64_t capacity = std::min(maxBytes, kMaxBatchBytes) / m_recordSize;
    if (capacity == 0)
        return HSPC::ReadResult::kRequestFailed;

    buffer.clear();
    uint64_t records = 0;
    while (records < capacity && (m_position < m_buffer.size() || refill()))
    {
        // One resize per batch of the source: as many records as both still hold.
        const uint64_t take = std::min<uint64_t>(capacity - records, m_buffer.size() - m_position);
        buffer.resize((records + take) * m_recordSize);
        for (uint64_t i = 0; i < take; ++i)
        {
            if (writeRecord(m_buffer[m_position++], buffer.data() + records * m_recordSize))
                ++records;
            else
                ++m_offGrid;
        }
    }
    buffer.resize(records * m_recordSize);
    return m_sourceError ? HSPC::ReadResult::kRequestFailed : HSPC::ReadResult::kData;
}

bool TandToHspcImporter::convertBatch(HSPC::HSPCBuffer<uint8_t>& input, HSPC::HSPCBuffer<uint8_t>& output) const
{
    output = std::move(input);
    input.clear();
    return true;
}

}  // namespace pc_preprocess
