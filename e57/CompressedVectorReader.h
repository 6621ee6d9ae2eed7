#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "e57/ImageFile.h"

namespace e57
{

// Where the values of one field of a compressed vector's records go: the field's path in the prototype
// ("cartesianX", "nor:normalX"), and a caller-owned array of `capacity` elements of double or of bytes.
// Integers convert to either; floats to doubles only, or to bytes with conversion on (truncated); scaled
// integers give their scaled value with scaling on, their raw value with it off.
struct SourceDestBuffer
{
    enum class Kind
    {
        Double,
        Byte,
    };

    std::string path;
    Kind kind = Kind::Double;
    void* data = nullptr;
    size_t capacity = 0;
    bool doConversion = true;
    bool doScaling = true;

    static SourceDestBuffer doubles(std::string path, std::vector<double>& values, bool scaling)
    {
        return {std::move(path), Kind::Double, values.data(), values.size(), true, scaling};
    }
    static SourceDestBuffer bytes(std::string path, std::vector<uint8_t>& values)
    {
        return {std::move(path), Kind::Byte, values.data(), values.size(), true, false};
    }
};

// Reads the records of a compressed vector in order, into the buffers, a batch at a time. The binary section
// is read in large sequential pieces, its data packets' bytestreams decoded with the bitpack codec across
// packet boundaries; index and empty packets are passed over. The bytestream of a field without a buffer,
// of any type (String included), is passed over undecoded. Failures are E57Exceptions: BadCVHeader for a
// section header that does not fit the file, BadCVPacket for a packet whose sizes do not fit, BadChecksum
// for a page whose CRC-32C does not match, BadXmlFormat for a malformed number that the reading needs,
// BadBuffer / NoBufferForElement / BufferSizeMismatch / PathUndefined for buffers that do not fit the
// prototype.
class CompressedVectorReader
{
public:
    CompressedVectorReader(const ImageFile& file, const Node& compressedVector,
                           std::vector<SourceDestBuffer> buffers);
    // The same on the pages of a file, for a node parsed on its own (fuzzing, tests).
    CompressedVectorReader(const PagedFile& pages, const Node& compressedVector,
                           std::vector<SourceDestBuffer> buffers);
    ~CompressedVectorReader();
    CompressedVectorReader(CompressedVectorReader&&) noexcept;
    CompressedVectorReader& operator=(CompressedVectorReader&&) noexcept;

    // Fills the buffers with the next records, at most the smallest capacity; returns how many, 0 at the end.
    // A section that ends before its record count fails with BadCVPacket.
    size_t read();
    // The records not read yet.
    uint64_t remaining() const;

private:
    struct State;
    std::unique_ptr<State> m_state;
};

}  // namespace e57
