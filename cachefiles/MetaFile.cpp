#include "cachefiles/MetaFile.h"

#include <array>
#include <cstring>
#include <stdexcept>

#include "cachefiles/FileDescriptor.h"
#include "cachefiles/FileWriter.h"
#include "cachefiles/MappedFile.h"
#include "core/StringConversion.h"

namespace pc_preprocess
{

namespace
{

template <typename T>
void put(uint8_t* out, size_t offset, const T& value)
{
    std::memcpy(out + offset, &value, sizeof(T));
}

template <typename T>
T get(const uint8_t* in, size_t offset)
{
    T value;
    std::memcpy(&value, in + offset, sizeof(T));
    return value;
}

}  // namespace

void writeMetaFile(const std::wstring& path, const MetaData& meta)
{
    std::array<uint8_t, kMetaFileSize> bytes{};
    const int32_t box[6] = {meta.extents.minX(), meta.extents.minY(), meta.extents.minZ(),
                            meta.extents.maxX(), meta.extents.maxY(), meta.extents.maxZ()};
    std::memcpy(bytes.data(), box, sizeof box);
    std::memcpy(bytes.data() + 24, meta.position.data(), 24);
    put(bytes.data(), 48, meta.maxDistance);
    put(bytes.data(), 56, meta.filledArea);
    put(bytes.data(), 64, meta.viewWidth);
    put(bytes.data(), 72, uint8_t(meta.validTandSize ? 1 : 0));
    put(bytes.data(), 73, meta.numPoints);
    std::memcpy(bytes.data() + 81, meta.matrix.data(), 72);
    try
    {
        writeWholeFile(toPath(path), bytes);
    }
    catch (const FileError&)
    {
        throw std::runtime_error("writeMetaFile : Could not (fully) write " + ws2s(path) + "\nDisk full?");
    }
}

MetaData readMetaFile(const std::wstring& path)
{
    MappedFile file;
    try
    {
        file = MappedFile::openReadOnly(toPath(path));
    }
    catch (const FileError& e)
    {
        throw std::runtime_error("readMetaFile : Could not read " + ws2s(path) + " (" + e.what() + ")");
    }
    const std::span<const uint8_t> bytes = file.bytes();
    if (bytes.size() != kMetaFileSize && bytes.size() != kMetaFileSizeWithoutMatrix)
        throw std::runtime_error("readMetaFile : " + ws2s(path) + " holds " + std::to_string(bytes.size()) +
                                 " bytes, not " + std::to_string(kMetaFileSize) + " or " +
                                 std::to_string(kMetaFileSizeWithoutMatrix) + ".");
    const uint8_t* in = bytes.data();
    MetaData meta;
    meta.extents = ExtentsI32(get<int32_t>(in, 0), get<int32_t>(in, 4), get<int32_t>(in, 8), get<int32_t>(in, 12),
                              get<int32_t>(in, 16), get<int32_t>(in, 20));
    std::memcpy(meta.position.data(), in + 24, 24);
    meta.maxDistance = get<double>(in, 48);
    meta.filledArea = get<double>(in, 56);
    meta.viewWidth = get<uint64_t>(in, 64);
    meta.validTandSize = get<uint8_t>(in, 72) != 0;
    meta.numPoints = get<uint64_t>(in, 73);
    if (bytes.size() == kMetaFileSize)
        std::memcpy(meta.matrix.data(), in + 81, 72);
    else
        meta.matrix.fill(0.0);
    return meta;
}

}  // namespace pc_preprocess
