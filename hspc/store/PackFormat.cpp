#include "hspc/store/PackFormat.h"

#include <cstring>

#include "hspc/format/LittleEndian.h"

namespace HSPC::pack
{

namespace le = little_endian;

void storeHeader(const Header& header, uint8_t* bytes)
{
    std::memcpy(bytes, kMagic, 4);
    le::store(bytes + 4, header.version);
    le::store(bytes + 8, header.flags);
    le::store(bytes + 12, header.entryCount);
    le::store(bytes + 16, header.treeStreamSize);
    le::store(bytes + 20, header.labelStreamSize);
    le::store(bytes + 24, header.nameDirectorySize);
    le::store(bytes + 28, header.sizeTableSize);
    le::store(bytes + 32, header.dataStart);
    le::store(bytes + 36, header.trailerSize);
    le::store(bytes + 40, header.overflowOffset);
    le::store(bytes + 48, header.overflowSize);
}

bool loadHeader(const uint8_t* bytes, Header& header)
{
    header.version = le::load<uint32_t>(bytes + 4);
    header.flags = le::load<uint32_t>(bytes + 8);
    header.entryCount = le::load<uint32_t>(bytes + 12);
    header.treeStreamSize = le::load<uint32_t>(bytes + 16);
    header.labelStreamSize = le::load<uint32_t>(bytes + 20);
    header.nameDirectorySize = le::load<uint32_t>(bytes + 24);
    header.sizeTableSize = le::load<uint32_t>(bytes + 28);
    header.dataStart = le::load<uint32_t>(bytes + 32);
    header.trailerSize = le::load<uint32_t>(bytes + 36);
    header.overflowOffset = le::load<uint64_t>(bytes + 40);
    header.overflowSize = le::load<uint64_t>(bytes + 48);
    return std::memcmp(bytes, kMagic, 4) == 0;
}

}  // namespace HSPC::pack
