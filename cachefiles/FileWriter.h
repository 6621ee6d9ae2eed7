#pragma once

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <span>
#include <vector>

#include "cachefiles/FileDescriptor.h"

namespace pc_preprocess
{

// Writes a file front to back after reserving all its blocks: a full disk fails in the reservation, and every
// later failure, the close included, is a FileError too. The writers encode into a bounded buffer and hand it
// over here block by block.
class FileWriter
{
public:
    // Creates or truncates the file and reserves size bytes.
    static FileWriter create(const std::filesystem::path& path, uint64_t size);
    // Opens an existing file and reserves length bytes behind its end, where writing starts.
    static FileWriter append(const std::filesystem::path& path, uint64_t length);

    void write(std::span<const uint8_t> bytes);
    void close() { m_file.close(); }

private:
    FileWriter(FileDescriptor file, uint64_t offset) : m_file(std::move(file)), m_offset(offset) {}

    FileDescriptor m_file;
    uint64_t m_offset;
};

// Creates or truncates the file and writes all bytes.
void writeWholeFile(const std::filesystem::path& path, std::span<const uint8_t> bytes);

// Writes count items of itemSize bytes through one buffer of at most blockItems items, fill(first, items,
// bytes) serialising items first to first + items - 1: memory stays bounded whatever the count.
template <typename Fill>
void writeInBlocks(FileWriter& out, uint64_t count, uint64_t itemSize, uint64_t blockItems, Fill&& fill)
{
    std::vector<uint8_t> block(std::min(count, blockItems) * itemSize);
    for (uint64_t first = 0; first < count; first += blockItems)
    {
        const uint64_t items = std::min(blockItems, count - first);
        fill(first, items, block.data());
        out.write({block.data(), items * itemSize});
    }
}

}  // namespace pc_preprocess
