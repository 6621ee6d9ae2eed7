#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

struct libdeflate_compressor;
struct libdeflate_decompressor;

namespace pc_preprocess
{

// A PNZ file is one zlib stream (deflate with the zlib wrapper, level 7) and nothing else.

// Deflate and inflate as one thread does them node after node: libdeflate's compressor and decompressor are
// made once, and the buffers keep their size, so that a worker allocates and clears nothing per node once
// they have grown to the largest node. The results stay valid until the next call of the same kind.
class PnzCoder
{
public:
    PnzCoder();
    ~PnzCoder();
    PnzCoder(PnzCoder&&) noexcept;
    PnzCoder& operator=(PnzCoder&&) noexcept;

    // The whole input as one zlib stream; failures are "ERROR PNZ COMPRESS: ..." errors.
    std::span<const uint8_t> deflate(std::span<const uint8_t> input);

    // A whole stream inflated, refusing to produce more than maxOutput bytes; failures, a truncated stream
    // included, are "ERROR PNZ DECOMPRESS: ..." errors. A caller that knows the size (a node's file holds
    // 26 * points + 50 bytes) passes it as expectedSize: that room is offered first, and a stream that
    // does not fit it is inflated as one of unknown size.
    std::span<const uint8_t> inflate(std::span<const uint8_t> compressed, uint64_t maxOutput,
                                     uint64_t expectedSize = 0);

    // Room for a node's uncompressed form before it is deflated, and for a file's bytes before they are
    // inflated: buffers of the caller's that keep their capacity from node to node.
    std::vector<uint8_t>& planes() { return m_planes; }
    std::vector<uint8_t>& fileBytes() { return m_fileBytes; }

private:
    struct Libdeflate;
    std::unique_ptr<Libdeflate> m_libdeflate;
    std::vector<uint8_t> m_compressed;
    std::vector<uint8_t> m_inflated;
    std::vector<uint8_t> m_planes;
    std::vector<uint8_t> m_fileBytes;
};

// Compresses the whole input; failures are "ERROR PNZ COMPRESS: ..." errors.
std::vector<uint8_t> deflatePnz(std::span<const uint8_t> input);

// Inflates a whole stream, refusing to produce more than maxOutput bytes; failures, a truncated stream
// included, are "ERROR PNZ DECOMPRESS: ..." errors.
std::vector<uint8_t> inflatePnz(std::span<const uint8_t> compressed, uint64_t maxOutput);

// The most that a zlib stream of this many bytes can inflate to: deflate cannot expand beyond 1032:1, and the
// wrapper adds a few bytes. Used as the cap for files, whose content is not trusted.
uint64_t maxInflatedSize(uint64_t compressedSize);

}  // namespace pc_preprocess
