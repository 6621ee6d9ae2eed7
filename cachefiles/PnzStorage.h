#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "cachefiles/PnzCodec.h"

namespace pc_preprocess
{

// Reads a PNZ file and inflates it with the coder, capped at what a stream of that size can hold; the bytes
// stay valid until the coder inflates again. expectedSize, when known, is the size of the inflated node.
// errorPrefix names the caller in the "does not exist" and open errors ("ERROR PNZ READER").
std::span<const uint8_t> loadPnz(const std::wstring& pnz, const std::string& errorPrefix, PnzCoder& coder,
                                 uint64_t expectedSize = 0);

// Deflates the header and planes and writes them as the PNZ file in one go; returns the file size. A failure
// of the file system is who + "Could not (fully) write ..." ("writeTuncatePNZ : ").
uint64_t storePnz(const std::wstring& pnz, std::span<const uint8_t> inflated, const std::string& who,
                  PnzCoder& coder);

}  // namespace pc_preprocess
