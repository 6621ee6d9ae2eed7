#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace e57
{

static_assert(std::endian::native == std::endian::little, "the bitpack decoder loads little-endian words");

// The bitpack codec. Each field of a record has its own bytestream, continued from packet to packet:
// - Integer and ScaledInteger: value - minimum in bitWidth(minimum, maximum) bits, least significant bit
//   first, value after value without gaps, so a value may straddle bytes and packets; a field whose range
//   holds one value takes no bits at all;
// - Float: the IEEE 754 value, 4 bytes (single precision) or 8, little-endian.
constexpr unsigned bitWidth(int64_t minimum, int64_t maximum)
{
    const uint64_t range = static_cast<uint64_t>(maximum) - static_cast<uint64_t>(minimum);
    return range == 0 ? 0u : static_cast<unsigned>(64 - std::countl_zero(range));
}

// The bytes of one bytestream received from packets and not decoded yet, with a bit position into them.
// Decoded bytes are dropped when new ones arrive, so the buffer holds about one packet's worth. A few zero
// bytes after the data let the decoder load whole 64-bit words at any position.
class ByteStream
{
public:
    static constexpr size_t kPadding = 16;

    uint64_t availableBits() const { return uint64_t{m_size} * 8 - m_bitPosition; }
    size_t bufferedBytes() const { return m_size - static_cast<size_t>(m_bitPosition / 8); }
    const uint8_t* data() const { return m_bytes.data(); }
    uint64_t bitPosition() const { return m_bitPosition; }
    void advance(uint64_t bits) { m_bitPosition += bits; }

    // Room for `count` more bytes at the end, to be filled by the caller.
    uint8_t* append(size_t count)
    {
        const size_t consumed = static_cast<size_t>(m_bitPosition / 8);
        if (consumed > 0)
        {
            std::memmove(m_bytes.data(), m_bytes.data() + consumed, m_size - consumed);
            m_size -= consumed;
            m_bitPosition -= uint64_t{consumed} * 8;
        }
        const size_t needed = m_size + count + kPadding;
        if (m_bytes.size() < needed)
            m_bytes.resize(std::max(needed, 2 * m_bytes.size()));
        uint8_t* room = m_bytes.data() + m_size;
        m_size += count;
        std::memset(m_bytes.data() + m_size, 0, kPadding);
        return room;
    }

private:
    std::vector<uint8_t> m_bytes;
    size_t m_size = 0;
    uint64_t m_bitPosition = 0;
};

// Calls store(i, value) for `count` integers of `width` bits (1 to 64) starting at bit `position` of `bytes`,
// each value being minimum + the stored bits; the bytes must hold all of them plus ByteStream::kPadding.
template <typename Store>
inline void unpackIntegers(const uint8_t* bytes, uint64_t position, unsigned width, int64_t minimum,
                           size_t count, Store&& store)
{
    const auto base = static_cast<uint64_t>(minimum);
    if (position % 8 == 0 && (width == 8 || width == 16 || width == 32))
    {
        // Whole bytes in place: the common colour, intensity and index fields.
        const uint8_t* p = bytes + position / 8;
        if (width == 8)
            for (size_t i = 0; i < count; ++i)
                store(i, static_cast<int64_t>(base + p[i]));
        else if (width == 16)
            for (size_t i = 0; i < count; ++i)
            {
                uint16_t raw;
                std::memcpy(&raw, p + 2 * i, 2);
                store(i, static_cast<int64_t>(base + raw));
            }
        else
            for (size_t i = 0; i < count; ++i)
            {
                uint32_t raw;
                std::memcpy(&raw, p + 4 * i, 4);
                store(i, static_cast<int64_t>(base + raw));
            }
        return;
    }
    const uint64_t mask = width >= 64 ? ~uint64_t{0} : (uint64_t{1} << width) - 1;
    for (size_t i = 0; i < count; ++i, position += width)
    {
        const uint8_t* p = bytes + position / 8;
        const unsigned shift = static_cast<unsigned>(position % 8);
        uint64_t word;
        std::memcpy(&word, p, 8);
        uint64_t raw = word >> shift;
        // Only a value of more than 56 bits can reach into a ninth byte.
        if (width + shift > 64)
            raw |= uint64_t{p[8]} << (64 - shift);
        store(i, static_cast<int64_t>(base + (raw & mask)));
    }
}

// Calls store(i, value) for `count` little-endian IEEE 754 values of type T starting at `bytes`.
template <typename T, typename Store>
inline void unpackFloats(const uint8_t* bytes, size_t count, Store&& store)
{
    for (size_t i = 0; i < count; ++i)
    {
        T value;
        std::memcpy(&value, bytes + sizeof(T) * i, sizeof(T));
        store(i, static_cast<double>(value));
    }
}

}  // namespace e57
