#pragma once

#include <cstdint>
#include <string>

namespace pc_preprocess::laz
{

class LazFileStream;

// What the structure of a LAS or LAZ file tells before LASzip reads it.
struct LazFileLayout
{
    // The end of the point data: the start of the chunk table of a compressed file, else the file's size.
    // Reading a point that ends beyond it reads something that is no point.
    uint64_t pointDataEnd = 0;
    // The most points the file can hold: those its chunk table covers, when the chunks are of one size.
    uint64_t pointLimit = UINT64_MAX;
    // Why no point may be read, when the structure shows it; empty otherwise. The header can still be read.
    std::string damage;
};

// LASzip trusts the sizes in a file: a count of VLRs or chunks, a header size or an offset to the point data
// that the file cannot hold makes it allocate what the count asks for, wrap an unsigned difference into a
// size of gigabytes, or write past the end of its chunk table. These fields are checked here first, against
// what the file really holds. A file that would harm LASzip's opening fails with "LAZ error: Could not create
// reader stream." and the damage found as the reason (ErrorWithReason); one that would harm its reading of
// points comes back marked damaged. Everything else (a wrong signature, an unknown version, a short header)
// is left to LASzip, which reports it safely. The stream's position is left at the start.
LazFileLayout checkLazFile(LazFileStream& file);

}  // namespace pc_preprocess::laz
