#include "e57/Crc32c.h"

#include <array>
#include <cstring>

#if defined(__x86_64__)
#include <nmmintrin.h>
#endif

namespace e57
{

namespace
{

constexpr uint32_t kPolynomial = 0x82F63B78u;  // 0x1EDC6F41 bit-reversed

// tables[k][b]: the CRC of byte b followed by k zero bytes, so eight bytes are folded in one step.
using SliceTables = std::array<std::array<uint32_t, 256>, 8>;

constexpr SliceTables makeTables()
{
    SliceTables tables{};
    for (uint32_t b = 0; b < 256; ++b)
    {
        uint32_t crc = b;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 1u) != 0 ? (crc >> 1) ^ kPolynomial : crc >> 1;
        tables[0][b] = crc;
    }
    for (size_t k = 1; k < 8; ++k)
        for (uint32_t b = 0; b < 256; ++b)
            tables[k][b] = (tables[k - 1][b] >> 8) ^ tables[0][tables[k - 1][b] & 0xFFu];
    return tables;
}

constexpr SliceTables kTables = makeTables();

uint32_t updatePortable(uint32_t crc, const uint8_t* p, size_t size)
{
    for (; size >= 8; size -= 8, p += 8)
    {
        uint32_t low;
        uint32_t high;
        std::memcpy(&low, p, 4);
        std::memcpy(&high, p + 4, 4);
        low ^= crc;
        crc = kTables[7][low & 0xFFu] ^ kTables[6][(low >> 8) & 0xFFu] ^ kTables[5][(low >> 16) & 0xFFu] ^
              kTables[4][low >> 24] ^ kTables[3][high & 0xFFu] ^ kTables[2][(high >> 8) & 0xFFu] ^
              kTables[1][(high >> 16) & 0xFFu] ^ kTables[0][high >> 24];
    }
    for (; size > 0; --size, ++p)
        crc = (crc >> 8) ^ kTables[0][(crc ^ *p) & 0xFFu];
    return crc;
}

#if defined(__x86_64__)
__attribute__((target("sse4.2"))) uint32_t updateHardware(uint32_t crc, const uint8_t* p, size_t size)
{
    uint64_t wide = crc;
    for (; size >= 8; size -= 8, p += 8)
    {
        uint64_t word;
        std::memcpy(&word, p, 8);
        wide = _mm_crc32_u64(wide, word);
    }
    auto narrow = static_cast<uint32_t>(wide);
    for (; size > 0; --size, ++p)
        narrow = _mm_crc32_u8(narrow, *p);
    return narrow;
}

bool hasHardwareCrc()
{
    static const bool has = __builtin_cpu_supports("sse4.2");
    return has;
}
#endif

}  // namespace

uint32_t crc32cPortable(const void* data, size_t size)
{
    return ~updatePortable(~0u, static_cast<const uint8_t*>(data), size);
}

uint32_t crc32c(const void* data, size_t size)
{
#if defined(__x86_64__)
    if (hasHardwareCrc())
        return ~updateHardware(~0u, static_cast<const uint8_t*>(data), size);
#endif
    return crc32cPortable(data, size);
}

}  // namespace e57
