#include "importers/laz/LazFileStream.h"

#include <algorithm>

namespace pc_preprocess::laz
{

namespace
{

constexpr size_t kWindowSize = size_t(1) << 20;

}  // namespace

LazFileStream::LazFileStream()
{
    // Every read and seek of the stream goes to the window; the ifstream's own file buffer stays unused.
    std::basic_ios<char>::rdbuf(&m_window);
}

LazFileStream::~LazFileStream() = default;

bool LazFileStream::open(const std::filesystem::path& file)
{
    clear();
    if (m_window.open(file))
        return true;
    setstate(std::ios_base::failbit);
    return false;
}

bool LazFileStream::Window::open(const std::filesystem::path& file)
{
    try
    {
        m_file = FileDescriptor::openForReading(file);
        m_size = m_file.size();
    }
    catch (const FileError&)
    {
        m_file = FileDescriptor();
        return false;
    }
    m_buffer.resize(kWindowSize);
    m_start = 0;
    setg(m_buffer.data(), m_buffer.data(), m_buffer.data());
    return true;
}

bool LazFileStream::Window::readAt(uint64_t offset, std::span<uint8_t> bytes) const
{
    if (offset > m_size || bytes.size() > m_size - offset)
        return false;
    try
    {
        m_file.readExactly(offset, bytes);
    }
    catch (const FileError&)
    {
        return false;
    }
    return true;
}

LazFileStream::Window::int_type LazFileStream::Window::underflow()
{
    if (gptr() < egptr())
        return traits_type::to_int_type(*gptr());
    const uint64_t next = m_start + static_cast<uint64_t>(egptr() - eback());
    if (!isOpen() || next >= m_size)
        return traits_type::eof();
    const size_t length = static_cast<size_t>(std::min<uint64_t>(m_buffer.size(), m_size - next));
    if (!readAt(next, std::span(reinterpret_cast<uint8_t*>(m_buffer.data()), length)))
        return traits_type::eof();
    m_start = next;
    setg(m_buffer.data(), m_buffer.data(), m_buffer.data() + length);
    return traits_type::to_int_type(*gptr());
}

LazFileStream::Window::pos_type LazFileStream::Window::seekoff(off_type offset,
                                                               std::ios_base::seekdir direction,
                                                               std::ios_base::openmode which)
{
    int64_t base = 0;
    if (direction == std::ios_base::cur)
        base = static_cast<int64_t>(position());
    else if (direction == std::ios_base::end)
        base = static_cast<int64_t>(m_size);
    return seekpos(pos_type(off_type(base + offset)), which);
}

LazFileStream::Window::pos_type LazFileStream::Window::seekpos(pos_type position,
                                                               std::ios_base::openmode which)
{
    const off_type target = off_type(position);
    if (!isOpen() || !(which & std::ios_base::in) || target < 0)
        return pos_type(off_type(-1));
    const uint64_t offset = static_cast<uint64_t>(target);
    const uint64_t loaded = static_cast<uint64_t>(egptr() - eback());
    if (offset >= m_start && offset <= m_start + loaded)
    {
        // Inside the window: no read needed.
        setg(eback(), eback() + (offset - m_start), egptr());
        return position;
    }
    // Elsewhere: the next read fills the window from there. A place beyond the end is allowed, as in a file;
    // reading there gives the end of the file.
    m_start = offset;
    setg(m_buffer.data(), m_buffer.data(), m_buffer.data());
    return position;
}

}  // namespace pc_preprocess::laz
