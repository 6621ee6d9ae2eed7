// Owning handles of zstd's reusable compression and decompression contexts.
#pragma once

#include <zstd.h>

#include <memory>

namespace HSPC
{

struct ZstdCompressionContextDeleter
{
    void operator()(ZSTD_CCtx* context) const { ZSTD_freeCCtx(context); }
};
struct ZstdDecompressionContextDeleter
{
    void operator()(ZSTD_DCtx* context) const { ZSTD_freeDCtx(context); }
};

using ZstdCompressionContext = std::unique_ptr<ZSTD_CCtx, ZstdCompressionContextDeleter>;
using ZstdDecompressionContext = std::unique_ptr<ZSTD_DCtx, ZstdDecompressionContextDeleter>;

}  // namespace HSPC
