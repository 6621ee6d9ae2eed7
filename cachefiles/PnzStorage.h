#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace pc_preprocess
{

// Reads a PNZ file and inflates it, capped at what a stream of that size can hold. errorPrefix names the
// caller in the "does not exist" and open errors ("ERROR PNZ READER").
std::vector<uint8_t> loadPnz(const std::wstring& pnz, const std::string& errorPrefix);

// Deflates the header and planes and writes them as the PNZ file in one go; returns the file size. A failure
// of the file system is who + "Could not (fully) write ..." ("writeTuncatePNZ : ").
uint64_t storePnz(const std::wstring& pnz, std::span<const uint8_t> inflated, const std::string& who);

}  // namespace pc_preprocess
