#include "importers/laz/LazFileCheck.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <vector>

#include "core/ErrorWithReason.h"
#include "importers/laz/LazFileStream.h"

namespace pc_preprocess::laz
{

namespace
{

// Fields of the LAS header (all versions), little-endian:
//
// | offset | size | field                          |
// |--------|------|--------------------------------|
// | 0      | 4    | "LASF"                         |
// | 24     | 1    | version major                  |
// | 25     | 1    | version minor                  |
// | 94     | 2    | header size                    |
// | 96     | 4    | offset to point data           |
// | 100    | 4    | number of VLRs                 |
//
// Each VLR: a 54-byte header (user id at 2, 16 bytes; record id at 18; payload length at 20) and its payload.
// The LASzip record ("laszip encoded", 22204) holds, among others, the compressor at 0 (2 bytes) and the item
// count at 32 (2 bytes), followed by 6 bytes per item. The point data of a chunked compressed file begin with
// the 8-byte offset of the chunk table (-1: the offset is in the last 8 bytes of the file); the table begins
// with a version (4 bytes, 0) and the number of chunks (4 bytes).
constexpr size_t kLegacyHeaderSize = 227;
constexpr size_t kVlrHeaderSize = 54;
constexpr uint16_t kLaszipRecordId = 22204;
constexpr size_t kLaszipRecordFixedSize = 34;
constexpr size_t kLaszipItemSize = 6;
constexpr uint16_t kPointwiseChunked = 2;
constexpr uint16_t kLayeredChunked = 3;

// What the point reader needs to know of the LASzip record.
struct LaszipRecord
{
    uint16_t compressor = 0;
    uint32_t chunkSize = 0;

    bool chunked() const { return compressor == kPointwiseChunked || compressor == kLayeredChunked; }
    // Chunks of varying size, whose sizes only the chunk table knows.
    bool variableChunks() const { return chunkSize == 0 || chunkSize == UINT32_MAX; }
};

// The point records of the LAS formats 0 to 10 are at least this long.
constexpr std::array<uint16_t, 11> kSmallestRecords = {20, 28, 26, 34, 57, 63, 30, 36, 38, 59, 67};

// One item of the LASzip record: a part of the point record, and the version of its coder.
struct LaszipItem
{
    uint16_t type;
    uint16_t size;
    uint16_t version;
};

// Item types, as LASzip numbers them.
enum LaszipItemType : uint16_t
{
    kByte = 0,
    kPoint10 = 6,
    kGpsTime11 = 7,
    kRgb12 = 8,
    kWavePacket13 = 9,
    kPoint14 = 10,
    kRgb14 = 11,
    kRgbNir14 = 12,
    kWavePacket14 = 13,
    kByte14 = 14,
};

bool isLas14Item(uint16_t type)
{
    return type >= kPoint14 && type <= kByte14;
}

// What LASzip checks when it takes the record, and what its point reader then knows how to decode.
bool isReadable(const LaszipItem& item, uint16_t compressor)
{
    const bool compressed = compressor != 0;
    // Coders of the older items start at version 1; version 0 means uncompressed.
    const auto version = [&](uint16_t highest)
    { return item.version <= highest && (!compressed || item.version >= 1); };
    const auto version14 = [&](uint16_t highest)
    {
        return compressed ? item.version >= 2 && item.version <= highest
                          : item.version == 0 || (item.version >= 2 && item.version <= highest);
    };
    switch (item.type)
    {
        case kPoint10:
            return item.size == 20 && version(2);
        case kGpsTime11:
            return item.size == 8 && version(2);
        case kRgb12:
        case kRgb14:
            return item.size == 6 && (item.type == kRgb12 ? version(2) : version14(4));
        case kByte:
            return item.size >= 1 && version(2);
        case kWavePacket13:
            return item.size == 29 && version(1);
        case kPoint14:
            return item.size == 30 && version14(4);
        case kRgbNir14:
            return item.size == 8 && version14(4);
        case kByte14:
            return item.size >= 1 && version14(4);
        case kWavePacket14:
            return item.size == 29 &&
                   (compressed ? item.version == 3 : item.version == 0 || item.version == 3);
        default:
            return false;
    }
}

template <typename T>
T little(const uint8_t* bytes)
{
    T value = 0;
    for (size_t i = 0; i < sizeof(T); ++i)
        value |= static_cast<T>(static_cast<T>(bytes[i]) << (8 * i));
    return value;
}

uint16_t smallestHeader(uint8_t major, uint8_t minor)
{
    if (major == 1 && minor >= 4)
        return 375;
    if (major == 1 && minor >= 3)
        return 235;
    return kLegacyHeaderSize;
}

class Checker
{
public:
    explicit Checker(LazFileStream& file) : m_file(file) {}

