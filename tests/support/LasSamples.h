#pragma once

// LAS files written byte by byte from a description, so that tests can make valid files and every kind of
// broken one (lying counts, VLRs past the end, foreign formats), and a synthetic scan whose points follow
// from their index, which the benchmarks write in any size. Header-only, so that benchmarks use it without
// the test library. The layout follows the public LAS 1.0 to 1.4 descriptions and is kept apart from the
// importer's own tables on purpose: a test that borrowed them could not catch a mistake in them.
#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace pcp_test
{

// The fields of a point record that the importer reads.
struct LasRecord
{
    int32_t x = 0;
    int32_t y = 0;
    int32_t z = 0;
    uint16_t intensity = 0;
    uint8_t classification = 0;  // the whole byte, flags of the old formats included
    uint16_t r = 0;
    uint16_t g = 0;
    uint16_t b = 0;
};

struct LasVlrRecord
{
    std::string userId;  // at most 16 bytes, zero-padded
    uint16_t recordId = 0;
    std::string description;
    std::vector<uint8_t> payload;
    // The length the record's header states, when it is to differ from the payload's.
    std::optional<uint16_t> statedLength;
};

struct LasLayout
{
    uint8_t versionMinor = 2;
    uint8_t pointFormat = 3;
    uint16_t recordLength = 0;  // 0: the smallest of the format
    uint16_t globalEncoding = 0;
    std::array<double, 3> scale{0.001, 0.001, 0.001};
    std::array<double, 3> offset{0.0, 0.0, 0.0};
    std::vector<LasVlrRecord> vlrs;
    // What the header says, when it is to differ from the records written: the count of the version (legacy
    // up to 1.3, 64-bit from 1.4 on), the legacy count of a 1.4 file, the number of VLRs.
    std::optional<uint64_t> statedCount;
    std::optional<uint32_t> statedLegacyCount;
    std::optional<uint32_t> statedVlrCount;
};

// Smallest record length, colour offset (0: none) and classification offset of the LAS point formats 0 to 10.
struct LasFormatFields
{
    uint16_t recordLength;
    uint16_t colour;
    uint16_t classification;
};
inline LasFormatFields lasFormatFields(uint8_t format)
{
    static const LasFormatFields fields[] = {{20, 0, 15},  {28, 0, 15},  {26, 20, 15}, {34, 28, 15},
                                             {57, 0, 15},  {63, 28, 15}, {30, 0, 16},  {36, 30, 16},
                                             {38, 30, 16}, {59, 0, 16},  {67, 30, 16}};
    return format <= 10 ? fields[format] : LasFormatFields{20, 0, 15};
}

inline uint16_t lasRecordLength(const LasLayout& layout)
{
    return layout.recordLength != 0 ? layout.recordLength : lasFormatFields(layout.pointFormat).recordLength;
}

inline uint16_t lasHeaderSize(uint8_t versionMinor)
{
    return versionMinor >= 4 ? 375 : versionMinor == 3 ? 235 : 227;
}

template <typename T>
void putField(std::vector<uint8_t>& bytes, size_t offset, T value)
{
    std::memcpy(bytes.data() + offset, &value, sizeof value);
}

inline void putText(std::vector<uint8_t>& bytes, size_t offset, const std::string& text, size_t size)
{
    std::memcpy(bytes.data() + offset, text.data(), std::min(text.size(), size));
}

// The 54-byte header and the payload of a VLR.
inline std::vector<uint8_t> lasVlrBytes(const LasVlrRecord& vlr)
{
    std::vector<uint8_t> bytes(54, 0);
    putText(bytes, 2, vlr.userId, 16);
    putField<uint16_t>(bytes, 18, vlr.recordId);
    putField<uint16_t>(bytes, 20, vlr.statedLength.value_or(static_cast<uint16_t>(vlr.payload.size())));
    putText(bytes, 22, vlr.description, 32);
    bytes.insert(bytes.end(), vlr.payload.begin(), vlr.payload.end());
    return bytes;
}

// Max and min per axis in real coordinates, in the header's order: max X, min X, max Y, min Y, max Z, min Z.
using LasBounds = std::array<double, 6>;

// Public header block and VLRs for `records` point records; the point data follow directly.
inline std::vector<uint8_t> lasHeaderBytes(const LasLayout& layout, uint64_t records,
                                           const LasBounds& bounds = {})
{
    const uint16_t headerSize = lasHeaderSize(layout.versionMinor);
    std::vector<uint8_t> bytes(headerSize, 0);
    putText(bytes, 0, "LASF", 4);
    putField<uint16_t>(bytes, 6, layout.globalEncoding);
    bytes[24] = 1;
    bytes[25] = layout.versionMinor;
    putText(bytes, 26, "pointcloud_preprocess tests", 32);
    putText(bytes, 58, "LasSamples", 32);
    putField<uint16_t>(bytes, 94, headerSize);
    putField<uint32_t>(bytes, 100, layout.statedVlrCount.value_or(static_cast<uint32_t>(layout.vlrs.size())));
    bytes[104] = layout.pointFormat;
    putField<uint16_t>(bytes, 105, lasRecordLength(layout));

    const uint64_t count = layout.statedCount.value_or(records);
    const bool legacyFits = count <= UINT32_MAX && (layout.pointFormat & 0x7F) < 6;
    if (layout.versionMinor >= 4)
    {
        putField<uint32_t>(bytes, 107, layout.statedLegacyCount.value_or(legacyFits ? uint32_t(count) : 0));
        putField<uint64_t>(bytes, 247, count);
    }
    else
        putField<uint32_t>(bytes, 107, layout.statedLegacyCount.value_or(static_cast<uint32_t>(count)));
    for (int axis = 0; axis < 3; ++axis)
    {
        putField<double>(bytes, 131 + 8 * axis, layout.scale[axis]);
        putField<double>(bytes, 155 + 8 * axis, layout.offset[axis]);
    }
    for (int i = 0; i < 6; ++i)
        putField<double>(bytes, 179 + 8 * i, bounds[i]);

    for (const LasVlrRecord& vlr : layout.vlrs)
    {
        const std::vector<uint8_t> record = lasVlrBytes(vlr);
        bytes.insert(bytes.end(), record.begin(), record.end());
    }
    putField<uint32_t>(bytes, 96, static_cast<uint32_t>(bytes.size()));
    return bytes;
}

inline void appendLasRecord(std::vector<uint8_t>& out, const LasLayout& layout, const LasRecord& p)
{
    const LasFormatFields fields = lasFormatFields(layout.pointFormat);
    const size_t at = out.size();
    out.resize(at + lasRecordLength(layout), 0);
    putField<int32_t>(out, at, p.x);
    putField<int32_t>(out, at + 4, p.y);
    putField<int32_t>(out, at + 8, p.z);
    putField<uint16_t>(out, at + 12, p.intensity);
    out[at + fields.classification] = p.classification;
    if (fields.colour != 0)
    {
        putField<uint16_t>(out, at + fields.colour, p.r);
        putField<uint16_t>(out, at + fields.colour + 2, p.g);
        putField<uint16_t>(out, at + fields.colour + 4, p.b);
    }
}

inline LasBounds lasBounds(const LasLayout& layout, const std::vector<LasRecord>& records)
{
    LasBounds bounds{};
    for (size_t i = 0; i < records.size(); ++i)
    {
        const int32_t raw[3] = {records[i].x, records[i].y, records[i].z};
        for (int axis = 0; axis < 3; ++axis)
        {
            const double v = raw[axis] * layout.scale[axis] + layout.offset[axis];
            bounds[2 * axis] = i == 0 ? v : std::max(bounds[2 * axis], v);
            bounds[2 * axis + 1] = i == 0 ? v : std::min(bounds[2 * axis + 1], v);
        }
    }
    return bounds;
}

inline std::vector<uint8_t> lasFileBytes(const LasLayout& layout, const std::vector<LasRecord>& records)
{
    std::vector<uint8_t> bytes = lasHeaderBytes(layout, records.size(), lasBounds(layout, records));
    for (const LasRecord& p : records)
        appendLasRecord(bytes, layout, p);
    return bytes;
}

inline void writeBytes(const std::filesystem::path& path, const std::vector<uint8_t>& bytes)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (!out.flush())
        throw std::runtime_error("cannot write " + path.string());
}

