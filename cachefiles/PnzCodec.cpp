#include "cachefiles/PnzCodec.h"

#include <libdeflate.h>
#include <zlib.h>

#include <algorithm>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>

namespace pc_preprocess
{

namespace
{

// Capacity for a full node of 65536 records of 26 bytes and a header, reserved up front so that the output of
// a finished node never moves; the size grows in rounds, and only what zlib writes is ever touched.
constexpr size_t kReservedOutput = 1835008;
constexpr size_t kGrowthPerRound = 16384;
constexpr int kPnzLevel = 7;
// zlib counts in 32-bit units; larger buffers are offered in slices of this size.
constexpr size_t kMaxSlice = std::numeric_limits<uInt>::max();

// Offers the next slice of the input once zlib has taken the previous one.
class InputFeed
{
public:
    explicit InputFeed(std::span<const uint8_t> input) : m_next(input.data()), m_remaining(input.size()) {}

    void refill(z_stream& stream)
    {
        if (stream.avail_in != 0 || m_remaining == 0)
            return;
        const size_t slice = std::min(m_remaining, kMaxSlice);
        stream.next_in = const_cast<Bytef*>(m_next);  // zlib's interface is not const-correct; it only reads
        stream.avail_in = static_cast<uInt>(slice);
        m_next += slice;
        m_remaining -= slice;
    }
    bool exhausted() const { return m_remaining == 0; }

private:
    const uint8_t* m_next;
    size_t m_remaining;
};

// The output vector, grown in fixed rounds; zlib writes at the end of what is produced.
class OutputBuffer
{
public:
    explicit OutputBuffer(size_t reserved) { m_bytes.reserve(reserved); }

