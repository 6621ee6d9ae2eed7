#pragma once

#include <cstdint>
#include <cstring>
#include <numeric>
#include <vector>

namespace pcp_test
{

// Byte buffers that tests assemble field by field from a format's tables, and read fields back from.
using Bytes = std::vector<uint8_t>;

// `count` bytes counting up from `first` (wrapping at 256): contents whose every byte can be told apart.
inline Bytes countingBytes(size_t count, uint8_t first)
{
    Bytes bytes(count);
    std::iota(bytes.begin(), bytes.end(), first);
    return bytes;
}

template <typename T>
void put(Bytes& bytes, T value)
{
    const size_t at = bytes.size();
    bytes.resize(at + sizeof(T));
    std::memcpy(bytes.data() + at, &value, sizeof(T));
}

template <typename T>
T get(const Bytes& bytes, size_t at)
{
    T value;
    std::memcpy(&value, bytes.data() + at, sizeof(T));
    return value;
}

}  // namespace pcp_test
