#include "cachefiles/FileWriter.h"

namespace pc_preprocess
{

FileWriter FileWriter::create(const std::filesystem::path& path, uint64_t size)
{
    FileDescriptor file = FileDescriptor::createTruncated(path);
    file.reserve(0, size);
    return FileWriter(std::move(file), 0);
}

FileWriter FileWriter::append(const std::filesystem::path& path, uint64_t length)
{
    FileDescriptor file = FileDescriptor::openForUpdate(path);
    const uint64_t end = file.size();
    file.reserve(end, length);
    return FileWriter(std::move(file), end);
}

void FileWriter::write(std::span<const uint8_t> bytes)
{
    m_file.writeAllAt(m_offset, bytes);
    m_offset += bytes.size();
}

void writeWholeFile(const std::filesystem::path& path, std::span<const uint8_t> bytes)
{
    FileWriter file = FileWriter::create(path, bytes.size());
    file.write(bytes);
    file.close();
}

}  // namespace pc_preprocess