    size_t produced(const z_stream& stream) const
    {
        return m_bytes.empty() ? 0 : static_cast<size_t>(stream.next_out - m_bytes.data());
    }
    size_t size() const { return m_bytes.size(); }
    void grow(z_stream& stream, size_t bytes)
    {
        const size_t done = produced(stream);
        m_bytes.resize(m_bytes.size() + bytes);
        stream.next_out = m_bytes.data() + done;
        stream.avail_out = static_cast<uInt>(std::min(m_bytes.size() - done, kMaxSlice));
    }
    std::vector<uint8_t> take(const z_stream& stream)
    {
        m_bytes.resize(produced(stream));
        return std::move(m_bytes);
    }

private:
    std::vector<uint8_t> m_bytes;
};

// More output than the stream's size allows (or than a caller accepts): a corrupt or hostile file.
std::runtime_error tooLarge(uint64_t maxOutput)
{
    return std::runtime_error("ERROR PNZ DECOMPRESS: inflated data larger than " + std::to_string(maxOutput) +
                              " bytes.");
}

}  // namespace

namespace
{

// zlib's streaming inflate: it grows its output in rounds and names every kind of damage.
std::vector<uint8_t> inflateWithZlib(std::span<const uint8_t> compressed, uint64_t maxOutput)
{
    z_stream stream{};
    if (inflateInit(&stream) != Z_OK)
        throw std::runtime_error("ERROR PNZ DECOMPRESS: Cannot initiate inflate.");
    struct End
    {
        z_stream& s;
        ~End() { inflateEnd(&s); }
    } end{stream};

    // One byte beyond the cap tells a stream that ends exactly at the cap from one that goes on.
    const uint64_t capacity = std::min<uint64_t>(maxOutput, std::numeric_limits<size_t>::max() - 1) + 1;
    InputFeed feed(compressed);
    OutputBuffer output(static_cast<size_t>(std::min<uint64_t>(kReservedOutput, capacity)));
    int ret = Z_OK;
    for (;;)
    {
        feed.refill(stream);
        if (stream.avail_out == 0)
        {
            if (output.size() >= capacity)
                throw tooLarge(maxOutput);
            output.grow(stream,
                        static_cast<size_t>(std::min<uint64_t>(kGrowthPerRound, capacity - output.size())));
        }
        const uLong inBefore = stream.total_in;
        const uLong outBefore = stream.total_out;
        ret = inflate(&stream, Z_NO_FLUSH);
        switch (ret)
        {
            case Z_STREAM_ERROR:
                throw std::runtime_error("ERROR PNZ DECOMPRESS: Z_STREAM_ERROR.");
            case Z_NEED_DICT:
                throw std::runtime_error("ERROR PNZ DECOMPRESS: Z_NEED_DICT.");
            case Z_DATA_ERROR:
                throw std::runtime_error("ERROR PNZ DECOMPRESS: Z_DATA_ERROR.");
            case Z_MEM_ERROR:
                throw std::runtime_error("ERROR PNZ DECOMPRESS: Z_MEM_ERROR.");
            default:
                break;
        }
        if (ret == Z_STREAM_END)
            break;
        if (stream.total_in == inBefore && stream.total_out == outBefore)
            break;  // the input ends before the stream does
    }
    if (output.produced(stream) > maxOutput)
        throw tooLarge(maxOutput);
    if (ret != Z_STREAM_END)
        throw std::runtime_error("ERROR PNZ DECOMPRESS: ret != Z_STREAM_END.");
    return output.take(stream);
}

}  // namespace

// libdeflate compresses a whole buffer in one call, about twice as fast as zlib at the same level and a
// little smaller, and writes the same standard zlib stream that any inflater reads; it inflates a whole
// stream in one call, about three times as fast as zlib, into room for the whole result.
struct PnzCoder::Libdeflate
{
    struct FreeCompressor
    {
        void operator()(libdeflate_compressor* c) const { libdeflate_free_compressor(c); }
    };
    struct FreeDecompressor
    {
        void operator()(libdeflate_decompressor* d) const { libdeflate_free_decompressor(d); }
    };
    std::unique_ptr<libdeflate_compressor, FreeCompressor> compressor;
    std::unique_ptr<libdeflate_decompressor, FreeDecompressor> decompressor;
};

PnzCoder::PnzCoder() : m_libdeflate(std::make_unique<Libdeflate>()) {}
PnzCoder::~PnzCoder() = default;
PnzCoder::PnzCoder(PnzCoder&&) noexcept = default;
PnzCoder& PnzCoder::operator=(PnzCoder&&) noexcept = default;

std::span<const uint8_t> PnzCoder::deflate(std::span<const uint8_t> input)
{
    if (!m_libdeflate->compressor)
        m_libdeflate->compressor.reset(libdeflate_alloc_compressor(kPnzLevel));
    libdeflate_compressor* compressor = m_libdeflate->compressor.get();
    if (compressor == nullptr)
        throw std::runtime_error("ERROR PNZ COMPRESS: Cannot initiate deflate.");
    // The bound holds even for incompressible input, so that the one call always finishes the stream.
    const size_t bound = libdeflate_zlib_compress_bound(compressor, input.size());
    if (m_compressed.size() < bound)
        m_compressed.resize(bound);
    const size_t written =
        libdeflate_zlib_compress(compressor, input.data(), input.size(), m_compressed.data(), bound);
    if (written == 0)
        throw std::runtime_error("ERROR PNZ COMPRESS: ret != Z_STREAM_END.");
    return std::span(m_compressed).first(written);
}

std::span<const uint8_t> PnzCoder::inflate(std::span<const uint8_t> compressed, uint64_t maxOutput,
                                           uint64_t expectedSize)
{
    if (!m_libdeflate->decompressor)
        m_libdeflate->decompressor.reset(libdeflate_alloc_decompressor());
    libdeflate_decompressor* decompressor = m_libdeflate->decompressor.get();
    const auto unknownSize = [&]
    {
        m_inflated = inflateWithZlib(compressed, maxOutput);
        return std::span<const uint8_t>(m_inflated);
    };
    if (decompressor == nullptr || maxOutput > std::numeric_limits<size_t>::max() / 2)
        return unknownSize();
    // Without a known size: a node's planes shrink to a quarter or more, so four times the input mostly
    // fits, and the room doubles up to the cap when it does not. Damaged streams go to zlib, whose errors
    // say more.
    const auto cap = static_cast<size_t>(maxOutput);
    size_t room = expectedSize > 0 ? static_cast<size_t>(std::min<uint64_t>(expectedSize, cap))
                                   : std::min(cap, std::max<size_t>(compressed.size() * 4, kGrowthPerRound));
    for (;;)
    {
        // The buffer only grows: what it held before is overwritten, never cleared.
        if (m_inflated.size() < room)
            m_inflated.resize(room);
        size_t inflated = 0;
        const libdeflate_result result = libdeflate_zlib_decompress(
            decompressor, compressed.data(), compressed.size(), m_inflated.data(), room, &inflated);
        if (result == LIBDEFLATE_SUCCESS)
            return std::span(m_inflated).first(inflated);
        if (result != LIBDEFLATE_INSUFFICIENT_SPACE)
            return unknownSize();
        if (room == cap)
            throw tooLarge(maxOutput);
        room = std::min(cap, room * 2);
    }
}

std::vector<uint8_t> deflatePnz(std::span<const uint8_t> input)
{
    PnzCoder coder;
    const std::span<const uint8_t> compressed = coder.deflate(input);
    return {compressed.begin(), compressed.end()};
}

std::vector<uint8_t> inflatePnz(std::span<const uint8_t> compressed, uint64_t maxOutput)
{
    PnzCoder coder;
    const std::span<const uint8_t> inflated = coder.inflate(compressed, maxOutput);
    return {inflated.begin(), inflated.end()};
}

uint64_t maxInflatedSize(uint64_t compressedSize)
{
    constexpr uint64_t kMaxRatio = 1032;
    constexpr uint64_t kSlack = 4096;
    if (compressedSize > (std::numeric_limits<uint64_t>::max() - kSlack) / kMaxRatio)
        return std::numeric_limits<uint64_t>::max();
    return compressedSize * kMaxRatio + kSlack;
}

}  // namespace pc_preprocess
