#include "hspc/convert/BufferInputStructure.h"

#include <algorithm>
#include <utility>

namespace HSPC
{

template <typename W>
void BufferInputStructureBase<W>::start()
{
    if (m_windowStart == m_windowEnd && !refill())
    {
        fail();
    }
    loadCurrent();
}

template <typename W>
void BufferInputStructureBase<W>::advance()
{
    if (!hasEntry())
    {
        return;
    }
    ++m_windowStart;
    if (m_windowStart == m_windowEnd && !refill())
    {
        fail();
    }
    loadCurrent();
}

template <typename W>
void BufferInputStructureBase<W>::loadCurrent()
{
    if (hasEntry())
    {
        m_current = entryAt(m_windowStart);
    }
}

template <typename W>
BufferMemInputStructure<W>::BufferMemInputStructure(std::span<const LeafEntry<W>> entries)
    : m_entries(entries)
{
    this->m_windowEnd = entries.size();
    this->start();
}

template <typename W>
bool BufferMemInputStructure<W>::refill()
{
    // Used up: the window stays empty.
    return true;
}

template <typename W>
BufferDiskInputStructure<W>::BufferDiskInputStructure(std::string path, uint64_t bufferBytes,
                                                      LogFunction errorLogger)
    : m_path(std::move(path)),
      m_errorLogger(std::move(errorLogger)),
      m_file(m_path, FileHandler::Mode::kRead),
      m_windowEntries(std::max<uint64_t>(bufferBytes / this->kRecordSize, 1)),
      m_lastIndex{}
{
    if (!m_file.isValid())
    {
        reportTo(m_errorLogger, "Error: Could not open file = " + m_path);
        this->fail();
        return;
    }
    const std::optional<uint64_t> size = m_file.size();
    if (!size || *size % this->kRecordSize != 0)
    {
        readFailed();
        return;
    }
    m_fileEntries = *size / this->kRecordSize;
    // The window never holds more than the file: its size is bounded by what is really on disk and by the
    // bytes the caller granted, never by a count read from the file.
    m_windowEntries = std::min(m_windowEntries, m_fileEntries);
    m_window.resize(m_windowEntries * this->kRecordSize);
    this->start();
}

template <typename W>
bool BufferDiskInputStructure<W>::readFailed()
{
    reportTo(m_errorLogger, "Error: Could not read file = " + m_path);
    this->fail();
    return false;
}

template <typename W>
bool BufferDiskInputStructure<W>::refill()
{
    const uint64_t entries = std::min(m_windowEntries, m_fileEntries - m_nextFileEntry);
    this->m_windowStart = 0;
    this->m_windowEnd = 0;
    if (entries == 0)
    {
        return true;
    }
    if (!m_file.read(m_nextFileEntry * this->kRecordSize, entries * this->kRecordSize, m_window.data()))
    {
        return readFailed();
    }
    // A spilled leaf array is sorted, and its lods lie within the space. Anything else is a damaged file,
    // which would silently mix up the cell counts of the whole merge.
    for (uint64_t i = 0; i < entries; ++i)
    {
        const LeafEntry<W> entry = loadLeafEntry<W>(m_window.data() + i * this->kRecordSize);
        const bool ordered = m_nextFileEntry + i == 0 || m_lastIndex <= entry.index;
        if (!ordered || entry.lod > MortonIndex3D<W>::kBitsPerAxis)
        {
            return readFailed();
        }
        m_lastIndex = entry.index;
    }
    m_nextFileEntry += entries;
    this->m_windowEnd = entries;
    return true;
}

template <typename W>
LeafEntry<W> BufferDiskInputStructure<W>::entryAt(uint64_t windowPosition) const
{
    return loadLeafEntry<W>(m_window.data() + windowPosition * this->kRecordSize);
}

template class BufferInputStructureBase<uint32_t>;
template class BufferInputStructureBase<uint64_t>;
template class BufferMemInputStructure<uint32_t>;
template class BufferMemInputStructure<uint64_t>;
template class BufferDiskInputStructure<uint32_t>;
template class BufferDiskInputStructure<uint64_t>;

}  // namespace HSPC
