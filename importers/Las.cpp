#include "importers/Las.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <stdexcept>

#include "core/StringConversion.h"
#include "importers/las/LasBytes.h"
#include "importers/las/LasHeader.h"
#include "importers/las/LasVlrs.h"

namespace pc_preprocess
{

namespace
{

// The ends of the 32-bit range mark empty boxes in the extents' logic, so no point may sit on them.
constexpr int32_t kLowestCoordinate = -2147483647;
constexpr int32_t kHighestCoordinate = 2147483646;

std::runtime_error cannotRead(const std::wstring& path, const FileError& e)
{
    return std::runtime_error("LAS error: Could not read " + ws2s(path) + ": " +
                              std::strerror(e.errorNumber()) + "\n");
}

bool onGrid(const IoLightPoint& p)
{
    return p.x >= kLowestCoordinate && p.x <= kHighestCoordinate && p.y >= kLowestCoordinate &&
           p.y <= kHighestCoordinate && p.z >= kLowestCoordinate && p.z <= kHighestCoordinate;
}

// The box and the colour and intensity ranges of one batch, kept in integers and handed on once per batch.
// Without colour the intensity stands in for it in the colour range too.
struct BatchRanges
{
    int32_t low[3] = {INT32_MAX, INT32_MAX, INT32_MAX};
    int32_t high[3] = {INT32_MIN, INT32_MIN, INT32_MIN};
    uint16_t lowIntensity = UINT16_MAX;
    uint16_t highIntensity = 0;
    uint16_t lowRgb = UINT16_MAX;
    uint16_t highRgb = 0;

    void add(const IoLightPoint& p, uint16_t intensity, const uint16_t (&rgb)[3])
    {
        const int32_t position[3] = {p.x, p.y, p.z};
        for (int axis = 0; axis < 3; ++axis)
        {
            low[axis] = std::min(low[axis], position[axis]);
            high[axis] = std::max(high[axis], position[axis]);
        }
        lowIntensity = std::min(lowIntensity, intensity);
        highIntensity = std::max(highIntensity, intensity);
        lowRgb = std::min({lowRgb, rgb[0], rgb[1], rgb[2]});
        highRgb = std::max({highRgb, rgb[0], rgb[1], rgb[2]});
    }

