// Reading parts of the sorted runs back: the records of a leaf inside one run, or just their Morton codes.
// A raw run is read by one positioned read of the slice's bytes. A compressed run (one node block) can only be
// decoded whole; the reader keeps the last few runs it decoded, so that slices of one run read one after the
// other decode it once.
#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <vector>

#include "hspc/convert/DistributionLayout.h"
#include "hspc/convert/PointDistributionInputHandler.h"
#include "hspc/format/NodeDecompressor.h"
#include "hspc/format/TrackedMemory.h"

namespace HSPC
{

template <typename W>
class RunSliceReader
{
public:
    // One reader per thread: it keeps its own decoder and decoded runs.
    explicit RunSliceReader(const PointDistributionInputHandler<W>& input);
    ~RunSliceReader();

    RunSliceReader(const RunSliceReader&) = delete;
    RunSliceReader& operator=(const RunSliceReader&) = delete;

    // Appends the slice's records (encodedRecordSize bytes each) to `out`. False, with "Failed to read file=" +
    // name + "; You might want to check your disk." on the error logger, when the run's file cannot be read,
    // is shorter than the slice or does not decode.
    bool readRecords(const RunSlice& slice, HSPCBuffer<uint8_t>& out);

    // Appends only the slice's Morton codes to `codes`: a compressed run decodes its position alone.
    bool readCodes(const RunSlice& slice, std::vector<MortonIndex3D<W>>& codes);

    // Forgets a decoded run, once its last slice has been read.
    void release(uint32_t run);

private:
    struct DecodedRun;
    // The run decoded whole, from the kept ones when it is there; nothing when it cannot be read or decoded.
    const DecodedRun* decoded(uint32_t run, bool positionsOnly);
    bool sliceFits(const RunSlice& slice) const;
    bool readRaw(const RunSlice& slice, uint8_t* out);
    bool fail(uint32_t run);

    const PointDistributionInputHandler<W>& m_input;
    std::unique_ptr<NodeDecompressor> m_decompressor;
    std::list<DecodedRun> m_decoded;
};

extern template class RunSliceReader<uint32_t>;
extern template class RunSliceReader<uint64_t>;

}  // namespace HSPC
