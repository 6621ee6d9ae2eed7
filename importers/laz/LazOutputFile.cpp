#include "importers/laz/LazOutputFile.h"

#include <algorithm>
#include <span>

namespace pc_preprocess::laz
{

namespace
{

constexpr size_t kBufferSize = size_t(1) << 20;

}  // namespace

LazOutputFile::LazOutputFile()
{
    // Every write and seek of the stream goes to the sink; the ofstream's own file buffer stays unused.
    std::basic_ios<char>::rdbuf(&m_sink);
}

LazOutputFile::~LazOutputFile()
{
    m_sink.finish();
}

bool LazOutputFile::open(const std::filesystem::path& file)
{
    clear();
    if (m_sink.open(file))
        return true;
    setstate(std::ios_base::failbit);
    return false;
}

bool LazOutputFile::finish()
{
    return m_sink.finish();
}

bool LazOutputFile::Sink::open(const std::filesystem::path& file)
{
    try
    {
        m_file = FileDescriptor::createTruncated(file);
    }
    catch (const FileError&)
    {
        return false;
    }
    m_buffer.resize(kBufferSize);
    m_start = m_end = 0;
    m_failed = false;
    setp(m_buffer.data(), m_buffer.data() + m_buffer.size());
    return true;
}

bool LazOutputFile::Sink::finish()
{
    if (!isOpen())
        return !m_failed;
    writeBuffer();
    try
    {
        m_file.close();
    }
    catch (const FileError&)
    {
        m_failed = true;
    }
    m_file = FileDescriptor();
    return !m_failed;
}

void LazOutputFile::Sink::writeBuffer()
{
    const size_t length = static_cast<size_t>(pptr() - pbase());
    if (length > 0 && !m_failed && isOpen())
    {
        try
        {
            m_file.writeAllAt(m_start, std::span(reinterpret_cast<const uint8_t*>(pbase()), length));
        }
        catch (const FileError&)
        {
            m_failed = true;
        }
    }
    m_start += length;
    m_end = std::max(m_end, m_start);
    setp(m_buffer.data(), m_buffer.data() + m_buffer.size());
}

LazOutputFile::Sink::int_type LazOutputFile::Sink::overflow(int_type c)
{
    writeBuffer();
    if (!traits_type::eq_int_type(c, traits_type::eof()))
    {
        *pptr() = traits_type::to_char_type(c);
        pbump(1);
    }
    return traits_type::not_eof(c);
}

int LazOutputFile::Sink::sync()
{
    writeBuffer();
    return 0;
}

LazOutputFile::Sink::pos_type LazOutputFile::Sink::seekoff(off_type offset, std::ios_base::seekdir direction,
                                                           std::ios_base::openmode which)
{
    // Asking for the position needs no write.
    if (direction == std::ios_base::cur && offset == 0)
        return pos_type(off_type(position()));
    int64_t base = static_cast<int64_t>(position());
    if (direction == std::ios_base::beg)
        base = 0;
    else if (direction == std::ios_base::end)
        base = static_cast<int64_t>(std::max(m_end, position()));
    return seekpos(pos_type(off_type(base + offset)), which);
}

LazOutputFile::Sink::pos_type LazOutputFile::Sink::seekpos(pos_type position, std::ios_base::openmode which)
{
    const off_type target = off_type(position);
    if (!isOpen() || !(which & std::ios_base::out) || target < 0)
        return pos_type(off_type(-1));
    writeBuffer();
    m_start = static_cast<uint64_t>(target);
    return position;
}

}  // namespace pc_preprocess::laz
