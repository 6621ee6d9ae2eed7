// A run's cell list read back in order: the cells at the run's cut lod with their point counts, from the run
// record when it still holds them, or from its spilled cell list file ("orse" temp file, packed cell entries,
// RawSortRecords.h) through a window of bounded size, so that a run's cells never need to be in memory whole.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "hspc/convert/LeafStepKernels.h"
#include "hspc/convert/PointDistributionInputHandler.h"
#include "hspc/format/FileHandler.h"

namespace HSPC
{

template <typename W>
class RunCellStream
{
public:
    // Entries read from a spilled file at a time.
    static constexpr uint64_t kWindowEntries = 4096;

    RunCellStream(const PointDistributionInputHandler<W>& input, const ReadBuffer<W>& run);

    // The next cell; nothing at the end of the list or once a read failed.
    std::optional<CellEntry<W>> next();
    // A spilled list could not be opened or read, or is not a whole number of entries; the file is named on
    // the error logger.
    bool failed() const { return m_failed; }

private:
    bool refill();
    bool fail();

    const LogFunction& m_errorLogger;
    std::string m_path;
    std::optional<FileHandler> m_file;
    uint64_t m_fileEntries = 0;
    uint64_t m_nextFileEntry = 0;
    std::vector<uint8_t> m_window;
    const uint8_t* m_cells = nullptr;
    uint64_t m_windowEntries = 0;
    uint64_t m_position = 0;
    bool m_failed = false;
};

extern template class RunCellStream<uint32_t>;
extern template class RunCellStream<uint64_t>;

}  // namespace HSPC
