#pragma once

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <streambuf>
#include <vector>

#include "cachefiles/FileDescriptor.h"

namespace pc_preprocess::laz
{

// The output LASzip writes to: its stream writer takes an std::ofstream, so this is one, but its bytes go
// through a buffer of our own to the file. A write that fails (a full disk) is remembered here and the bytes
// after it are dropped, while LASzip is told that all went well: LASzip leaks its whole writer when a write
// fails as it closes, so it must never see one. The exporter asks writeFailed() instead.
class LazOutputFile : public std::ofstream
{
public:
    LazOutputFile();
    ~LazOutputFile() override;

    // Creates the file, or truncates it; false when it cannot be created.
    bool open(const std::filesystem::path& file);
    bool isOpen() const { return m_sink.isOpen(); }
    // Some byte did not reach the file.
    bool writeFailed() const { return m_sink.failed(); }
    // Writes what waits and closes the file; false when any write, or the closing, failed.
    bool finish();

private:
    class Sink : public std::streambuf
    {
    public:
        bool open(const std::filesystem::path& file);
        bool isOpen() const { return m_file.get() >= 0; }
        bool failed() const { return m_failed; }
        bool finish();

    protected:
        int_type overflow(int_type c) override;
        int sync() override;
        pos_type seekoff(off_type offset, std::ios_base::seekdir direction,
                         std::ios_base::openmode which) override;
        pos_type seekpos(pos_type position, std::ios_base::openmode which) override;

    private:
        // Writes the buffered bytes at their place; afterwards the buffer starts where they ended.
        void writeBuffer();
        uint64_t position() const { return m_start + static_cast<uint64_t>(pptr() - pbase()); }

        FileDescriptor m_file;
        std::vector<char> m_buffer;
        // File offset of the buffer's first byte, and the end of everything written so far.
        uint64_t m_start = 0;
        uint64_t m_end = 0;
        bool m_failed = false;
    };

    Sink m_sink;
};

}  // namespace pc_preprocess::laz
