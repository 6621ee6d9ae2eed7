#pragma once

#include <cstddef>
#include <cstdint>

namespace e57
{

// The CRC-32C (Castagnoli polynomial, reflected, initial value and final xor 0xFFFFFFFF) that an E57 file
// keeps in the last four bytes of every page. Uses the processor's CRC32 instruction where there is one
// (SSE 4.2), and slicing-by-8 tables otherwise; both give the same value.
uint32_t crc32c(const void* data, size_t size);

// The table-driven version alone, so that tests can hold the two against each other.
uint32_t crc32cPortable(const void* data, size_t size);

}  // namespace e57
