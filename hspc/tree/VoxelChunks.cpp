#include "hspc/tree/VoxelChunks.h"

#include <algorithm>

#include "hspc/format/AttributeRecord.h"
#include "hspc/format/FieldReader.h"
#include "hspc/format/LittleEndian.h"
#include "hspc/format/NodeHeader.h"
#include "hspc/tree/Chunk.h"

namespace HSPC
{
namespace
{

constexpr char kListTag[5] = "HSVL";
constexpr char kBlockTag[5] = "HSVB";
constexpr size_t kEntryBytes = 4 + 4 + 8 + 6 * 8;

using little_endian::append;

template <size_t N>
void appendDoubles(std::vector<uint8_t>& bytes, const std::array<double, N>& values)
{
    for (const double value : values)
    {
        append<double>(bytes, value);
    }
}

template <size_t N>
void readDoubles(FieldReader& reader, std::array<double, N>& values)
{
    for (double& value : values)
    {
        value = reader.read<double>();
    }
}

}  // namespace

void appendVoxelTreeList(const VoxelTreeList& list, std::vector<uint8_t>& bytes)
{
    const size_t start = beginChunk(bytes, kListTag);
    append<uint32_t>(bytes, list.version);
    appendDoubles(bytes, list.origin);
    appendDoubles(bytes, list.scale);
    appendDoubles(bytes, list.box);
    append<uint64_t>(bytes, list.value);
    const size_t innerSizeAt = bytes.size();
    append<uint64_t>(bytes, 0);
    append<uint32_t>(bytes, uint32_t(list.attributes.size()));
    for (const Attribute& attribute : list.attributes)
    {
        appendAttributeRecord(bytes, attribute);
    }
    bytes.insert(bytes.end(), list.flags.begin(), list.flags.end());
    append<uint32_t>(bytes, uint32_t(list.entries.size()));
    for (auto entry = list.entries.rbegin(); entry != list.entries.rend(); ++entry)
    {
        append<uint32_t>(bytes, entry->first);
        append<uint32_t>(bytes, entry->second);
        append<uint64_t>(bytes, entry->value);
        appendDoubles(bytes, entry->box);
    }
    little_endian::store<uint64_t>(bytes.data() + innerSizeAt, uint64_t(bytes.size() - innerSizeAt - 8));
    little_endian::store<uint64_t>(bytes.data() + start + 4, uint64_t(bytes.size() - start - kChunkHeaderSize));
}

bool readVoxelTreeList(std::span<const uint8_t> bytes, VoxelTreeList& list, std::string& error)
{
    FieldReader reader(bytes);
    uint64_t contentSize = 0;
    if (!readChunkStart(reader, kListTag, contentSize, error))
    {
        return false;
    }
    if (contentSize != reader.remaining())
    {
        error = "the \"HSVL\" chunk says it holds " + std::to_string(contentSize) + " bytes, but " +
                std::to_string(reader.remaining()) + " follow its header";
        return false;
    }
    list.version = reader.read<uint32_t>();
    readDoubles(reader, list.origin);
    readDoubles(reader, list.scale);
    readDoubles(reader, list.box);
    list.value = reader.read<uint64_t>();
    const uint64_t innerSize = reader.read<uint64_t>();
    if (reader.ok() && innerSize != reader.remaining())
    {
        error = "the \"HSVL\" inner size " + std::to_string(innerSize) + " disagrees with the chunk";
        return false;
    }
    const uint32_t attributeCount = reader.read<uint32_t>();
    if (!reader.ok() || !readAttributeRecords(reader, list.version, attributeCount, list.attributes))
    {
        error = "the file ends inside the \"HSVL\" chunk";
        return false;
    }
    list.flags[0] = reader.read<uint8_t>();
    list.flags[1] = reader.read<uint8_t>();
    const uint32_t entryCount = reader.read<uint32_t>();
    if (!reader.canHold(entryCount, kEntryBytes) || reader.remaining() != size_t(entryCount) * kEntryBytes)
    {
        error = "the \"HSVL\" entry count does not match the bytes of the chunk";
        return false;
    }
    list.entries.resize(entryCount);
    for (auto entry = list.entries.rbegin(); entry != list.entries.rend(); ++entry)
    {
        entry->first = reader.read<uint32_t>();
        entry->second = reader.read<uint32_t>();
        entry->value = reader.read<uint64_t>();
        readDoubles(reader, entry->box);
    }
    return true;
}

void appendVoxelBlock(std::span<const uint8_t> content, std::vector<uint8_t>& bytes)
{
    const size_t start = beginChunk(bytes, kBlockTag);
    bytes.insert(bytes.end(), content.begin(), content.end());
    endChunk(bytes, start);
}

bool readVoxelBlock(std::span<const uint8_t> bytes, std::span<const uint8_t>& content, std::string& error)
{
    FieldReader reader(bytes);
    uint64_t chunkSize = 0;
    if (!readChunkStart(reader, kBlockTag, chunkSize, error))
    {
        return false;
    }
    if (chunkSize != bytes.size())
    {
        error = "the \"HSVB\" chunk says it is " + std::to_string(chunkSize) + " bytes long, but " +
                std::to_string(bytes.size()) + " are at hand";
        return false;
    }
    content = bytes.subspan(reader.position());
    return true;
}

}  // namespace HSPC