    LazFileLayout check()
    {
        LazFileLayout layout;
        layout.pointDataEnd = m_file.size();
        std::array<uint8_t, kLegacyHeaderSize> header{};
        if (!m_file.readAt(0, header) || std::memcmp(header.data(), "LASF", 4) != 0)
            return layout;
        const uint16_t headerSize = little<uint16_t>(&header[94]);
        const uint64_t pointData = little<uint32_t>(&header[96]);
        const uint64_t vlrCount = little<uint32_t>(&header[100]);

        const uint16_t smallest = smallestHeader(header[24], header[25]);
        if (headerSize < smallest)
            fail("the header size " + std::to_string(headerSize) + " is below the " +
                 std::to_string(smallest) + " bytes of its LAS version");
        if (pointData < headerSize || pointData > m_file.size())
            fail("the point data would start at byte " + std::to_string(pointData) +
                 ", outside the file of " + std::to_string(m_file.size()) + " bytes after its " +
                 std::to_string(headerSize) + "-byte header");
        if (vlrCount * kVlrHeaderSize > pointData - headerSize)
            fail(std::to_string(vlrCount) + " VLRs do not fit into the " +
                 std::to_string(pointData - headerSize) + " bytes before the point data");

        const std::optional<LaszipRecord> record = findLaszipRecord(headerSize, vlrCount, pointData, header);
        if (!record)
            checkPlainRecords(header);
        else if (record->chunked())
            checkChunkTable(pointData, *record, layout);
        return layout;
    }

private:
    // The check stands in front of LASzip's opening of the reader, which is what fails.
    [[noreturn]] void fail(const std::string& what) const
    {
        throw ErrorWithReason("LAZ error: Could not create reader stream.",
                              "The file is damaged: " + what + ".");
    }

    // The last LASzip record, none when there is no such record. VLRs that would reach into the point data
    // are passed over, as LASzip passes over them.
    std::optional<LaszipRecord> findLaszipRecord(uint64_t position, uint64_t vlrCount, uint64_t pointData,
                                                 const std::array<uint8_t, kLegacyHeaderSize>& header) const
    {
        std::optional<LaszipRecord> record;
        for (uint64_t i = 0; i < vlrCount && position + kVlrHeaderSize <= pointData; ++i)
        {
            std::array<uint8_t, kVlrHeaderSize> vlr{};
            if (!m_file.readAt(position, vlr))
                break;
            const uint16_t length = little<uint16_t>(&vlr[20]);
            const uint64_t payload = position + kVlrHeaderSize;
            position = payload + length;
            if (std::strncmp(reinterpret_cast<const char*>(&vlr[2]), "laszip encoded", 16) == 0 &&
                little<uint16_t>(&vlr[18]) == kLaszipRecordId)
                record = checkLaszipRecord(payload, length, pointData, little<uint16_t>(&header[105]));
        }
        return record;
    }

    // LASzip reads the item list whatever the record's length says, and leaks what it made for a record it
    // then refuses: only records it reads without complaint pass.
    LaszipRecord checkLaszipRecord(uint64_t payload, uint16_t length, uint64_t pointData,
                                   uint16_t recordLength) const
    {
        std::vector<uint8_t> bytes(length);
        if (length < kLaszipRecordFixedSize || payload + length > pointData ||
            !m_file.readAt(payload, bytes) ||
            kLaszipRecordFixedSize + kLaszipItemSize * little<uint16_t>(&bytes[32]) != length)
            fail("its LASzip record is malformed");
        const uint16_t compressor = little<uint16_t>(&bytes[0]);
        const uint16_t coder = little<uint16_t>(&bytes[2]);
        const size_t items = little<uint16_t>(&bytes[32]);
        if (compressor > kLayeredChunked || coder != 0 || items == 0)
            fail("its LASzip record names compressor " + std::to_string(compressor) + " and coder " +
                 std::to_string(coder) + " with " + std::to_string(items) + " items");
        uint32_t size = 0;
        for (size_t i = 0; i < items; ++i)
        {
            const uint8_t* item = &bytes[kLaszipRecordFixedSize + kLaszipItemSize * i];
            const LaszipItem described{little<uint16_t>(item), little<uint16_t>(item + 2),
                                       little<uint16_t>(item + 4)};
            // Items of the LAS 1.4 formats come with the layered compressor and no other.
            if (!isReadable(described, compressor) ||
                (compressor != 0 && (isLas14Item(described.type) != (compressor == kLayeredChunked))))
                fail("its LASzip record describes an item (type " + std::to_string(described.type) +
                     ", size " + std::to_string(described.size) + ", version " +
                     std::to_string(described.version) + ") that cannot be read with compressor " +
                     std::to_string(compressor));
            size += described.size;
        }
        if (size != recordLength)
            fail("its LASzip items make records of " + std::to_string(size) + " bytes, not of the " +
                 std::to_string(recordLength) + " bytes of the header");
        return {compressor, little<uint32_t>(&bytes[12])};
    }

