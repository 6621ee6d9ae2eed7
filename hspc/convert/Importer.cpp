#include "hspc/convert/Importer.h"

#include <utility>

namespace HSPC
{

Importer::~Importer() = default;

ReadResult Importer::readPoints(std::vector<uint8_t>& points, uint64_t maxBytes)
{
    HSPCBuffer<uint8_t> buffer;
    const ReadResult result = readBatch(buffer, maxBytes);
    if (result == ReadResult::kData)
    {
        points.assign(buffer.begin(), buffer.end());
    }
    return result;
}

bool Importer::convertPoints(const std::vector<uint8_t>& input, std::vector<uint8_t>& output) const
{
    HSPCBuffer<uint8_t> in(input.begin(), input.end());
    HSPCBuffer<uint8_t> out;
    if (!convertBatch(in, out))
    {
        return false;
    }
    output.assign(out.begin(), out.end());
    return true;
}

bool Importer::convertBatch(HSPCBuffer<uint8_t>& input, HSPCBuffer<uint8_t>& output) const
{
    output = std::move(input);
    input.clear();
    return false;
}

ImporterBase::ImporterBase(std::vector<Attribute> attributes, std::array<double, 3> origin,
                           std::array<double, 3> scale, uint64_t pointCount)
    : m_attributes(std::move(attributes)), m_origin(origin), m_scale(scale), m_pointCount(pointCount)
{
}

}  // namespace HSPC
