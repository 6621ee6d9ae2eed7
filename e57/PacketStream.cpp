#include "e57/PacketStream.h"

#include <cstring>

#include "e57/E57Exception.h"

namespace e57
{

namespace
{

constexpr size_t kSectionHeaderSize = 32;
constexpr uint8_t kIndexPacket = 0;
constexpr uint8_t kDataPacket = 1;
constexpr uint8_t kEmptyPacket = 2;
constexpr uint64_t kDataHeaderSize = 6;

template <typename T>
T load(const uint8_t* bytes)
{
    T value;
    std::memcpy(&value, bytes, sizeof value);
    return value;
}

}  // namespace

PacketStream::PacketStream(const PagedFile& file, const Node& compressedVector)
    : m_reader(file), m_where("compressed vector " + compressedVector.pathName() + " of " + file.name())
{
    const uint64_t start = compressedVector.binaryOffset;
    const uint64_t fileEnd = file.logicalSize();
    if (start > fileEnd || kSectionHeaderSize > fileEnd - start)
        E57_THROW(ErrorCode::BadCVHeader, m_where + ": its section header at offset " +
                                              std::to_string(logicalToPhysical(start)) +
                                              " lies past the end of the file");
    uint8_t header[kSectionHeaderSize];
    m_reader.read(start, header, sizeof header);
    if (header[0] != 1)
        E57_THROW(ErrorCode::BadCVHeader, m_where + ": section id " + std::to_string(header[0]) +
                                              " at offset " + std::to_string(logicalToPhysical(start)) +
                                              ", not 1 (compressed vector)");
    const auto length = load<uint64_t>(header + 8);
    const auto dataOffset = load<uint64_t>(header + 16);
    if (length < kSectionHeaderSize || length > fileEnd - start)
        E57_THROW(ErrorCode::BadCVHeader,
                  m_where + ": a section of " + std::to_string(length) + " bytes does not fit the file");
    m_end = start + length;
    const uint64_t dataStart = physicalToLogical(dataOffset);
    const bool dataInside =
        !isChecksumOffset(dataOffset) && dataStart >= start + kSectionHeaderSize && dataStart <= m_end;
    if (!dataInside && compressedVector.recordCount > 0)
        E57_THROW(ErrorCode::BadCVHeader,
                  m_where + ": its data offset " + std::to_string(dataOffset) + " lies outside its section");
    m_next = dataInside ? dataStart : m_end;
}

void PacketStream::badPacket(const std::string& what) const
{
    E57_THROW(ErrorCode::BadCVPacket,
              m_where + ": the packet at offset " + std::to_string(logicalToPhysical(m_next)) + " " + what);
}

bool PacketStream::next(std::span<ByteStream> streams, const std::vector<bool>& skip)
{
    while (m_next < m_end)
    {
        uint8_t prefix[kDataHeaderSize] = {};
        if (m_end - m_next < 4)
            badPacket("is cut off by the section's end");
        m_reader.read(m_next, prefix, 4);
        const uint64_t length = uint64_t{load<uint16_t>(prefix + 2)} + 1;
        if (length > m_end - m_next)
            badPacket("of " + std::to_string(length) + " bytes runs past the section's end");
        if (prefix[0] == kIndexPacket || prefix[0] == kEmptyPacket)
        {
            m_next += length;
            continue;
        }
        if (prefix[0] != kDataPacket)
            badPacket("has the unknown type " + std::to_string(prefix[0]));
        if (length < kDataHeaderSize)
            badPacket("is a data packet of only " + std::to_string(length) + " bytes");
        m_reader.read(m_next + 4, prefix + 4, 2);
        const size_t count = load<uint16_t>(prefix + 4);
        if (count == 0)
        {
            // A writer may close a section without records by a data packet without bytestreams.
            m_next += length;
            continue;
        }
        if (count != streams.size())
            badPacket("has " + std::to_string(count) + " bytestreams for the prototype's " +
                      std::to_string(streams.size()) + " fields");
        const uint64_t headerSize = kDataHeaderSize + 2 * uint64_t{count};
        if (headerSize > length)
            badPacket("of " + std::to_string(length) + " bytes cannot hold its " + std::to_string(count) +
                      " bytestream lengths");
        m_lengths.resize(count);
        m_reader.read(m_next + kDataHeaderSize, m_lengths.data(), 2 * count);
        uint64_t total = headerSize;
        for (uint16_t bytes : m_lengths)
            total += bytes;
        if (total > length)
            badPacket("of " + std::to_string(length) + " bytes is shorter than its bytestreams of " +
                      std::to_string(total - headerSize) + " bytes and its header");
        uint64_t at = m_next + headerSize;
        for (size_t i = 0; i < count; ++i)
        {
            const size_t bytes = m_lengths[i];
            if (bytes > 0 && !skip[i])
            {
                if (streams[i].bufferedBytes() + bytes > kMaxBufferedBytes)
                    badPacket("brings bytestream " + std::to_string(i) + " more than " +
                              std::to_string(kMaxBufferedBytes) + " bytes ahead of the others");
                m_reader.read(at, streams[i].append(bytes), bytes);
            }
            at += bytes;
        }
        m_next += length;
        return true;
    }
    return false;
}

}  // namespace e57
