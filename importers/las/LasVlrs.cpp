#include "importers/las/LasVlrs.h"

#include <stdexcept>
#include <vector>

#include "importers/las/LaszVlr.h"

namespace pc_preprocess::las
{

std::string readCoordinateSystem(const LasHeader& header, uint64_t fileSize, const ReadAt& read)
{
    if (header.numberOfVlrs == 0)
        return {};
    const auto beyondEnd = [] { return std::runtime_error("\nLAS error: VLR extends beyond file size.\n"); };

    LaszVlr vlrs(header.globalEncoding);
    std::vector<uint8_t> vlrHeader(LaszVlr::kHeaderSize);
    std::vector<uint8_t> payload;
    // Every record moves the position on by at least its header or ends the walk, so a count in the billions
    // costs no more than the file's size allows.
    uint64_t position = header.headerSize;
    for (uint32_t i = 0; i < header.numberOfVlrs; ++i)
    {
        if (position + LaszVlr::kHeaderSize > fileSize)
            throw beyondEnd();
        read(position, vlrHeader);
        const auto [interpretable, length] = vlrs.parseHeader(vlrHeader);
        const uint64_t payloadPosition = position + LaszVlr::kHeaderSize;
        if (payloadPosition + length > fileSize)
            throw beyondEnd();
        if (interpretable)
        {
            payload.resize(length);
            read(payloadPosition, payload);
            vlrs.parseRecord(payload.data(), payload.size());
        }
        position = payloadPosition + length;
    }
    return vlrs.getWKT();
}

}  // namespace pc_preprocess::las
