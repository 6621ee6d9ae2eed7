#include "e57/CompressedVectorReader.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "e57/Bitpack.h"
#include "e57/E57Exception.h"
#include "e57/PacketStream.h"

namespace e57
{

namespace
{

enum class Codec
{
    Integer,
    Float32,
    Float64,
    // Strings are never decoded: writers put identifiers and comments in a record, and nobody reads them.
    String,
};

// One field of the prototype: how its bytestream is coded, and where its values go. A field that no buffer
// asks for is never decoded: its bytestream is passed over whatever its type.
struct Field
{
    const Node* node = nullptr;
    Codec codec = Codec::Integer;
    unsigned width = 0;
    int64_t minimum = 0;
    double scale = 1.0;
    double offset = 0.0;
    bool scaled = false;
    bool byteRangeChecked = true;
    const SourceDestBuffer* buffer = nullptr;
};

// The terminal elements of a prototype in document order: one bytestream each.
void collectFields(const Node& node, std::vector<Field>& fields, const std::string& where)
{
    switch (node.type)
    {
        case NodeType::Structure:
        case NodeType::Vector:
            for (const auto& child : node.children)
                collectFields(*child, fields, where);
            return;
        case NodeType::Integer:
        case NodeType::ScaledInteger:
        {
            Field field;
            field.node = &node;
            field.width = bitWidth(node.integerMinimum, node.integerMaximum);
            field.minimum = node.integerMinimum;
            field.scaled = node.type == NodeType::ScaledInteger;
            field.scale = node.scale;
            field.offset = node.offset;
            // Stored bits can say more than the maximum; only values that cannot leave 0..255 skip the check.
            const uint64_t reach = field.width >= 63 ? ~uint64_t{0} : (uint64_t{1} << field.width) - 1;
            field.byteRangeChecked = node.integerMinimum < 0 || reach > 255 ||
                                     static_cast<uint64_t>(node.integerMinimum) + reach > 255;
            fields.push_back(field);
            return;
        }
        case NodeType::Float:
        {
            Field field;
            field.node = &node;
            field.codec = node.singlePrecision ? Codec::Float32 : Codec::Float64;
            field.width = node.singlePrecision ? 32 : 64;
            fields.push_back(field);
            return;
        }
        case NodeType::String:
        {
            Field field;
            field.node = &node;
            field.codec = Codec::String;
            fields.push_back(field);
            return;
        }
        default:
            E57_THROW(ErrorCode::BadXmlFormat, where + ": its prototype holds " + node.pathName() +
                                                   ", which cannot be a field of a record");
    }
}

[[noreturn]] void notRepresentable(const Field& field, double value)
{
    E57_THROW(ErrorCode::ValueNotRepresentable,
              "value " + std::to_string(value) + " of " + field.node->pathName() + " does not fit a byte");
}

inline uint8_t toByte(const Field& field, double value)
{
    if (!(value >= 0.0 && value < 256.0))
        notRepresentable(field, value);
    return static_cast<uint8_t>(value);
}

inline uint8_t toByte(const Field& field, int64_t value)
{
    if (value < 0 || value > 255)
        notRepresentable(field, static_cast<double>(value));
    return static_cast<uint8_t>(value);
}

// Decodes `count` values of a field that a buffer asks for, from its stream into its buffer from index
// `first`.
void decode(const Field& field, ByteStream& stream, size_t first, size_t count)
{
    const SourceDestBuffer& buffer = *field.buffer;
    const bool toDouble = buffer.kind == SourceDestBuffer::Kind::Double;
    double* doubles = static_cast<double*>(buffer.data) + first;
    uint8_t* bytes = static_cast<uint8_t*>(buffer.data) + first;
    const uint8_t* in = stream.data() + stream.bitPosition() / 8;
    const auto storeFloat = [&](size_t i, double value)
    {
        if (toDouble)
            doubles[i] = value;
        else
            bytes[i] = toByte(field, std::trunc(value));
    };
    if (field.codec == Codec::Float32)
        unpackFloats<float>(in, count, storeFloat);
    else if (field.codec == Codec::Float64)
        unpackFloats<double>(in, count, storeFloat);
    else if (field.width == 0)
    {
        // A one-value range: nothing stored.
        const double value = field.scaled && buffer.doScaling
                                 ? static_cast<double>(field.minimum) * field.scale + field.offset
                                 : static_cast<double>(field.minimum);
        for (size_t i = 0; i < count; ++i)
            storeFloat(i, value);
    }
    else if (field.scaled && buffer.doScaling)
        unpackIntegers(stream.data(), stream.bitPosition(), field.width, field.minimum, count,
                       [&](size_t i, int64_t raw)
                       { storeFloat(i, static_cast<double>(raw) * field.scale + field.offset); });
    else if (toDouble)
        unpackIntegers(stream.data(), stream.bitPosition(), field.width, field.minimum, count,
                       [&](size_t i, int64_t raw) { doubles[i] = static_cast<double>(raw); });
    else if (field.byteRangeChecked)
        unpackIntegers(stream.data(), stream.bitPosition(), field.width, field.minimum, count,
                       [&](size_t i, int64_t raw) { bytes[i] = toByte(field, raw); });
    else
        unpackIntegers(stream.data(), stream.bitPosition(), field.width, field.minimum, count,
                       [&](size_t i, int64_t raw) { bytes[i] = static_cast<uint8_t>(raw); });
    stream.advance(uint64_t{field.width} * count);
}

}  // namespace

struct CompressedVectorReader::State
{
    const Node* compressedVector;
    PacketStream packets;
    std::vector<SourceDestBuffer> buffers;
    std::vector<Field> fields;
    std::vector<ByteStream> streams;
    std::vector<bool> skip;
    std::vector<size_t> produced;
    size_t batch = 0;
    uint64_t recordCount = 0;
    uint64_t recordsRead = 0;

