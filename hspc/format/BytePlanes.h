// Byte planes back into values. Entry e of plane j holds byte j of value e (NodeGroups.h), so rebuilding
// values is a byte transposition: sixteen entries at a time are interleaved with SSE2 unpacks, 2, 4 or 8
// planes into 16-, 32- or 64-bit values, instead of gathering every byte alone. The pair swap of the
// entries is undone on the way, so that the values come out in point order.
#pragma once

#include <emmintrin.h>

#include <cstddef>
#include <cstdint>

#include "hspc/format/NodeGroups.h"

namespace HSPC::byte_planes
{

// Interleaves the elements of `width` bytes of a and b, each followed by its partner from b: the first half
// of the elements, then the second.
struct Interleaved
{
    __m128i first;
    __m128i second;
};

template <size_t width>
inline Interleaved interleave(__m128i a, __m128i b)
{
    if constexpr (width == 1)
        return {_mm_unpacklo_epi8(a, b), _mm_unpackhi_epi8(a, b)};
    else if constexpr (width == 2)
        return {_mm_unpacklo_epi16(a, b), _mm_unpackhi_epi16(a, b)};
    else
        return {_mm_unpacklo_epi32(a, b), _mm_unpackhi_epi32(a, b)};
}

// One round of the transposition. Before it, v holds k / width byte groups of `width` bytes each (group g
// being bytes [g * width, (g + 1) * width) of every value), each group as `width` vectors of consecutive
// entries. Neighbouring groups are joined, which halves the entries per vector.
template <size_t k, size_t width>
inline void interleaveRounds(__m128i (&v)[k])
{
    if constexpr (width < k)
    {
        __m128i joined[k];
#pragma GCC unroll 8
        for (size_t group = 0; group < k / (2 * width); ++group)
        {
#pragma GCC unroll 8
            for (size_t part = 0; part < width; ++part)
            {
                const auto [first, second] =
                    interleave<width>(v[2 * group * width + part], v[(2 * group + 1) * width + part]);
                joined[2 * group * width + 2 * part] = first;
                joined[2 * group * width + 2 * part + 1] = second;
            }
        }
#pragma GCC unroll 8
        for (size_t i = 0; i < k; ++i)
        {
            v[i] = joined[i];
        }
        interleaveRounds<k, 2 * width>(v);
    }
}

// Exchanges the neighbouring values of T in each pair.
template <typename T>
inline __m128i swapNeighbours(__m128i v)
{
    if constexpr (sizeof(T) == 1)
        return _mm_or_si128(_mm_slli_epi16(v, 8), _mm_srli_epi16(v, 8));
    else if constexpr (sizeof(T) == 2)
        return _mm_shufflehi_epi16(_mm_shufflelo_epi16(v, 0xB1), 0xB1);
    else if constexpr (sizeof(T) == 4)
        return _mm_shuffle_epi32(v, 0xB1);
    else
        return _mm_shuffle_epi32(v, 0x4E);
}

// Sixteen values from sixteen entries that start at an even point.
template <typename T>
inline void rebuildSixteen(const uint8_t* planes, size_t planeStride, T* values)
{
    constexpr size_t k = sizeof(T);
    __m128i v[k];
#pragma GCC unroll 8
    for (size_t plane = 0; plane < k; ++plane)
    {
        v[plane] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(planes + plane * planeStride));
    }
    interleaveRounds<k, 1>(v);
#pragma GCC unroll 8
    for (size_t i = 0; i < k; ++i)
    {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(values) + i, swapNeighbours<T>(v[i]));
    }
}

// The stored values of points [first, first + n) of a node of `count` points, from the planes of T.
// `first` is even, so that no pair is split.
template <typename T>
void rebuildValues(const uint8_t* planes, size_t planeStride, size_t count, size_t first, size_t n, T* values)
{
    size_t i = 0;
    for (; i + 16 <= n; i += 16)
    {
        rebuildSixteen(planes + first + i, planeStride, values + i);
    }
    for (; i < n; ++i)
    {
        const size_t entry = planeEntry(first + i, count);
        T value = 0;
        for (size_t plane = 0; plane < sizeof(T); ++plane)
        {
            value = T(value | T(T(planes[plane * planeStride + entry]) << (8 * plane)));
        }
        values[i] = value;
    }
}

}  // namespace HSPC::byte_planes
