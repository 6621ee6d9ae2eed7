#pragma once

#include <cstdint>
#include <filesystem>
#include <vector>

#include "cachefiles/FileDescriptor.h"

namespace pc_preprocess
{

// Reads the lines of a text file of any size through one read-only mapped window that moves through the file:
// memory stays at one window (1 MiB) plus at most two windows' worth of copied bytes for a line that
// straddles a window boundary, whatever the file holds. Lines end at a line feed; a carriage return before it
// belongs to the line, and the number grammars treat it as white space. A file whose first window holds
// carriage returns but no line feed has lines that end at the carriage return.
class FileSource
{
public:
    static constexpr uint64_t kNone = ~uint64_t{0};

    // With size 0 the size is taken from the file system.
    explicit FileSource(const std::filesystem::path& path, uint64_t size = 0);
    ~FileSource();
    FileSource(const FileSource&) = delete;
    FileSource& operator=(const FileSource&) = delete;

    // Maps the first window. False when the file cannot be opened or mapped, or is empty (then linesRead()
    // stays at kNone).
    bool open();
    void close();
    bool isOpen() const { return m_file.get() >= 0; }

    uint64_t fileSize() const { return m_fileSize; }
    uint64_t windowSize() const { return m_windowSize; }
    // Lines handed out since open(), so the number of the last line; kNone when not open.
    uint64_t linesRead() const { return m_linesRead; }
    // Byte offset of the next unread byte; kNone when no window is mapped.
    uint64_t filePosition() const;

    // The next line without its line feed, valid until the next call. False at the end of the file. A line
    // longer than what remains of its window plus the next whole window comes out in several pieces.
    bool getLine(const char*& begin, const char*& end);

protected:
    // Maps window `index`; false (with nothing mapped) when it starts at or beyond the end of the file. A
    // window that exists but cannot be mapped throws a FileError.
    bool prepareWindow(uint64_t index);

private:
    void unmap() noexcept;
    bool mapNextWindow() { return m_windowIndex != kNone && prepareWindow(m_windowIndex + 1); }
    bool hasWindowAfter(uint64_t index) const;
    const char* findLineEnd(const char* from, const char* to) const;

    std::filesystem::path m_path;
    uint64_t m_fileSize;
    uint64_t m_windowSize;
    FileDescriptor m_file;
    const char* m_window = nullptr;  // start of the mapped window
    uint64_t m_windowLength = 0;
    uint64_t m_windowIndex = kNone;
    uint64_t m_linesRead = kNone;
    const char* m_cursor = nullptr;
    const char* m_windowEnd = nullptr;
    std::vector<char> m_carry;
    char m_lineEnd = '\n';
};

}  // namespace pc_preprocess
