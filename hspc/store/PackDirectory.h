// Reading and writing the directory of a pack archive: header, compressed name tree and size table, in the
// area in front of the data and, for what does not fit there, behind the last entry.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "hspc/store/ArchiveFile.h"
#include "hspc/store/PackFormat.h"

namespace HSPC::pack
{

struct Directory
{
    Header header;
    // Per entry, in entry order: its stored size and where it begins.
    std::vector<uint32_t> storedSizes;
    std::vector<uint64_t> offsets;
    // Where the entries end: the data start plus every entry's stored size and trailer.
    uint64_t dataEnd = 0;
    // Names (UTF-8, with a leading slash) and the entry each one reads.
    std::vector<std::pair<std::string, uint32_t>> names;
    // Bytes of the directory area in use, which a later, smaller directory must zero.
    uint64_t areaUsed = 0;
};

// Reads and checks the header and the directory of `file`. Every size is checked against what the file can
// hold before anything is allocated for it. False with the reason in `error` for an archive that cannot be
// opened: shorter than a header, another magic or version, no entries, a data start inside the header, sizes
// that lie, a name tree that does not hold together, entries past the end or shared by two names.
bool readDirectory(ArchiveInterface& file, Directory& directory, std::string& error);

// Writes the directory of these entries and names, and the header, then cuts the file behind the data (and
// behind the directory's overflow, if there is one). `directory.header` gives the flags, data start and
// trailer size; its other fields and `areaUsed` are filled in.
bool writeDirectory(ArchiveInterface& file, Directory& directory, std::string& error);

}  // namespace HSPC::pack
