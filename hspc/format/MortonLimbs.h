// The axes of Morton codes held as 64-bit limbs, for decoding whole nodes. Limb l holds bits 64l .. 64l + 63
// of the code: an M96 code is two limbs (the second holding word 2 alone), an M192 code three. Taking an
// axis is then one bit extraction per limb. Processors with BMI2 do it in one instruction (PEXT); the
// portable way compacts every third bit in six shift-and-mask steps.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "hspc/format/MortonIndex3D.h"

namespace HSPC::morton_limbs
{

template <typename W>
inline constexpr unsigned kLimbCount = sizeof(W) == 4 ? 2 : 3;

// Which bits of one limb belong to an axis (every third from `phase`), and where the first of them goes in
// the axis.
struct LimbSlice
{
    uint64_t mask;
    unsigned phase;
    unsigned first;
};

template <typename W>
constexpr LimbSlice limbSlice(unsigned limb, unsigned axis)
{
    const morton_detail::AxisSlice slice = morton_detail::axisSlice<uint64_t>(limb, axis);
    const unsigned usedBits = 3 * sizeof(W) * 8 - 64 * limb < 64 ? 3 * sizeof(W) * 8 - 64 * limb : 64;
    uint64_t mask = 0;
    for (unsigned bit = slice.phase; bit < usedBits; bit += 3)
    {
        mask |= uint64_t(1) << bit;
    }
    return {mask, slice.phase, slice.first};
}

// The portable extraction.
struct CompactingExtract
{
    template <uint64_t mask, unsigned phase>
    static uint64_t extract(uint64_t limb)
    {
        return morton_detail::compactBits(uint64_t(limb >> phase));
    }
};

// PEXT, written as an instruction so that only callers that chose it at run time need BMI2; the compiler
// then needs no target options that would spread into other code.
struct ParallelExtract
{
    template <uint64_t mask, unsigned phase>
    static uint64_t extract(uint64_t limb)
    {
        uint64_t bits;
        asm("pextq %2, %1, %0" : "=r"(bits) : "r"(limb), "r"(mask));
        return bits;
    }
};

template <typename W, unsigned axis, typename Extract, unsigned... limb>
inline W axisOfLimbs(const std::array<uint64_t, 3>& limbs, std::integer_sequence<unsigned, limb...>)
{
    return W(((Extract::template extract<limbSlice<W>(limb, axis).mask, limbSlice<W>(limb, axis).phase>(
                   limbs[limb])
               << limbSlice<W>(limb, axis).first) |
              ...));
}

// One axis of the code whose limbs are given (bits above the code's width must be zero).
template <typename W, unsigned axis, typename Extract>
inline W axisOfLimbs(const std::array<uint64_t, 3>& limbs)
{
    return axisOfLimbs<W, axis, Extract>(limbs, std::make_integer_sequence<unsigned, kLimbCount<W>>{});
}

// Whether PEXT is there and fast: the AMD families before Zen 3 run it in microcode, far slower than the
// portable way.
bool parallelExtractIsFast();

}  // namespace HSPC::morton_limbs
