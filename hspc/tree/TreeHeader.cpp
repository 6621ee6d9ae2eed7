#include "hspc/tree/TreeHeader.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "hspc/format/JsonInfo.h"
#include "hspc/format/LittleEndian.h"
#include "hspc/format/ZstdFrame.h"
#include "hspc/tree/Chunk.h"

namespace HSPC
{
namespace
{

constexpr char kHeaderTag[5] = "APRT";
constexpr char kCommentTag[4] = {'C', 'J', 'S', 'O'};
// The byte after the comment's tag: the frame's compression, zstd.
constexpr uint8_t kCommentZstd = 100;
constexpr int kCommentLevel = 1;

// Versions from which a field exists or changes its form.
constexpr uint32_t kFirstVersionWithProjection = 5;
constexpr uint32_t kFirstVersionWithMetaUrl = 6;
constexpr uint32_t kFirstVersionWithRevision = 9;
constexpr uint32_t kFirstVersionWithProgressive = 10;
constexpr uint32_t kFirstVersionWithOrigin = 12;
constexpr uint32_t kFirstVersionWithDensityBase = 13;
constexpr uint32_t kFirstVersionWithJsonComment = 19;
constexpr uint32_t kFirstVersionWithCompressedComment = 22;

using little_endian::append;

void appendText(std::vector<uint8_t>& bytes, const std::string& text)
{
    const size_t length = std::min<size_t>(text.size(), std::numeric_limits<uint16_t>::max());
    append<uint16_t>(bytes, uint16_t(length));
    bytes.insert(bytes.end(), text.begin(), text.begin() + ptrdiff_t(length));
}

template <typename T, size_t N>
void appendArray(std::vector<uint8_t>& bytes, const std::array<T, N>& values)
{
    for (const T value : values)
    {
        append<T>(bytes, value);
    }
}

bool appendComment(std::vector<uint8_t>& bytes, const std::string& comment, std::string& error)
{
    bytes.insert(bytes.end(), std::begin(kCommentTag), std::end(kCommentTag));
    bytes.push_back(kCommentZstd);
    const size_t sizesAt = bytes.size();
    append<uint64_t>(bytes, 0);
    append<uint64_t>(bytes, comment.size());
    const std::span<const uint8_t> text(reinterpret_cast<const uint8_t*>(comment.data()), comment.size());
    if (!appendZstdFrame(text, kCommentLevel, bytes, error))
    {
        return false;
    }
    little_endian::store<uint64_t>(bytes.data() + sizesAt, uint64_t(bytes.size() - sizesAt - 16));
    return true;
}

bool readText(FieldReader& reader, std::string& text)
{
    const uint16_t length = reader.read<uint16_t>();
    return reader.ok() && reader.readText(length, text);
}

template <typename T, size_t N>
void readArray(FieldReader& reader, std::array<T, N>& values)
{
    for (T& value : values)
    {
        value = reader.read<T>();
    }
}

bool readComment(FieldReader& reader, uint32_t version, std::string& comment, std::string& error)
{
    if (version < kFirstVersionWithCompressedComment)
    {
        if (!readText(reader, comment))
        {
            error = "the file ends inside the tree comment";
            return false;
        }
        return true;
    }
    const std::span<const uint8_t> tag = reader.readBytes(sizeof(kCommentTag));
    const uint8_t compression = reader.read<uint8_t>();
    const uint64_t compressedSize = reader.read<uint64_t>();
    const uint64_t size = reader.read<uint64_t>();
    if (!reader.ok() || !reader.canHold(compressedSize, 1))
    {
        error = "the file ends inside the tree comment";
        return false;
    }
    if (std::memcmp(tag.data(), kCommentTag, sizeof(kCommentTag)) != 0 || compression != kCommentZstd)
    {
        error = "the tree comment is not a \"CJSO\" block of zstd-compressed JSON";
        return false;
    }
    std::vector<uint8_t> text;
    if (!inflateZstdFrame(reader.readBytes(size_t(compressedSize)), size, text, error))
    {
        error = "tree comment: " + error;
        return false;
    }
    comment.assign(text.begin(), text.end());
    return true;
}

// Files before version 19 kept only plain text fields; readers see them as the JSON that newer writers keep.
void rebuildComment(TreeHeader& header)
{
    JsonInfo json;
    const std::pair<const char*, const std::string*> texts[] = {
        {"name", &header.name},
        {"base-path", &header.basePath},
        {"comment", &header.comment},
        {"meta-url", &header.metaUrl},
        {"author", &header.author},
        {"projection-wkt", &header.projectionWkt},
        {"source-projection-wkt", &header.sourceProjectionWkt}};
    for (const auto& [key, value] : texts)
    {
        if (!value->empty())
        {
            json.add(key, *value);
        }
    }
    if (header.projectionEpsg != 0)
    {
        json.add("projection-epsg", int64_t(header.projectionEpsg));
    }
    if (header.sourceProjectionEpsg != 0)
    {
        json.add("source-projection-epsg", int64_t(header.sourceProjectionEpsg));
    }
    header.comment = json.text();
}

}  // namespace

bool appendTreeHeader(const TreeHeader& header, std::vector<uint8_t>& bytes, std::string& error)
{
    const size_t start = beginChunk(bytes, kHeaderTag);
    append<uint32_t>(bytes, kTreeFormatVersion);
    append<uint8_t>(bytes, header.minLod);
    append<uint8_t>(bytes, header.maxLod);
    append<uint32_t>(bytes, header.nodeSize);
    append<uint32_t>(bytes, header.maxNodeSize);
    appendArray(bytes, header.rootOffset);
    appendArray(bytes, header.boxMin);
    appendArray(bytes, header.boxMax);
    appendArray(bytes, header.scale);
    append<uint32_t>(bytes, header.attributeId);
    append<uint64_t>(bytes, header.timeStamp);
    appendText(bytes, header.name);
    appendText(bytes, header.basePath);
    if (!appendComment(bytes, header.comment, error))
    {
        bytes.resize(start);
        return false;
    }
    appendText(bytes, header.author);
    appendText(bytes, header.projectionWkt);
    appendText(bytes, header.sourceProjectionWkt);
    append<uint32_t>(bytes, header.projectionEpsg);
    append<uint32_t>(bytes, header.sourceProjectionEpsg);
    appendArray(bytes, header.centerProjected);
    append<uint8_t>(bytes, header.flag);
    append<uint64_t>(bytes, header.pointCount);
    appendText(bytes, header.metaUrl);
    append<uint64_t>(bytes, header.filteredPointCount);
    append<uint32_t>(bytes, header.revision);
    append<uint8_t>(bytes, header.progressive);
    appendArray(bytes, header.origin);
    append<uint32_t>(bytes, header.densityBase);
    endChunk(bytes, start);
    return true;
}

bool readTreeHeader(FieldReader& reader, TreeHeader& header, std::string& error)
{
    const size_t start = reader.position();
    uint64_t chunkSize = 0;
    if (!readChunkStart(reader, kHeaderTag, chunkSize, error))
    {
        return false;
    }
    header = TreeHeader{};
    header.formatVersion = reader.read<uint32_t>();
    if (!reader.ok())
    {
        error = "the file ends inside the \"APRT\" chunk";
        return false;
    }
    const uint32_t version = header.formatVersion;
    if (version < kOldestTreeFormatVersion || version > kTreeFormatVersion)
    {
        error = "tree format version " + std::to_string(version) + " is not supported (only " +
                std::to_string(kOldestTreeFormatVersion) + " to " + std::to_string(kTreeFormatVersion) + ")";
        return false;
    }
    header.minLod = reader.read<uint8_t>();
    header.maxLod = reader.read<uint8_t>();
    header.nodeSize = reader.read<uint32_t>();
    header.maxNodeSize = reader.read<uint32_t>();
    readArray(reader, header.rootOffset);
    readArray(reader, header.boxMin);
    readArray(reader, header.boxMax);
    readArray(reader, header.scale);
    header.attributeId = reader.read<uint32_t>();
    header.timeStamp = reader.read<uint64_t>();
    if (!readText(reader, header.name) || !readText(reader, header.basePath) ||
        !readComment(reader, version, header.comment, error))
    {
        if (error.empty())
        {
            error = "the file ends inside the \"APRT\" chunk";
        }
        return false;
    }
    if (version >= kFirstVersionWithProjection)
    {
        readText(reader, header.author);
        readText(reader, header.projectionWkt);
        readText(reader, header.sourceProjectionWkt);
        header.projectionEpsg = reader.read<uint32_t>();
        header.sourceProjectionEpsg = reader.read<uint32_t>();
        readArray(reader, header.centerProjected);
        header.flag = reader.read<uint8_t>();
        header.pointCount = reader.read<uint64_t>();
    }
    if (version >= kFirstVersionWithMetaUrl)
    {
        readText(reader, header.metaUrl);
    }
    if (version >= kFirstVersionWithRevision)
    {
        header.filteredPointCount = reader.read<uint64_t>();
        header.revision = reader.read<uint32_t>();
    }
    if (version >= kFirstVersionWithProgressive)
    {
        header.progressive = reader.read<uint8_t>();
    }
    header.origin = header.boxMin;
    if (version >= kFirstVersionWithOrigin)
    {
        readArray(reader, header.origin);
    }
    header.densityBase = header.maxNodeSize;
    if (version >= kFirstVersionWithDensityBase)
    {
        header.densityBase = reader.read<uint32_t>();
    }
    if (!reader.ok())
    {
        error = "the file ends inside the \"APRT\" chunk";
        return false;
    }
    if (!chunkSizeMatches(reader, start, chunkSize, kHeaderTag, error))
    {
        return false;
    }
    if (version < kFirstVersionWithJsonComment)
    {
        rebuildComment(header);
    }
    return true;
}

}  // namespace HSPC
