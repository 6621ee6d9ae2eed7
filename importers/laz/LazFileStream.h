#pragma once

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <span>
#include <streambuf>
#include <vector>

#include "cachefiles/FileDescriptor.h"

namespace pc_preprocess::laz
{

// The input LASzip reads: its stream reader takes an std::ifstream, so this is one, but its characters come
// through a buffer of our own. That buffer reads the file in windows of 1 MiB and knows its position without
// asking the system, so that the importer can check after every point that LASzip stayed inside the point
// data, which a header that counts more points than the file holds would otherwise let it leave.
class LazFileStream : public std::ifstream
{
public:
    LazFileStream();
    ~LazFileStream() override;

    // Opens the file for reading; false when it cannot be opened.
    bool open(const std::filesystem::path& file);
    bool isOpen() const { return m_window.isOpen(); }
    uint64_t size() const { return m_window.size(); }
    // The offset of the next byte the stream gives.
    uint64_t position() const { return m_window.position(); }
    // Reads exactly bytes.size() bytes at offset, outside the stream's own position; false when the file ends
    // before.
    bool readAt(uint64_t offset, std::span<uint8_t> bytes) const { return m_window.readAt(offset, bytes); }

private:
    class Window : public std::streambuf
    {
    public:
        bool open(const std::filesystem::path& file);
        bool isOpen() const { return m_file.get() >= 0; }
        uint64_t size() const { return m_size; }
        uint64_t position() const { return m_start + static_cast<uint64_t>(gptr() - eback()); }
        bool readAt(uint64_t offset, std::span<uint8_t> bytes) const;

    protected:
        int_type underflow() override;
        pos_type seekoff(off_type offset, std::ios_base::seekdir direction,
                         std::ios_base::openmode which) override;
        pos_type seekpos(pos_type position, std::ios_base::openmode which) override;

    private:
        FileDescriptor m_file;
        uint64_t m_size = 0;
        std::vector<char> m_buffer;
        // File offset of the buffer's first byte.
        uint64_t m_start = 0;
    };

    Window m_window;
};

}  // namespace pc_preprocess::laz
