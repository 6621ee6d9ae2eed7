#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace pc_preprocess
{

// A PNZ file is one zlib stream (deflate with the zlib wrapper, level 7) and nothing else.

// Compresses the whole input; failures are "ERROR PNZ COMPRESS: ..." errors.
std::vector<uint8_t> deflatePnz(std::span<const uint8_t> input);

// Inflates a whole stream, refusing to produce more than maxOutput bytes; failures, a truncated stream
// included, are "ERROR PNZ DECOMPRESS: ..." errors.
std::vector<uint8_t> inflatePnz(std::span<const uint8_t> compressed, uint64_t maxOutput);

// The most that a zlib stream of this many bytes can inflate to: deflate cannot expand beyond 1032:1, and the
// wrapper adds a few bytes. Used as the cap for files, whose content is not trusted.
uint64_t maxInflatedSize(uint64_t compressedSize);

}  // namespace pc_preprocess
