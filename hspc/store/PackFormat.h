// The bytes of a pack archive ("mMPK"), one file holding every blob of a data set.
//
// | Offset    | Size | Field                                                                 |
// |-----------|------|-----------------------------------------------------------------------|
// | 0         | 4    | "mMPK"                                                                |
// | 4         | 4    | version, 1                                                            |
// | 8         | 4    | flags: bit 0 entries zlib-compressed, bit 1 trailers, bit 2 CRC-32 kept |
// | 12        | 4    | entry count                                                           |
// | 16        | 4    | tree stream size                                                      |
// | 20        | 4    | label stream size                                                     |
// | 24        | 4    | compressed name directory size                                        |
// | 28        | 4    | compressed size table size                                            |
// | 32        | 4    | data start, 0x1000038                                                 |
// | 36        | 4    | trailer size, 0 or 128                                                |
// | 40        | 8    | overflow offset: where the directory's part that did not fit lies     |
// | 48        | 8    | overflow size                                                         |
// | 56        | ...  | directory area up to the data start, zero filled behind the directory |
// | data start| ...  | entries back to back, each its stored size plus the trailer size      |
//
// The directory is the compressed name directory (tree stream, then label stream) followed by the compressed
// size table (one u32 stored size per entry). A compressed entry is its size as u32 and a zlib stream. The
// trailer is the stored size (u32), the CRC-32 of the stored bytes (u32), four zero bytes and 96 bytes of the
// name, zero filled to 128 bytes.
#pragma once

#include <cstdint>

namespace HSPC::pack
{

inline constexpr uint8_t kMagic[4] = {'m', 'M', 'P', 'K'};
inline constexpr uint32_t kVersion = 1;
inline constexpr uint32_t kFlagCompressed = 1;
inline constexpr uint32_t kFlagTrailer = 2;
inline constexpr uint32_t kFlagCrc = 4;
inline constexpr uint64_t kHeaderSize = 56;
// 16 MiB of directory in front of the data let a data set grow without moving its entries.
inline constexpr uint32_t kDataStart = 0x1000038;
inline constexpr uint32_t kTrailerSize = 128;
inline constexpr uint32_t kTrailerNameSize = 96;
inline constexpr int kZlibLevel = 9;

struct Header
{
    uint32_t version = kVersion;
    uint32_t flags = 0;
    uint32_t entryCount = 0;
    uint32_t treeStreamSize = 0;
    uint32_t labelStreamSize = 0;
    uint32_t nameDirectorySize = 0;
    uint32_t sizeTableSize = 0;
    uint32_t dataStart = kDataStart;
    uint32_t trailerSize = 0;
    uint64_t overflowOffset = 0;
    uint64_t overflowSize = 0;
};

// `bytes` holds kHeaderSize bytes.
void storeHeader(const Header& header, uint8_t* bytes);
// False when the magic is not there; the other fields are taken as they stand.
bool loadHeader(const uint8_t* bytes, Header& header);

}  // namespace HSPC::pack
