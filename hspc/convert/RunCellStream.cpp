#include "hspc/convert/RunCellStream.h"

#include <algorithm>

#include "hspc/convert/MortonRecords.h"
#include "hspc/format/Loggers.h"

namespace HSPC
{

template <typename W>
RunCellStream<W>::RunCellStream(const PointDistributionInputHandler<W>& input, const ReadBuffer<W>& run)
    : m_errorLogger(input.config().errorLogger)
{
    if (!run.cellFile)
    {
        m_cells = run.cells.data();
        m_windowEntries = run.cells.size() / kCellEntrySize<W>;
        return;
    }
    m_path = input.leafBufferFile(*run.cellFile);
    m_file.emplace(m_path, FileHandler::Mode::kRead);
    const std::optional<uint64_t> size = m_file->isValid() ? m_file->size() : std::nullopt;
    if (!size || *size % kCellEntrySize<W> != 0)
    {
        fail();
        return;
    }
    m_fileEntries = *size / kCellEntrySize<W>;
    // Bounded by the bytes really on disk as well as by the window: never by a count taken from a file.
    m_window.resize(std::min(m_fileEntries, kWindowEntries) * kCellEntrySize<W>);
}

template <typename W>
bool RunCellStream<W>::fail()
{
    reportTo(m_errorLogger, "Error: Could not read file = " + m_path);
    m_failed = true;
    m_windowEntries = 0;
    m_position = 0;
    return false;
}

template <typename W>
bool RunCellStream<W>::refill()
{
    const uint64_t entries = std::min(kWindowEntries, m_fileEntries - m_nextFileEntry);
    if (!m_file || m_failed || entries == 0)
    {
        return false;
    }
    if (!m_file->read(m_nextFileEntry * kCellEntrySize<W>, entries * kCellEntrySize<W>, m_window.data()))
    {
        return fail();
    }
    m_nextFileEntry += entries;
    m_cells = m_window.data();
    m_windowEntries = entries;
    m_position = 0;
    return true;
}

template <typename W>
std::optional<CellEntry<W>> RunCellStream<W>::next()
{
    if (m_position == m_windowEntries && !refill())
    {
        return std::nullopt;
    }
    const uint8_t* packed = m_cells + m_position * kCellEntrySize<W>;
    ++m_position;
    return CellEntry<W>{loadMortonKey<W>(packed),
                        little_endian::load<uint32_t>(packed + MortonIndex3D<W>::kBytes)};
}

template class RunCellStream<uint32_t>;
template class RunCellStream<uint64_t>;

}  // namespace HSPC
