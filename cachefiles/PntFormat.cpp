#include "cachefiles/PntFormat.h"

#include <stdexcept>

namespace pc_preprocess
{

uint64_t numPointsPNT(uint64_t fileSize, bool extended)
{
    if (fileSize < kPntHeaderSize)
        throw std::runtime_error("ERROR PNT READER: File size is smaller than header size.");
    const uint64_t recordBytes = fileSize - kPntHeaderSize;
    const uint64_t recordSize = pntRecordSize(extended);
    if (recordBytes % recordSize != 0)
        throw std::runtime_error("ERROR PNT READER: File does not contain an integer number of points.");
    return recordBytes / recordSize;
}

uint64_t fileSizePNT(uint64_t points, bool extended)
{
    return pntRecordSize(extended) * points + kPntHeaderSize;
}

PntHeader decodePntHeader(std::span<const uint8_t> bytes)
{
    if (bytes.size() < kPntHeaderSize)
        throw std::runtime_error("ERROR PNT READER: File size is smaller than header size.");
    PntHeader header;
    std::memcpy(header.transfo.scale.data(), bytes.data(), 24);
    std::memcpy(header.transfo.offset.data(), bytes.data() + 24, 24);
    header.colourFlag = bytes[48];
    header.extendedFlag = bytes[49];
    return header;
}

void encodePntHeader(const IoTransfo& transfo, uint8_t* out)
{
    std::memcpy(out, transfo.scale.data(), 24);
    std::memcpy(out + 24, transfo.offset.data(), 24);
    out[48] = 1;
    out[49] = 1;
}

void requireColourFlag(const PntHeader& header, const std::string& prefix)
{
    if (header.colourFlag == 0)
        throw std::runtime_error(prefix + ": Only colorful PNT are supported.");
}

}  // namespace pc_preprocess
