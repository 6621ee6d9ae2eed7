#include "hspc/convert/RunSliceReader.h"

#include <algorithm>

#include "hspc/convert/MortonRecords.h"
#include "hspc/format/FileHandler.h"
#include "hspc/format/NodeHeader.h"

namespace HSPC
{
namespace
{

// Decoded runs kept per reader: enough for the few runs that one leaf's slices alternate between when the
// input was scanned in overlapping strips, small enough that a reader never holds much more than its leaf.
constexpr std::size_t kDecodedRunsKept = 4;

// Records per positioned read when only the codes of a raw run are wanted: the records pass through a
// bounded buffer instead of being held whole.
constexpr uint64_t kCodeReadRecords = 65536;

}  // namespace

template <typename W>
struct RunSliceReader<W>::DecodedRun
{
    uint32_t run = 0;
    bool positionsOnly = false;
    // Whole records, or the Morton codes alone when positionsOnly.
    HSPCBuffer<uint8_t> bytes;
};

template <typename W>
RunSliceReader<W>::RunSliceReader(const PointDistributionInputHandler<W>& input) : m_input(input)
{
}

template <typename W>
RunSliceReader<W>::~RunSliceReader() = default;

template <typename W>
bool RunSliceReader<W>::fail(uint32_t run)
{
    const std::string name =
        run < m_input.readList().size() ? m_input.tempPointFile(m_input.readList()[run].fileNumber) : "?";
    reportTo(m_input.config().errorLogger, "Failed to read file=" + name + "; You might want to check your disk.");
    return false;
}

template <typename W>
bool RunSliceReader<W>::sliceFits(const RunSlice& slice) const
{
    return slice.run < m_input.readList().size() &&
           slice.firstPoint + slice.pointCount <= m_input.readList()[slice.run].pointCount;
}

template <typename W>
bool RunSliceReader<W>::readRaw(const RunSlice& slice, uint8_t* out)
{
    const uint64_t recordSize = m_input.config().encodedRecordSize;
    FileHandler file(m_input.tempPointFile(m_input.readList()[slice.run].fileNumber), FileHandler::Mode::kRead);
    return file.isValid() && file.read(slice.firstPoint * recordSize, uint64_t(slice.pointCount) * recordSize, out);
}

template <typename W>
bool RunSliceReader<W>::readRecords(const RunSlice& slice, HSPCBuffer<uint8_t>& out)
{
    if (!sliceFits(slice))
    {
        return fail(slice.run);
    }
    const std::size_t recordSize = m_input.config().encodedRecordSize;
    const std::size_t before = out.size();
    const std::size_t bytes = std::size_t(slice.pointCount) * recordSize;
    if (!m_input.readList()[slice.run].compressed)
    {
        out.resize(before + bytes);
        if (!readRaw(slice, out.data() + before))
        {
            out.resize(before);
            return fail(slice.run);
        }
        return true;
    }
    const DecodedRun* run = decoded(slice.run, false);
    if (run == nullptr)
    {
        return fail(slice.run);
    }
    const uint8_t* first = run->bytes.data() + slice.firstPoint * recordSize;
    out.insert(out.end(), first, first + bytes);
    return true;
}

template <typename W>
bool RunSliceReader<W>::readCodes(const RunSlice& slice, std::vector<MortonIndex3D<W>>& codes)
{
    if (!sliceFits(slice))
    {
        return fail(slice.run);
    }
    const std::size_t recordSize = m_input.config().encodedRecordSize;
    codes.reserve(codes.size() + slice.pointCount);
    if (!m_input.readList()[slice.run].compressed)
    {
        HSPCBuffer<uint8_t> chunk;
        for (uint64_t done = 0; done < slice.pointCount;)
        {
            const RunSlice part{slice.run, slice.firstPoint + done,
                                uint32_t(std::min<uint64_t>(kCodeReadRecords, slice.pointCount - done))};
            chunk.resize(std::size_t(part.pointCount) * recordSize);
            if (!readRaw(part, chunk.data()))
            {
                return fail(slice.run);
            }
            for (uint32_t i = 0; i < part.pointCount; ++i)
            {
                codes.push_back(loadMortonKey<W>(chunk.data() + std::size_t(i) * recordSize));
            }
            done += part.pointCount;
        }
        return true;
    }
    const DecodedRun* run = decoded(slice.run, true);
    if (run == nullptr)
    {
        return fail(slice.run);
    }
    const std::size_t stride = run->positionsOnly ? MortonIndex3D<W>::kBytes : recordSize;
    for (uint64_t i = slice.firstPoint; i < slice.firstPoint + slice.pointCount; ++i)
    {
        codes.push_back(loadMortonKey<W>(run->bytes.data() + i * stride));
    }
    return true;
}

template <typename W>
void RunSliceReader<W>::release(uint32_t run)
{
    m_decoded.remove_if([run](const DecodedRun& decoded) { return decoded.run == run; });
}

template <typename W>
const typename RunSliceReader<W>::DecodedRun* RunSliceReader<W>::decoded(uint32_t run, bool positionsOnly)
{
    const auto kept = std::find_if(m_decoded.begin(), m_decoded.end(), [&](const DecodedRun& decoded) {
        return decoded.run == run && (positionsOnly || !decoded.positionsOnly);
    });
    if (kept != m_decoded.end())
    {
        m_decoded.splice(m_decoded.begin(), m_decoded, kept);
        return &m_decoded.front();
    }

    const ReadBuffer<W>& source = m_input.readList()[run];
    FileHandler file(m_input.tempPointFile(source.fileNumber), FileHandler::Mode::kRead);
    HSPCBuffer<uint8_t> block(source.fileBytes);
    if (!file.isValid() || !file.read(0, block.size(), block.data()))
    {
        return nullptr;
    }
    if (!m_decompressor || m_decompressor->pointLimit() < source.pointCount)
    {
        m_decompressor = NodeDecompressor::create(source.pointCount);
        if (!m_decompressor)
        {
            return nullptr;
        }
    }

    // Each stored attribute goes back to its place in the record as it was stored; with positionsOnly the
    // record is the code alone and the other columns are never inflated.
    const std::vector<Attribute>& attributes = m_input.config().encodingAttributes;
    uint32_t offset = 0;
    const std::vector<OutputAction> actions =
        storedRecordActions(attributes, positionsOnly ? std::size_t(1) : attributes.size(), offset);
    DecodedRun decodedRun{run, positionsOnly, HSPCBuffer<uint8_t>(std::size_t(source.pointCount) * offset)};
    NodeHeader header;
    const NodeOutput output{decodedRun.bytes, offset, actions};
    if (!decompressNodeBlock(block, *m_decompressor, output, header, m_input.config().errorLogger) ||
        header.pointCount != source.pointCount)
    {
        return nullptr;
    }
    m_decoded.push_front(std::move(decodedRun));
    if (m_decoded.size() > kDecodedRunsKept)
    {
        m_decoded.pop_back();
    }
    return &m_decoded.front();
}

template class RunSliceReader<uint32_t>;
template class RunSliceReader<uint64_t>;

}  // namespace HSPC
