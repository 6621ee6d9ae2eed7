// Sources of leaf entries in Morton order for the merge of the leaf arrays: the in-memory leaf array, and the
// leaf entries that the raw sort spilled to raster leaf files. A file is read through a window of bounded
// size, so that merging many files needs no more memory than the merge grants it.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "hspc/convert/RawSortRecords.h"
#include "hspc/format/FileHandler.h"
#include "hspc/format/Loggers.h"

namespace HSPC
{

template <typename W>
class BufferInputStructureBase
{
public:
    static constexpr uint32_t kRecordSize = LeafEntry<W>::kPackedSize;

    virtual ~BufferInputStructureBase() = default;

    // False once a read failed: the merge must stop, the entries seen so far are not the whole source.
    bool valid() const { return m_valid; }
    // True while there is a current entry: the source is valid and not used up.
    bool hasEntry() const { return m_valid && m_windowStart < m_windowEnd; }
    const LeafEntry<W>& current() const { return m_current; }
    // Moves to the next entry, refilling the window when it is used up.
    void advance();

protected:
    // Loads the next window; false on a read failure. Leaves an empty window at the end of the source.
    virtual bool refill() = 0;
    virtual LeafEntry<W> entryAt(uint64_t windowPosition) const = 0;

    // Called by a source once it is set up, to show its first entry.
    void start();
    void fail() { m_valid = false; }

    uint64_t m_windowStart = 0;
    uint64_t m_windowEnd = 0;
    bool m_valid = true;

private:
    void loadCurrent();

    LeafEntry<W> m_current;
};

// The whole leaf array is the window: nothing to refill.
template <typename W>
class BufferMemInputStructure final : public BufferInputStructureBase<W>
{
public:
    explicit BufferMemInputStructure(std::span<const LeafEntry<W>> entries);

private:
    bool refill() override;
    LeafEntry<W> entryAt(uint64_t windowPosition) const override { return m_entries[windowPosition]; }

    std::span<const LeafEntry<W>> m_entries;
};

// One raster leaf file of packed entries, read window by window with one positioned read each. A file that
// cannot be opened or read, whose size is not a whole number of entries, or whose entries are out of order
// or carry an impossible lod is reported on the error logger and makes the source invalid.
template <typename W>
class BufferDiskInputStructure final : public BufferInputStructureBase<W>
{
public:
    BufferDiskInputStructure(std::string path, uint64_t bufferBytes, LogFunction errorLogger);

private:
    bool refill() override;
    LeafEntry<W> entryAt(uint64_t windowPosition) const override;
    bool readFailed();

    std::string m_path;
    LogFunction m_errorLogger;
    FileHandler m_file;
    uint64_t m_fileEntries = 0;
    uint64_t m_nextFileEntry = 0;
    uint64_t m_windowEntries = 0;
    std::vector<uint8_t> m_window;
    MortonIndex3D<W> m_lastIndex;
};

extern template class BufferInputStructureBase<uint32_t>;
extern template class BufferInputStructureBase<uint64_t>;
extern template class BufferMemInputStructure<uint32_t>;
extern template class BufferMemInputStructure<uint64_t>;
extern template class BufferDiskInputStructure<uint32_t>;
extern template class BufferDiskInputStructure<uint64_t>;

}  // namespace HSPC
