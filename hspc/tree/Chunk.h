// The 12 bytes that open every chunk of a tree file: a four-character tag and the size of the whole chunk,
// tag included, as uint64. A writer does not know the size until the chunk is complete, so it writes zero
// and patches the field at the end.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "hspc/format/FieldReader.h"
#include "hspc/format/LittleEndian.h"

namespace HSPC
{

// Appends the tag and a zero size; returns where the chunk starts, for endChunk.
inline size_t beginChunk(std::vector<uint8_t>& bytes, const char (&tag)[5])
{
    const size_t start = bytes.size();
    bytes.insert(bytes.end(), tag, tag + 4);
    little_endian::append<uint64_t>(bytes, 0);
    return start;
}

inline void endChunk(std::vector<uint8_t>& bytes, size_t start)
{
    little_endian::store<uint64_t>(bytes.data() + start + 4, uint64_t(bytes.size() - start));
}

// Reads a chunk's tag and size at the reader's position. False with the reason in `error` when the bytes end
// or the tag is another one.
inline bool readChunkStart(FieldReader& reader, const char (&tag)[5], uint64_t& chunkSize, std::string& error)
{
    const std::span<const uint8_t> found = reader.readBytes(4);
    chunkSize = reader.read<uint64_t>();
    if (!reader.ok())
    {
        error = std::string("the file ends before the \"") + tag + "\" chunk";
        return false;
    }
    if (std::memcmp(found.data(), tag, 4) != 0)
    {
        error = std::string("expected the \"") + tag + "\" chunk, found \"" +
                std::string(reinterpret_cast<const char*>(found.data()), 4) + "\"";
        return false;
    }
    return true;
}

// Whether a chunk that started at `start` and was parsed up to the reader's position is as long as it said.
inline bool chunkSizeMatches(const FieldReader& reader, size_t start, uint64_t chunkSize, const char* tag,
                             std::string& error)
{
    const uint64_t parsed = reader.position() - start;
    if (parsed == chunkSize)
    {
        return true;
    }
    error = std::string("the \"") + tag + "\" chunk says it is " + std::to_string(chunkSize) +
            " bytes long, but its fields take " + std::to_string(parsed);
    return false;
}

}  // namespace HSPC