    void widen(ExtentsI32& extents, FileColorRange& range) const
    {
        extents.extend(low[0], low[1], low[2]);
        extents.extend(high[0], high[1], high[2]);
        range.updateIntensity(lowIntensity);
        range.updateIntensity(highIntensity);
        range.updateRgb(lowRgb);
        range.updateRgb(highRgb);
    }
};

}  // namespace

Las::Las(const std::wstring& path, double scale, const ColorMode& colorMode)
    : LasFamilyImporter(path, scale, colorMode)
{
    if (colorMode.rgb != kRgb16Bit && colorMode.rgb != kRgb8Bit)
        throw std::runtime_error("LAS error: Color mode should be RGB 16-bit or RGB 8-bit.");
}

Las::~Las() = default;

SupportedAttributes Las::getSupportedAttributes()
{
    SupportedAttributes attributes;
    attributes.classification = true;
    attributes.intensity = true;
    attributes.color = m_rgbOffset != 0;
    return attributes;
}

void Las::readAt(uint64_t offset, std::span<uint8_t> bytes) const
{
    try
    {
        m_file.readExactly(offset, bytes);
    }
    catch (const FileError& e)
    {
        throw cannotRead(m_path, e);
    }
}

void Las::openGroup()
{
    closeGroup();
    m_pointsDone = 0;
    m_nrPoints = 0;
    try
    {
        m_file = FileDescriptor::openForReading(toPath(m_path));
    }
    catch (const FileError&)
    {
        // Gone or unreadable since the constructor looked: the scan has no point.
        return;
    }
    readHeader();
    m_pointsRemaining = m_nrPoints;
    // The buffer is bounded by the file's real records as well as by the batch.
    m_buffer.resize(std::min<uint64_t>(m_nrPoints, kBatchSize) * m_pointRecordLength);
}

void Las::readHeader()
{
    uint64_t fileSize = 0;
    try
    {
        fileSize = m_file.size();
    }
    catch (const FileError& e)
    {
        throw cannotRead(m_path, e);
    }
    const std::string path = ws2s(m_path);
    std::array<uint8_t, las::LasHeader::kBlockSize> block{};
    const std::span<uint8_t> bytes(block.data(), std::min<uint64_t>(block.size(), fileSize));
    readAt(0, bytes);
    const las::LasHeader header = las::parseLasHeader(bytes, path);

    useFileGrid(header.scale, header.offset);

    m_pointRecordLength = header.pointRecordLength;
    m_rgbOffset = header.layout.colourOffset;
    m_classificationOffset = header.layout.classificationOffset;
    // A header that promises more records than the file holds is cut to the whole records that are there.
    m_nrPoints = header.plausiblePointCount(fileSize);
    m_pointDataPosition = header.offsetToPointData;

    m_wkt = las::readCoordinateSystem(
        header, fileSize, [this](uint64_t offset, std::span<uint8_t> out) { readAt(offset, out); });
    m_headerStr = path + ": " + header.describe();
}

void Las::closeGroup()
{
    m_file = FileDescriptor();
    m_pointsRemaining = 0;
    cleanUpProj();
}

void Las::processBatch(std::vector<IoLightPoint>& batch, const Discretization& transfo, bool probing)
{
    batch.clear();
    if (m_pointsRemaining == 0)
        return;
    const uint64_t count = std::min<uint64_t>(m_pointsRemaining, kBatchSize);
    const size_t recordLength = m_pointRecordLength;
    readAt(m_pointDataPosition, std::span<uint8_t>(m_buffer.data(), count * recordLength));

    // Settings of the batch in locals: the compiler cannot know that the stores into the batch leave them be.
    const bool eightBit = !probing && getColorModeInit().rgb == kRgb8Bit;
    const bool identity = transfo.isIdentity;
    const size_t rgbOffset = m_rgbOffset;
    const size_t classificationOffset = m_classificationOffset;
    BatchRanges ranges;
    const uint8_t* record = m_buffer.data();
    for (uint64_t i = 0; i < count; ++i, record += recordLength)
    {
        IoLightPoint p;
        const int32_t x = las::loadField<int32_t>(record);
        const int32_t y = las::loadField<int32_t>(record + 4);
        const int32_t z = las::loadField<int32_t>(record + 8);
        if (identity)
        {
            p.x = x;
            p.y = y;
            p.z = z;
        }
        else if (!transfo.apply(x, y, z, p.x, p.y, p.z))
            continue;
        if (!onGrid(p))
            continue;

        const uint16_t intensity = las::loadField<uint16_t>(record + las::kIntensityOffset);
        uint16_t rgb[3] = {intensity, intensity, intensity};
        if (rgbOffset != 0)
            std::memcpy(rgb, record + rgbOffset, sizeof rgb);
        ranges.add(p, intensity, rgb);
        if (eightBit)
        {
            if (rgb[0] > 255 || rgb[1] > 255 || rgb[2] > 255)
                throw std::runtime_error("LAZ error: Expected r, g & b in range [0, 255] based on first " +
                                         std::to_string(kProbeSize) + " valid points.");
            for (uint16_t& channel : rgb)
                channel = static_cast<uint16_t>(channel << 8);
        }
        p.r = rgb[0];
        p.g = rgb[1];
        p.b = rgb[2];
        p.intensity = intensity;
        p.radius = 0.0f;
        p.classification = record[classificationOffset] & 0x1F;
        batch.push_back(p);
    }
    if (!batch.empty())
        ranges.widen(m_extents, m_colorRange);

    // Every record read is used up, delivered or dropped, so that each batch moves on: a run of dropped
    // points would otherwise be read again and again, and a file of nothing else would never end.
    m_pointDataPosition += count * recordLength;
    m_pointsRemaining -= count;
    m_pointsDone += count;
}

}  // namespace pc_preprocess