    State(const PagedFile& file, const Node& cv, std::vector<SourceDestBuffer> given)
        : compressedVector(&cv), packets(file, cv), buffers(std::move(given)), recordCount(cv.recordCount)
    {
        const std::string& where = packets.where();
        if (!cv.prototype)
            E57_THROW(ErrorCode::BadXmlFormat, where + " has no prototype");
        if (cv.codecs)
            for (const auto& codec : cv.codecs->children)
                if (!codec->has("bitPackCodec"))
                    E57_THROW(ErrorCode::NotImplemented,
                              where + ": codec " + codec->pathName() +
                                  " is not the bitpack codec, the only one supported");
        collectFields(*cv.prototype, fields, where);
        bindBuffers(where);
        streams.resize(fields.size());
        skip.resize(fields.size());
        produced.resize(fields.size());
        for (size_t i = 0; i < fields.size(); ++i)
            skip[i] = fields[i].buffer == nullptr || fields[i].width == 0;
    }

    void bindBuffers(const std::string& where)
    {
        if (buffers.empty())
            E57_THROW(ErrorCode::NoBufferForElement, where + ": no buffer given for its records");
        batch = std::numeric_limits<size_t>::max();
        for (const SourceDestBuffer& buffer : buffers)
        {
            const std::string what = where + ": the buffer for \"" + buffer.path + "\"";
            const Node* node = compressedVector->prototype->find(buffer.path);
            if (node == nullptr)
                E57_THROW(ErrorCode::PathUndefined, what + " names no field of the prototype");
            const auto field =
                std::find_if(fields.begin(), fields.end(), [&](const Field& f) { return f.node == node; });
            if (field == fields.end())
                E57_THROW(ErrorCode::BadBuffer,
                          what + " names " + node->pathName() + ", which is not a field");
            if (field->buffer != nullptr)
                E57_THROW(ErrorCode::BadBuffer, what + " is given twice");
            if (field->codec == Codec::String)
                E57_THROW(ErrorCode::BadBuffer, what + " names the String field " + node->pathName() +
                                                    ", whose values are no numbers");
            node->requireNumbers();
            if (buffer.data == nullptr || buffer.capacity == 0)
                E57_THROW(ErrorCode::BadBuffer, what + " has no room");
            if (buffer.kind == SourceDestBuffer::Kind::Byte && field->codec != Codec::Integer &&
                !buffer.doConversion)
                E57_THROW(ErrorCode::BadBuffer, what + " takes bytes from a Float field without conversion");
            field->buffer = &buffer;
            batch = std::min(batch, buffer.capacity);
        }
    }
};

CompressedVectorReader::CompressedVectorReader(const ImageFile& file, const Node& compressedVector,
                                               std::vector<SourceDestBuffer> buffers)
    : CompressedVectorReader(file.pages(), compressedVector, std::move(buffers))
{
}

CompressedVectorReader::CompressedVectorReader(const PagedFile& pages, const Node& compressedVector,
                                               std::vector<SourceDestBuffer> buffers)
{
    if (compressedVector.type != NodeType::CompressedVector)
        E57_THROW(ErrorCode::BadNodeDowncast, compressedVector.pathName() + " is not a CompressedVector");
    compressedVector.requireNumbers();
    m_state = std::make_unique<State>(pages, compressedVector, std::move(buffers));
}

CompressedVectorReader::~CompressedVectorReader() = default;
CompressedVectorReader::CompressedVectorReader(CompressedVectorReader&&) noexcept = default;
CompressedVectorReader& CompressedVectorReader::operator=(CompressedVectorReader&&) noexcept = default;

uint64_t CompressedVectorReader::remaining() const
{
    return m_state->recordCount - m_state->recordsRead;
}

size_t CompressedVectorReader::read()
{
    State& s = *m_state;
    const size_t wanted = static_cast<size_t>(std::min<uint64_t>(s.batch, remaining()));
    if (wanted == 0)
        return 0;
    std::fill(s.produced.begin(), s.produced.end(), 0);
    // Fields advance independently: each takes what its stream holds, and packets are fetched until every
    // field has its values. Decoding after each packet keeps every stream near one packet's worth.
    for (;;)
    {
        bool complete = true;
        for (size_t i = 0; i < s.fields.size(); ++i)
        {
            const Field& field = s.fields[i];
            const size_t missing = wanted - s.produced[i];
            if (missing == 0)
                continue;
            if (field.buffer == nullptr)
            {
                // Nobody asked for this field, and its bytestream was never fetched.
                s.produced[i] = wanted;
                continue;
            }
            const uint64_t available =
                field.width == 0 ? missing : s.streams[i].availableBits() / field.width;
            const auto take = static_cast<size_t>(std::min<uint64_t>(missing, available));
            decode(field, s.streams[i], s.produced[i], take);
            s.produced[i] += take;
            complete = complete && s.produced[i] == wanted;
        }
        if (complete)
            break;
        if (!s.packets.next(s.streams, s.skip))
            E57_THROW(
                ErrorCode::BadCVPacket,
                s.packets.where() + ": the section ends after record " +
                    std::to_string(s.recordsRead + *std::min_element(s.produced.begin(), s.produced.end())) +
                    " of " + std::to_string(s.recordCount));
    }
    s.recordsRead += wanted;
    return wanted;
}

}  // namespace e57
