#pragma once

#include <bit>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace pc_preprocess::las
{

static_assert(std::endian::native == std::endian::little, "LAS fields are read by plain copies");

// A little-endian field at any alignment.
template <typename T>
T loadField(const uint8_t* at)
{
    static_assert(std::is_trivially_copyable_v<T>);
    T value;
    std::memcpy(&value, at, sizeof value);
    return value;
}

}  // namespace pc_preprocess::las
