#include "importers/e57/PictureSize.h"

#include <algorithm>
#include <array>

namespace pc_preprocess
{

namespace
{

uint64_t bigEndian(std::span<const uint8_t> bytes, size_t at, size_t size)
{
    uint64_t value = 0;
    for (size_t i = 0; i < size; ++i)
        value = (value << 8) | bytes[at + i];
    return value;
}

// A PNG starts with its signature and the IHDR chunk:
//   offset  size  content
//   0       8     89 50 4E 47 0D 0A 1A 0A
//   8       4     chunk length (13), big-endian
//   12      4     "IHDR"
//   16      4     width, big-endian
//   20      4     height, big-endian
std::optional<PictureSize> pngSize(std::span<const uint8_t> bytes)
{
    constexpr std::array<uint8_t, 8> kSignature = {0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A};
    constexpr std::array<uint8_t, 4> kHeader = {'I', 'H', 'D', 'R'};
    if (bytes.size() < 24 || !std::equal(kSignature.begin(), kSignature.end(), bytes.begin()) ||
        !std::equal(kHeader.begin(), kHeader.end(), bytes.begin() + 12))
        return std::nullopt;
    return PictureSize{bigEndian(bytes, 16, 4), bigEndian(bytes, 20, 4)};
}

// A JPEG is a row of segments after its start marker FF D8. Each segment begins with FF and its marker; all
// but the standalone markers (01, D0 to D7) go on with a big-endian length that counts itself. A start of
// frame (C0 to CF but C4, C8 and CC) holds the precision (1 byte), the height and the width (2 bytes each).
std::optional<PictureSize> jpegSize(std::span<const uint8_t> bytes)
{
    if (bytes.size() < 4 || bytes[0] != 0xFF || bytes[1] != 0xD8)
        return std::nullopt;
    size_t at = 2;
    while (at + 4 <= bytes.size())
    {
        if (bytes[at] != 0xFF)
            return std::nullopt;
        const uint8_t marker = bytes[at + 1];
        if (marker == 0xFF)
        {
            ++at;  // fill byte
            continue;
        }
        if (marker == 0x01 || (marker >= 0xD0 && marker <= 0xD7))
        {
            at += 2;
            continue;
        }
        // The image data or the end, before any frame: no size to be had.
        if (marker == 0xDA || marker == 0xD9)
            return std::nullopt;
        const uint64_t length = bigEndian(bytes, at + 2, 2);
        if (length < 2)
            return std::nullopt;
        const bool startOfFrame =
            marker >= 0xC0 && marker <= 0xCF && marker != 0xC4 && marker != 0xC8 && marker != 0xCC;
        if (startOfFrame)
        {
            if (length < 7 || at + 9 > bytes.size())
                return std::nullopt;
            return PictureSize{bigEndian(bytes, at + 7, 2), bigEndian(bytes, at + 5, 2)};
        }
        at += 2 + length;
    }
    return std::nullopt;
}

}  // namespace

std::optional<PictureSize> declaredPictureSize(std::span<const uint8_t> bytes)
{
    if (const auto png = pngSize(bytes))
        return png;
    return jpegSize(bytes);
}

}  // namespace pc_preprocess
