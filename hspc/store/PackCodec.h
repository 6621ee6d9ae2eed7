// The small encodings inside a pack archive: variable-length numbers, zlib blocks with a size prefix, and the
// stored form of an entry under the archive's flags.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "hspc/store/RootStore.h"

namespace HSPC::pack
{

// Seven bits per byte, most significant group first, the high bit set on every byte but the last.
void appendVarUint(std::vector<uint8_t>& stream, uint32_t value);
// Reads one number at `position` and moves past it. False when the stream ends inside the number or the
// number does not fit 32 bits.
bool readVarUint(std::span<const uint8_t> stream, size_t& position, uint32_t& value);

// The block's size as u32, then one zlib stream of level 9. False when zlib fails.
bool compressBlock(std::span<const uint8_t> block, std::vector<uint8_t>& compressed);
// The inverse of compressBlock; the prefix must announce `expectedSize` bytes, no more than a zlib stream of
// that length can produce, and the stream must inflate to exactly that many. `error` says what was wrong.
bool decompressBlock(std::span<const uint8_t> compressed, uint64_t expectedSize, std::vector<uint8_t>& block,
                     std::string& error);

// Inflates a block of compressBlock's form into the room that `allocate` gives for the announced size, after
// checking that the stream could hold that many bytes. A compressed entry has this form too.
bool inflatePrefixed(std::span<const uint8_t> compressed, const BlobAllocator& allocate, std::string& error);

// The 128-byte trailer behind an entry's stored bytes.
std::vector<uint8_t> makeTrailer(uint32_t flags, const std::string& name, std::span<const uint8_t> stored);
bool checkTrailer(uint32_t flags, std::span<const uint8_t> trailer, std::span<const uint8_t> stored,
                  std::string& error);

}  // namespace HSPC::pack
