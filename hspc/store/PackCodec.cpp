#include "hspc/store/PackCodec.h"

#include <zlib.h>

#include <algorithm>
#include <cstring>

#include "hspc/format/LittleEndian.h"
#include "hspc/store/PackFormat.h"

namespace HSPC::pack
{

namespace le = little_endian;

namespace
{

// Deflate cannot expand more than this: one 258-byte match per two bits at best. A size announced beyond
// what the stored bytes could produce is a lie, found before anything is allocated for it.
constexpr uint64_t kLargestInflateRatio = 1032;
constexpr size_t kLongestVarUint = 5;

bool couldInflateTo(uint64_t streamBytes, uint64_t size)
{
    return size <= streamBytes * kLargestInflateRatio;
}

bool deflateInto(std::span<const uint8_t> input, std::vector<uint8_t>& output)
{
    const size_t at = output.size();
    uLongf length = compressBound(uLong(input.size()));
    output.resize(at + 4 + length);
    le::store(output.data() + at, uint32_t(input.size()));
    const int result =
        compress2(output.data() + at + 4, &length, input.data(), uLong(input.size()), kZlibLevel);
    output.resize(result == Z_OK ? at + 4 + length : at);
    return result == Z_OK;
}

// Inflates `stream` into exactly `size` bytes at `target`.
bool inflateExactly(std::span<const uint8_t> stream, uint8_t* target, uint64_t size, std::string& error)
{
    uint8_t unused = 0;
    uLongf length = uLongf(size);
    const int result = uncompress(size == 0 ? &unused : target, &length, stream.data(), uLong(stream.size()));
    if (result != Z_OK || length != size)
    {
        error = "zlib stream does not inflate to its announced " + std::to_string(size) + " bytes (zlib code " +
                std::to_string(result) + ")";
        return false;
    }
    return true;
}

}  // namespace

void appendVarUint(std::vector<uint8_t>& stream, uint32_t value)
{
    uint8_t groups[kLongestVarUint];
    size_t count = 0;
    do
    {
        groups[count++] = uint8_t(value & 0x7F);
        value >>= 7;
    } while (value != 0);
    while (count > 1)
    {
        stream.push_back(uint8_t(groups[--count] | 0x80));
    }
    stream.push_back(groups[0]);
}

bool readVarUint(std::span<const uint8_t> stream, size_t& position, uint32_t& value)
{
    uint64_t number = 0;
    for (size_t taken = 0; taken < kLongestVarUint && position < stream.size(); ++taken)
    {
        const uint8_t byte = stream[position++];
        number = (number << 7) | (byte & 0x7F);
        if ((byte & 0x80) == 0)
        {
            value = uint32_t(number);
            return number <= UINT32_MAX;
        }
    }
    return false;
}

bool compressBlock(std::span<const uint8_t> block, std::vector<uint8_t>& compressed)
{
    compressed.clear();
    return block.size() <= UINT32_MAX && deflateInto(block, compressed);
}

bool inflatePrefixed(std::span<const uint8_t> compressed, const BlobAllocator& allocate, std::string& error)
{
    if (compressed.size() < 4)
    {
        error = "compressed block of " + std::to_string(compressed.size()) + " bytes has no size prefix";
        return false;
    }
    const uint32_t size = le::load<uint32_t>(compressed.data());
    const std::span<const uint8_t> stream = compressed.subspan(4);
    if (!couldInflateTo(stream.size(), size))
    {
        error = "compressed block of " + std::to_string(stream.size()) + " bytes cannot hold " +
                std::to_string(size) + " bytes";
        return false;
    }
    uint8_t* room = size == 0 ? nullptr : allocate(size);
    if (size != 0 && room == nullptr)
    {
        error = "no room for a block of " + std::to_string(size) + " bytes";
        return false;
    }
    return inflateExactly(stream, room, size, error);
}

bool decompressBlock(std::span<const uint8_t> compressed, uint64_t expectedSize, std::vector<uint8_t>& block,
                     std::string& error)
{
    if (compressed.size() >= 4 && le::load<uint32_t>(compressed.data()) != expectedSize)
    {
        error = "compressed block announces " + std::to_string(le::load<uint32_t>(compressed.data())) +
                " bytes where the header says " + std::to_string(expectedSize);
        return false;
    }
    return inflatePrefixed(compressed,
                           [&](uint64_t size)
                           {
                               block.resize(size_t(size));
                               return block.data();
                           },
                           error);
}

std::vector<uint8_t> makeTrailer(uint32_t flags, const std::string& name, std::span<const uint8_t> stored)
{
    std::vector<uint8_t> trailer(kTrailerSize, 0);
    le::store(trailer.data(), uint32_t(stored.size()));
    if ((flags & kFlagCrc) != 0)
    {
        le::store(trailer.data() + 4, uint32_t(crc32(0, stored.data(), uInt(stored.size()))));
    }
    std::memcpy(trailer.data() + 12, name.data(), std::min<size_t>(name.size(), kTrailerNameSize));
    return trailer;
}

bool checkTrailer(uint32_t flags, std::span<const uint8_t> trailer, std::span<const uint8_t> stored,
                  std::string& error)
{
    if (le::load<uint32_t>(trailer.data()) != stored.size())
    {
        error = "entry trailer gives a size of " + std::to_string(le::load<uint32_t>(trailer.data())) +
                " bytes where the size table says " + std::to_string(stored.size());
        return false;
    }
    if ((flags & kFlagCrc) != 0 &&
        le::load<uint32_t>(trailer.data() + 4) != uint32_t(crc32(0, stored.data(), uInt(stored.size()))))
    {
        error = "entry fails its CRC-32 check";
        return false;
    }
    return true;
}

}  // namespace HSPC::pack