    // Uncompressed records: LASzip warns on the terminal about records too short for their format, and leaks
    // what it made for a format it does not know.
    void checkPlainRecords(const std::array<uint8_t, kLegacyHeaderSize>& header) const
    {
        const uint8_t format = header[104];
        const uint16_t recordLength = little<uint16_t>(&header[105]);
        // The marks of a compressed format without its LASzip record: LASzip refuses that by itself.
        if ((format & 0xC0) != 0)
            return;
        if (format >= kSmallestRecords.size())
            throw std::runtime_error("LAZ error: only formats up to and including number " +
                                     std::to_string(kSmallestRecords.size() - 1) + " currently supported.");
        if (recordLength < kSmallestRecords[format])
            fail("its point records of " + std::to_string(recordLength) + " bytes are shorter than the " +
                 std::to_string(kSmallestRecords[format]) + " bytes of point format " +
                 std::to_string(format));
    }

    // LASzip reads the chunk table at the first point and indexes it without checking: a table that lists
    // fewer chunks than it reads makes it write past the table's end, and a table it cannot read, for chunks
    // of varying size or when the file ends inside the table's first 8 bytes, makes it write through a null
    // pointer. Such a file is marked damaged, so that no point is read from it; for the rest the table bounds
    // what may be read.
    void checkChunkTable(uint64_t pointData, const LaszipRecord& record, LazFileLayout& layout) const
    {
        const uint64_t chunksStart = pointData + 8;
        std::array<uint8_t, 8> offsetBytes{};
        if (!m_file.readAt(pointData, offsetBytes))
        {
            layout.damage = "the file ends at byte " + std::to_string(m_file.size()) +
                            ", inside the 8 bytes that begin its point data";
            return;
        }
        int64_t table = static_cast<int64_t>(little<uint64_t>(offsetBytes.data()));
        // Written by a writer that could not seek back: the offset is in the last 8 bytes.
        if (table == -1 && m_file.readAt(m_file.size() - 8, offsetBytes))
            table = static_cast<int64_t>(little<uint64_t>(offsetBytes.data()));
        const std::string varying = record.variableChunks() ? "its chunks are of varying size, and " : "";
        // A writer that was interrupted before its table marks it so; LASzip then finds the chunks as it
        // reads, as long as they are all of one size.
        if (table == static_cast<int64_t>(pointData))
        {
            if (record.variableChunks())
                layout.damage = varying + "its writer stopped before writing their table";
            return;
        }
        std::array<uint8_t, 8> tableHeader{};
        if (table < static_cast<int64_t>(chunksStart) ||
            !m_file.readAt(static_cast<uint64_t>(table), tableHeader))
        {
            layout.damage = table < static_cast<int64_t>(chunksStart)
                                ? "its chunk table would start at byte " + std::to_string(table) +
                                      ", before its point data"
                                : "the file ends at byte " + std::to_string(m_file.size()) +
                                      " before its chunk table, which would start at byte " +
                                      std::to_string(table) + ": it is truncated";
            return;
        }
        const uint32_t version = little<uint32_t>(&tableHeader[0]);
        const uint64_t chunks = little<uint32_t>(&tableHeader[4]);
        const uint64_t chunkBytes = static_cast<uint64_t>(table) - chunksStart;
        if (version != 0)
        {
            if (record.variableChunks())
                layout.damage = varying + "their table is of the unknown version " + std::to_string(version);
            return;
        }
        // Each chunk takes at least one byte; LASzip sizes its table by the count, and a count of 2^32 - 1
        // wraps.
        if (chunks > chunkBytes || chunks == UINT32_MAX || (chunks == 0 && record.variableChunks()))
        {
            layout.damage = varying + "its chunk table lists " + std::to_string(chunks) + " chunks in " +
                            std::to_string(chunkBytes) + " bytes of point data";
            return;
        }
        layout.pointDataEnd = static_cast<uint64_t>(table);
        if (!record.variableChunks())
            layout.pointLimit = chunks * record.chunkSize;
    }

    LazFileStream& m_file;
};

}  // namespace

LazFileLayout checkLazFile(LazFileStream& file)
{
    LazFileLayout layout = Checker(file).check();
    file.clear();
    file.seekg(0);
    return layout;
}

}  // namespace pc_preprocess::laz
