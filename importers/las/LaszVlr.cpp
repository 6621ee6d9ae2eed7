#include "importers/las/LaszVlr.h"

#include <laszip/laszip_api.h>

#include <cstring>
#include <stdexcept>

#include "importers/las/LasBytes.h"

namespace pc_preprocess
{

namespace
{

// "LASF_Projection" and the zero after it: a longer id that merely begins so is someone else's.
constexpr char kProjectionUserId[16] = "LASF_Projection";

// A zero-padded text field up to its first zero, never beyond its size.
std::string fieldText(const char* field, size_t size)
{
    return std::string(field, strnlen(field, size));
}

}  // namespace

LaszVlr::LaszVlr(uint16_t globalEncoding) : m_isWkt((globalEncoding & kWktEncodingBit) != 0) {}

bool LaszVlr::isInterpretable(const char userId[16], uint16_t recordId, bool isWkt)
{
    if (std::memcmp(userId, kProjectionUserId, sizeof kProjectionUserId) != 0)
        return false;
    if (isWkt)
        return recordId == kMathTransformWkt || recordId == kCoordinateSystemWkt;
    return recordId == kGeoKeyDirectory || recordId == kGeoDoubleParams || recordId == kGeoAsciiParams;
}

std::pair<bool, uint16_t> LaszVlr::parseHeader(const std::vector<uint8_t>& data)
{
    if (data.size() != kHeaderSize)
        throw std::runtime_error("LaszVlr::parseHeader: dataSize != " + std::to_string(kHeaderSize) + ".\n");
    const uint8_t* b = data.data();
    m_reserved = las::loadField<uint16_t>(b);
    std::memcpy(m_userId, b + 2, sizeof m_userId);
    m_recordId = las::loadField<uint16_t>(b + 18);
    m_recordLength = las::loadField<uint16_t>(b + 20);
    std::memcpy(m_description, b + 22, sizeof m_description);
    return {isInterpretable(), m_recordLength};
}

void LaszVlr::parseRecord(const laszip_vlr& vlr)
{
    m_reserved = vlr.reserved;
    std::memcpy(m_userId, vlr.user_id, sizeof m_userId);
    m_recordId = vlr.record_id;
    m_recordLength = vlr.record_length_after_header;
    std::memcpy(m_description, vlr.description, sizeof m_description);
    if (!isInterpretable())
        return;
    // A record without data is one of length 0; any other length then fails as a size that differs.
    parseRecord(vlr.data, vlr.data != nullptr ? vlr.record_length_after_header : 0);
}

void LaszVlr::parseRecord(const uint8_t* data, size_t size)
{
    if (size != m_recordLength)
        throw std::runtime_error("LaszVlr::parseRecord: dataSize != m_recordLength.\n");
    if (!isInterpretable())
        throw std::runtime_error("LaszVlr::parseRecord: record not interpretable:\n" + printHeader());

    if (m_isWkt)
    {
        // Both WKT records hold the system; a file gives only one of them.
        if (!m_wkt.empty())
            throw std::runtime_error("LaszVlr::parseRecord: WKT already copied.\n");
        m_wkt.assign(reinterpret_cast<const char*>(data), size);
        // Writers pad the text with zeros to a length of their liking.
        m_wkt.erase(m_wkt.find_last_not_of('\0') + 1);
        return;
    }
    switch (m_recordId)
    {
        case kGeoKeyDirectory:
            copyGeoTiff(m_geotiffKeyDir, data, size, 8, "GEOTIFF KEY DIR");
            break;
        case kGeoDoubleParams:
            copyGeoTiff(m_geotiffDouble, data, size, 8, "GEOTIFF DOUBLE");
            break;
        default:
            copyGeoTiff(m_geotiffAscii, data, size, 1, "GEOTIFF ASCII");
            break;
    }
}

void LaszVlr::copyGeoTiff(std::vector<uint8_t>& target, const uint8_t* data, size_t size, size_t valueSize,
                          const char* name)
{
    if (size % valueSize != 0)
        throw std::runtime_error(std::string("LaszVlr::parseRecord: record length not compatible with ") +
                                 name + ".\n");
    if (!target.empty())
        throw std::runtime_error(std::string("LaszVlr::parseRecord: record ") + name + " already copied.\n");
    target.assign(data, data + size);
}

std::string LaszVlr::printHeader() const
{
    return "    Reserved = " + std::to_string(m_reserved) + "\n    User ID = \"" +
           fieldText(m_userId, sizeof m_userId) + "\"\n    Record ID = " + std::to_string(m_recordId) +
           "\n    Record Length After Header = " + std::to_string(m_recordLength) + "\n    Description = \"" +
           fieldText(m_description, sizeof m_description) + "\"\n";
}

const std::string& LaszVlr::getWKT()
{
    if (!m_isWkt && m_wkt.empty() && !m_geotiffAscii.empty() && !m_geotiffKeyDir.empty())
        m_wkt = lasz_vlr::convertGEOTIFFtoWKT(m_geotiffKeyDir, m_geotiffDouble, m_geotiffAscii);
    // What the conversion makes of keys that name no usable system: no coordinate system at all.
    if (m_wkt.find("Fake_Geoid_WrNull.gdf") != std::string::npos &&
        m_wkt.find("irretrievable") != std::string::npos)
        m_wkt.clear();
    return m_wkt;
}

}  // namespace pc_preprocess
