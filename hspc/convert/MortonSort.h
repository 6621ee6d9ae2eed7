// Sorting a batch of encoded point records by their Morton code.
#pragma once

#include <cstddef>
#include <cstdint>

namespace HSPC
{

// Sorts `count` records of `recordSize` bytes at `records` in place, ascending by the Morton code
// (MortonIndex3D<W>) that starts each record; whole records move. Records with equal codes end up in no
// particular order. Record sizes from 12 to 50 bytes use a radix sort compiled for that size, with scratch
// memory of one batch; other sizes go through the C library's qsort. A record shorter than its code has no
// key: such a batch is left as it is.
template <typename W>
void sortRecordsByMorton(uint8_t* records, std::size_t count, uint32_t recordSize);

extern template void sortRecordsByMorton<uint32_t>(uint8_t*, std::size_t, uint32_t);
extern template void sortRecordsByMorton<uint64_t>(uint8_t*, std::size_t, uint32_t);

}  // namespace HSPC
