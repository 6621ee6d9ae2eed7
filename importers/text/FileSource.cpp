#include "importers/text/FileSource.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

namespace pc_preprocess
{

namespace
{

// A mapping must start at a multiple of the allocation granularity, which on Linux is the page size. The
// window is about 1 MiB and never smaller than 16 granules.
uint64_t windowSizeFor(uint64_t granularity)
{
    return granularity * std::max<uint64_t>(16, 1048576 / granularity);
}

uint64_t systemGranularity()
{
    const long pageSize = ::sysconf(_SC_PAGESIZE);
    return pageSize > 0 ? static_cast<uint64_t>(pageSize) : 4096;
}

const char* findByte(const char* from, const char* to, char byte)
{
    return static_cast<const char*>(std::memchr(from, byte, static_cast<size_t>(to - from)));
}

}  // namespace

FileSource::FileSource(const std::filesystem::path& path, uint64_t size)
    : m_path(path), m_fileSize(size), m_windowSize(windowSizeFor(systemGranularity()))
{
    if (m_fileSize == 0)
    {
        std::error_code error;
        const uintmax_t measured = std::filesystem::file_size(path, error);
        m_fileSize = error ? 0 : static_cast<uint64_t>(measured);
    }
    m_carry.reserve(128);
}

const char* FileSource::findLineEnd(const char* from, const char* to) const
{
    return findByte(from, to, m_lineEnd);
}

FileSource::~FileSource()
{
    unmap();
}

bool FileSource::open()
{
    close();
    m_carry.clear();
    try
    {
        m_file = FileDescriptor::openForReading(m_path);
        // Never map beyond the real end: touching such a page would kill the process with SIGBUS.
        m_fileSize = std::min(m_fileSize, m_file.size());
        if (prepareWindow(0))
        {
            // Files from old Mac software end their lines with a carriage return alone. Read as LF files they
            // would give one enormous line per window and lose almost every point, so the first window
            // decides.
            m_lineEnd =
                findByte(m_cursor, m_windowEnd, '\n') == nullptr && findByte(m_cursor, m_windowEnd, '\r')
                    ? '\r'
                    : '\n';
            m_linesRead = 0;
            return true;
        }
    }
    catch (const FileError&)
    {
    }
    close();
    return false;
}

void FileSource::close()
{
    unmap();
    m_file = FileDescriptor();
    m_linesRead = kNone;
}

void FileSource::unmap() noexcept
{
    if (m_window != nullptr)
        ::munmap(const_cast<char*>(m_window), static_cast<size_t>(m_windowLength));
    m_window = nullptr;
    m_windowLength = 0;
    m_cursor = nullptr;
    m_windowEnd = nullptr;
    m_windowIndex = kNone;
}

uint64_t FileSource::filePosition() const
{
    if (m_windowIndex == kNone)
        return kNone;
    return m_windowSize * m_windowIndex + static_cast<uint64_t>(m_cursor - m_window);
}

bool FileSource::hasWindowAfter(uint64_t index) const
{
    return m_fileSize > 0 && index < (m_fileSize - 1) / m_windowSize;
}

bool FileSource::prepareWindow(uint64_t index)
{
    unmap();
    if (!isOpen() || m_fileSize == 0 || index > (m_fileSize - 1) / m_windowSize)
        return false;
    const uint64_t offset = m_windowSize * index;
    const uint64_t length = std::min(m_windowSize, m_fileSize - offset);
    // Every byte of a window is read, and in order: fault the pages in at once and let the kernel read ahead.
    void* data = ::mmap(nullptr, static_cast<size_t>(length), PROT_READ, MAP_PRIVATE | MAP_POPULATE,
                        m_file.get(), static_cast<off_t>(offset));
    // Only a window that exists gets here: failing to map it is an error, never a silent end of the file.
    if (data == MAP_FAILED)
        throw FileError("mmap", m_path, errno);
    ::madvise(data, static_cast<size_t>(length), MADV_SEQUENTIAL);
    m_window = static_cast<const char*>(data);
    m_windowLength = length;
    m_cursor = m_window;
    m_windowEnd = m_window + length;
    m_windowIndex = index;
    return true;
}

bool FileSource::getLine(const char*& begin, const char*& end)
{
    if (m_cursor == m_windowEnd && !mapNextWindow())
        return false;

    if (const char* lineFeed = findLineEnd(m_cursor, m_windowEnd))
    {
        begin = m_cursor;
        end = lineFeed;
        m_cursor = lineFeed + 1;
    }
    else if (hasWindowAfter(m_windowIndex))
    {
        // The line goes on in the next window: join both parts in the carry buffer. Taking at most the whole
        // next window bounds the copy; what lies beyond comes out as a further line.
        m_carry.assign(m_cursor, m_windowEnd);
        if (!mapNextWindow())
            return false;
        const char* lineFeed = findLineEnd(m_cursor, m_windowEnd);
        const char* stop = lineFeed != nullptr ? lineFeed : m_windowEnd;
        m_carry.insert(m_carry.end(), m_cursor, stop);
        m_cursor = lineFeed != nullptr ? lineFeed + 1 : m_windowEnd;
        begin = m_carry.data();
        end = m_carry.data() + m_carry.size();
    }
    else
    {
        begin = m_cursor;
        end = m_windowEnd;
        m_cursor = m_windowEnd;
    }
    ++m_linesRead;
    return true;
}

}  // namespace pc_preprocess
