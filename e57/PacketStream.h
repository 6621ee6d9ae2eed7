#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "e57/Bitpack.h"
#include "e57/Node.h"
#include "e57/PagedFile.h"

namespace e57
{

// The binary section of a compressed vector, walked packet by packet from its first data packet to its end.
//
// Section header, at the compressed vector's fileOffset:
//   offset  size  content
//   0       1     section id, 1 for a compressed vector
//   1       7     reserved
//   8       8     the section's logical length, header included
//   16      8     physical offset of the first data packet
//   24      8     physical offset of the first index packet (0: none)
//
// Every packet starts with its type and its logical length minus 1:
//   0       1     packet type: 0 index, 1 data, 2 empty
//   1       1     flags (data) or reserved
//   2       2     logical length - 1
// A data packet goes on with:
//   4       2     bytestream count, one per field of the prototype in document order
//   6       2 n   the bytes of each bytestream in this packet
//   6 + 2 n       the bytestreams' bytes, one after the other; padding up to the packet's length
class PacketStream
{
public:
    // Largest number of undecoded bytes one bytestream may hold while others wait for theirs: a writer
    // spreads its fields over packets evenly, so only a broken section gets near it.
    static constexpr size_t kMaxBufferedBytes = size_t{64} << 20;

    // Reads and checks the section header; BadCVHeader when it is not a compressed-vector section or does not
    // fit the file.
    PacketStream(const PagedFile& file, const Node& compressedVector);

    // Appends the bytes of the next data packet's bytestreams to `streams`, one per field, and returns true;
    // passes over index and empty packets; returns false at the section's end. BadCVPacket for a packet whose
    // sizes do not fit each other, the section, or the prototype. A stream given as `skip` gets no bytes.
    bool next(std::span<ByteStream> streams, const std::vector<bool>& skip);

    // "compressed vector /data3D/0/points of FILE", for messages.
    const std::string& where() const { return m_where; }

private:
    [[noreturn]] void badPacket(const std::string& what) const;

    PageReader m_reader;
    std::string m_where;
    uint64_t m_next = 0;
    uint64_t m_end = 0;
    std::vector<uint16_t> m_lengths;
};

}  // namespace e57
