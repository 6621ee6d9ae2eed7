#include "importers/las/LasHeader.h"

#include <cmath>
#include <cstring>
#include <sstream>
#include <stdexcept>

#include "importers/las/LasBytes.h"

namespace pc_preprocess::las
{

namespace
{

// A point format byte with its top bit set is what LASzip writes into a compressed file.
constexpr uint8_t kCompressedFormatBit = 0x80;

std::runtime_error notLas(const std::string& path)
{
    return std::runtime_error("LAS error: " + path + " is not a valid las file!\n");
}

void requireVersion(uint8_t major, uint8_t minor)
{
    if (major != 1 || minor > 4)
        throw std::runtime_error("LAS error: LAS version " + std::to_string(major) + "." +
                                 std::to_string(minor) + " is not supported!\n");
}

void requireFormat(uint8_t format, uint16_t recordLength)
{
    if (format > kLastPointFormat)
    {
        const std::string number = std::to_string(format);
        if ((format & kCompressedFormatBit) != 0)
            throw std::runtime_error("\nLAS error: LAS format " + number +
                                     " is not supported, but indicates LAZ format. Please try renaming the "
                                     "extension to *.laz!\n");
        throw std::runtime_error("\nLAS error: LAS format " + number + " is not supported!\n");
    }
    if (recordLength < kPointFormats[format].smallestRecordLength)
        throw std::runtime_error("LAS error: point size specification " + std::to_string(recordLength) +
                                 " is too small for format " + std::to_string(format) + "!");
}

// Scale and offset become the cache's grid: a zero, negative or infinite step, or an offset that is no
// number, would put every point nowhere.
void requireUsableGrid(const LasHeader& header, const std::string& path)
{
    for (int axis = 0; axis < 3; ++axis)
    {
        if (!(std::isfinite(header.scale[axis]) && header.scale[axis] > 0.0))
            throw std::runtime_error("LAS error: " + path +
                                     " has a scale factor that is not a positive number!\n");
        if (!std::isfinite(header.offset[axis]))
            throw std::runtime_error("LAS error: " + path + " has an offset that is not a finite number!\n");
    }
}

template <size_t N>
std::array<double, N> loadDoubles(const uint8_t* at)
{
    std::array<double, N> values;
    for (size_t i = 0; i < N; ++i)
        values[i] = loadField<double>(at + 8 * i);
    return values;
}

}  // namespace

LasHeader parseLasHeader(std::span<const uint8_t> bytes, const std::string& path)
{
    if (bytes.size() < LasHeader::kSmallestHeader || std::memcmp(bytes.data(), "LASF", 4) != 0)
        throw notLas(path);
    const uint8_t* b = bytes.data();

    LasHeader header;
    header.versionMajor = b[24];
    header.versionMinor = b[25];
    requireVersion(header.versionMajor, header.versionMinor);
    const bool has64BitCount = header.versionMinor > 3;
    if (has64BitCount && bytes.size() < LasHeader::kHeaderWith64BitCount)
        throw notLas(path);

    header.pointFormat = b[104];
    header.pointRecordLength = loadField<uint16_t>(b + 105);
    requireFormat(header.pointFormat, header.pointRecordLength);
    header.layout = kPointFormats[header.pointFormat];

    header.globalEncoding = loadField<uint16_t>(b + 6);
    header.headerSize = loadField<uint16_t>(b + 94);
    header.offsetToPointData = loadField<uint32_t>(b + 96);
    // The VLRs begin at the header size and the points come after them: an order that no writer breaks.
    if (header.headerSize < LasHeader::kSmallestHeader || header.offsetToPointData < header.headerSize)
        throw notLas(path);
    header.numberOfVlrs = loadField<uint32_t>(b + 100);
    header.numberOfPoints = has64BitCount ? loadField<uint64_t>(b + 247) : loadField<uint32_t>(b + 107);

    header.scale = loadDoubles<3>(b + 131);
    header.offset = loadDoubles<3>(b + 155);
    header.bounds = loadDoubles<6>(b + 179);
    requireUsableGrid(header, path);
    return header;
}

uint64_t LasHeader::plausiblePointCount(uint64_t fileSize) const
{
    if (offsetToPointData >= fileSize)
        return 0;
    // Divided rather than multiplied: a count of 2^64 - 1 times the record length must not wrap.
    const uint64_t wholeRecords = (fileSize - offsetToPointData) / pointRecordLength;
    return numberOfPoints < wholeRecords ? numberOfPoints : wholeRecords;
}

std::string LasHeader::describe() const
{
    std::ostringstream text;
    text << "LAS " << int(versionMajor) << "." << int(versionMinor) << ", point format " << int(pointFormat)
         << ", record length " << pointRecordLength << ", " << numberOfPoints << " point records, "
         << numberOfVlrs << " VLRs, scale " << scale[0] << " " << scale[1] << " " << scale[2] << ", offset "
         << offset[0] << " " << offset[1] << " " << offset[2];
    return text.str();
}

}  // namespace pc_preprocess::las
