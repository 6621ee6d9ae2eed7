// Kind 26 node payloads: the arithmetic-coded payload of old data sets, read only. All integers
// little-endian; n is the attribute count, p the size of the position type:
//
//   offset          size           field
//   0               1              payload kind 26
//   1               8              point count, equal to the header's
//   9               p + 8(n - 1)   minimum of each attribute: the position as its code, every other
//                                  attribute as the bits of its value in 8 bytes
//   9 + p + 8(n-1)  p + 8(n - 1)   range (maximum - minimum) of each attribute, in the same form
//   ...             8 per block    blocks: attribute count (1, or 3 for a colour triple) and byte size,
//                                  two uint32, until the counts reach n
//   ...             ...            the blocks' arithmetic-coded streams, one after the other
//
// A block codes, point by point and attribute by attribute, value - minimum in as many bytes as the range
// has up to its highest non-zero byte (at most eight), low byte first. Each byte position of each attribute
// has its own adaptive model: 256 symbols for a full byte, the range's top byte + 1 for the top one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>

#include "hspc/format/NodeHeader.h"

namespace HSPC
{

// Where the decoded values go: the delta planes (NodeGroups.h) of one attribute, which the caller then
// turns into output values as it does for the other payload kinds.
struct ArithmeticPlanes
{
    uint8_t* planes = nullptr;
    size_t planeStride = 0;
    // How many planes of planeStride bytes the buffer holds: a block that needs more is refused.
    size_t planeCount = 0;
    // Whether the output needs attribute i; blocks of unwanted attributes are skipped.
    std::function<bool(uint32_t)> wanted;
    // Called with attribute i and its planes once they hold its deltas.
    std::function<void(uint32_t, const uint8_t*)> decoded;
};

// False with the reason in `error` when the payload's sizes don't add up, a block kind is unknown, a block
// is not what its kind allows (kind 3: R, G and B of one type of at most 8 bytes; kind 1: the position, or
// an attribute of at most 8 bytes), a block needs more planes than the buffer holds, or a block doesn't
// decode.
bool decodeArithmeticPayload(const NodeHeader& header, std::span<const uint8_t> payload,
                             const ArithmeticPlanes& target, std::string& error);

}  // namespace HSPC
