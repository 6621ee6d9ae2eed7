// Little-endian integers and doubles in byte buffers, for the node format. Reads are bounds-checked by the
// callers; these only move bytes.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>
#include <vector>

namespace HSPC::little_endian
{

static_assert(std::endian::native == std::endian::little, "the node codecs copy words as they are in memory");

template <typename T>
T load(const uint8_t* bytes)
{
    T value;
    std::memcpy(&value, bytes, sizeof(T));
    return value;
}

template <typename T>
void store(uint8_t* bytes, T value)
{
    std::memcpy(bytes, &value, sizeof(T));
}

template <typename T>
void append(std::vector<uint8_t>& bytes, T value)
{
    const size_t at = bytes.size();
    bytes.resize(at + sizeof(T));
    store(bytes.data() + at, value);
}

}  // namespace HSPC::little_endian
