#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

// LASzip's record of one VLR, as <laszip/laszip_api.h> declares it; its header stays out of this one.
struct laszip_vlr;

namespace pc_preprocess
{

// Interprets the variable length records of a LAS or LAZ file that carry its coordinate system, and turns
// them into a WKT text. A file states its system in one of two forms, chosen by bit 4 of its global encoding:
// WKT records (ids 2111 and 2112), or the three GeoTIFF records (34735 key directory, 34736 doubles, 34737
// ASCII), which libgeotiff and GDAL turn into WKT. Only records of the user id "LASF_Projection" in the form
// the encoding names are read; the rest is passed over.
//
// The 54-byte VLR header, little-endian:
//
//   offset  size  field
//   0       2     reserved
//   2       16    user id, zero-padded
//   18      2     record id
//   20      2     record length after the header
//   22      32    description, zero-padded
class LaszVlr
{
public:
    static constexpr size_t kHeaderSize = 54;
    // The bit of the LAS global encoding that says the coordinate system is given as WKT.
    static constexpr uint16_t kWktEncodingBit = 1 << 4;
    static constexpr uint16_t kGeoKeyDirectory = 34735;
    static constexpr uint16_t kGeoDoubleParams = 34736;
    static constexpr uint16_t kGeoAsciiParams = 34737;
    static constexpr uint16_t kMathTransformWkt = 2111;
    static constexpr uint16_t kCoordinateSystemWkt = 2112;

    explicit LaszVlr(uint16_t globalEncoding);

    // Takes the header of the next record from exactly 54 bytes; returns whether its payload is
    // interpretable, and the length of that payload.
    std::pair<bool, uint16_t> parseHeader(const std::vector<uint8_t>& data);
    // Takes the payload of the record whose header came last. Throws for a size that differs from the
    // header's, for a record that is not interpretable, for a second record of the same kind, and for a
    // GeoTIFF record of a size that its values cannot fill.
    void parseRecord(const uint8_t* data, size_t size);
    // Takes header and payload of a record that LASzip read, and passes over one that is not interpretable.
    void parseRecord(const laszip_vlr& vlr);

    // The fields of the last header, for messages.
    std::string printHeader() const;
    // The coordinate system as WKT; empty when the records give none. GeoTIFF records are converted at the
    // first call that finds them complete.
    const std::string& getWKT();

    // A record of this user id and record id holds a coordinate system in the form the encoding names.
    static bool isInterpretable(const char userId[16], uint16_t recordId, bool isWkt);

private:
    bool isInterpretable() const { return isInterpretable(m_userId, m_recordId, m_isWkt); }
    // Stores a GeoTIFF payload once; its size must be a multiple of valueSize.
    void copyGeoTiff(std::vector<uint8_t>& target, const uint8_t* data, size_t size, size_t valueSize,
                     const char* name);

    bool m_isWkt;
    uint16_t m_reserved = 0;
    char m_userId[16] = {};
    uint16_t m_recordId = 0;
    uint16_t m_recordLength = 0;
    char m_description[32] = {};
    std::vector<uint8_t> m_geotiffKeyDir;
    std::vector<uint8_t> m_geotiffDouble;
    std::vector<uint8_t> m_geotiffAscii;
    std::string m_wkt;
};

namespace lasz_vlr
{

// The WKT of a coordinate system given as GeoTIFF keys: the payloads of the records 34735 (16-bit values),
// 34736 (doubles) and 34737 (ASCII). Throws for a key directory that is empty or not a whole number of keys
// and for doubles that are not whole; keys from which libgeotiff can make no definition give an empty text.
std::string convertGEOTIFFtoWKT(const std::vector<uint8_t>& keyDir, const std::vector<uint8_t>& doubles,
                                const std::vector<uint8_t>& ascii);

}  // namespace lasz_vlr

}  // namespace pc_preprocess
