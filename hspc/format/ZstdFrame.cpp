#include "hspc/format/ZstdFrame.h"

#include <zstd.h>

#include <algorithm>

#include "hspc/format/ZstdContexts.h"

namespace HSPC
{
namespace
{

// Level 1 frames use windows of at most 2^19 bytes; 2^23 leaves room for other writers of the format and
// keeps a hostile frame from reserving more.
constexpr int kWindowLogLimit = 23;
// Output grows by at least this much at a time, and at most doubles.
constexpr size_t kFirstOutputStep = 1 << 16;

}  // namespace

bool appendZstdFrame(std::span<const uint8_t> input, int level, std::vector<uint8_t>& output, std::string& error)
{
    const size_t at = output.size();
    output.resize(at + ZSTD_compressBound(input.size()));
    const size_t written = ZSTD_compress(output.data() + at, output.size() - at, input.data(), input.size(), level);
    if (ZSTD_isError(written))
    {
        output.resize(at);
        error = std::string("zstd compression error: ") + ZSTD_getErrorName(written);
        return false;
    }
    output.resize(at + written);
    return true;
}

bool inflateZstdFrame(std::span<const uint8_t> frame, uint64_t declaredSize, std::vector<uint8_t>& output,
                      std::string& error)
{
    output.clear();
    const ZstdDecompressionContext context(ZSTD_createDCtx());
    if (!context)
    {
        error = "failed to create zstd decompression context.";
        return false;
    }
    const size_t setLimit = ZSTD_DCtx_setParameter(context.get(), ZSTD_d_windowLogMax, kWindowLogLimit);
    if (ZSTD_isError(setLimit))
    {
        error = std::string("zstd decompression error: ") + ZSTD_getErrorName(setLimit);
        return false;
    }
    ZSTD_inBuffer in{frame.data(), frame.size(), 0};
    size_t produced = 0;
    size_t pending = 1;  // zstd's hint of what is left of the frame; 0 once it is complete
    uint8_t probe = 0;
    while (pending != 0)
    {
        // Once the declared size is reached, one more byte of room tells a complete frame from a longer one.
        const bool full = produced == declaredSize;
        if (!full && produced == output.size())
        {
            const uint64_t step = std::max<uint64_t>(kFirstOutputStep, produced);
            output.resize(size_t(std::min<uint64_t>(declaredSize, produced + step)));
        }
        ZSTD_outBuffer out = full ? ZSTD_outBuffer{&probe, 1, 0} : ZSTD_outBuffer{output.data(), output.size(), produced};
        const size_t consumedBefore = in.pos;
        const size_t producedBefore = out.pos;
        pending = ZSTD_decompressStream(context.get(), &out, &in);
        if (ZSTD_isError(pending))
        {
            error = std::string("zstd decompression error: ") + ZSTD_getErrorName(pending);
            output.clear();
            return false;
        }
        if (full && out.pos != 0)
        {
            error = "the compressed data inflates to more than the " + std::to_string(declaredSize) +
                    " bytes declared";
            output.clear();
            return false;
        }
        if (!full)
        {
            produced = out.pos;
        }
        if (pending != 0 && in.pos == consumedBefore && out.pos == producedBefore)
        {
            break;  // no input left and nothing more to flush: the frame is cut off
        }
    }
    output.resize(produced);
    if (pending != 0)
    {
        error = "the compressed data ends inside its zstd frame";
        return false;
    }
    if (in.pos != in.size)
    {
        error = "bytes follow the zstd frame inside the compressed size";
        return false;
    }
    if (produced != declaredSize)
    {
        error = "the compressed data inflates to " + std::to_string(produced) + " bytes, not the " +
                std::to_string(declaredSize) + " declared";
        return false;
    }
    return true;
}

}  // namespace HSPC