// Point `index` of a synthetic terrain scan: rows of 4000 points 5 mm apart, a wavy height, and intensity,
// colour and class all derived from the index, so that any point can be predicted.
inline LasRecord lasSample(uint64_t index)
{
    LasRecord p;
    p.x = static_cast<int32_t>(index % 4000) * 5;
    p.y = static_cast<int32_t>(index / 4000) * 5;
    p.z = static_cast<int32_t>((index * 7919) % 3001) - 1500;
    p.intensity = static_cast<uint16_t>(index * 13);
    p.classification = static_cast<uint8_t>(index % 19);
    p.r = static_cast<uint16_t>(index * 257);
    p.g = static_cast<uint16_t>(index * 101);
    p.b = static_cast<uint16_t>(65535 - index % 65536);
    return p;
}

// Writes points 0 .. count - 1 of the synthetic scan, streaming: memory stays small for any count. The
// header's box is that of the points.
inline void writeLasSamples(const std::filesystem::path& path, uint64_t count, const LasLayout& layout = {})
{
    constexpr uint64_t kChunk = 65536;
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    std::vector<uint8_t> bytes = lasHeaderBytes(layout, count);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    std::vector<LasRecord> chunk;
    LasBounds bounds{};
    for (uint64_t first = 0; first < count; first += kChunk)
    {
        chunk.clear();
        for (uint64_t i = first; i < std::min(count, first + kChunk); ++i)
            chunk.push_back(lasSample(i));
        const LasBounds chunkBounds = lasBounds(layout, chunk);
        for (int axis = 0; axis < 3; ++axis)
        {
            bounds[2 * axis] =
                first == 0 ? chunkBounds[2 * axis] : std::max(bounds[2 * axis], chunkBounds[2 * axis]);
            bounds[2 * axis + 1] = first == 0 ? chunkBounds[2 * axis + 1]
                                              : std::min(bounds[2 * axis + 1], chunkBounds[2 * axis + 1]);
        }
        bytes.clear();
        for (const LasRecord& p : chunk)
            appendLasRecord(bytes, layout, p);
        out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    }
    bytes = lasHeaderBytes(layout, count, bounds);
    out.seekp(0);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (!out.flush())
        throw std::runtime_error("cannot write " + path.string());
}

}  // namespace pcp_test
