#include <algorithm>
#include <span>

#include "cachefiles/FileDescriptor.h"
#include "cachefiles/MappedFile.h"
#include "cachefiles/NodeCodec.h"
#include "cachefiles/NodeFileErrors.h"
#include "cachefiles/PntFiles.h"
#include "cachefiles/RealPoints.h"
#include "cachefiles/SideFiles.h"
#include "cachefiles/TreeNodeFiles.h"
#include "core/StringConversion.h"

namespace pc_preprocess
{

namespace
{

const std::string kReader = "ERROR PNT READER";
const std::string kReaderExtension = "ERROR PNT READER: Extension was ";
// Streaming readers work in blocks of a full node: 0x1A0000 bytes of records, 0x10000 of classes and
// 0xC0000 of normals.
constexpr uint64_t kBlockPoints = 65536;

// A read that fails after the file opened: the system's reason, with the file's name.
std::runtime_error readFailure(const FileError& e)
{
    return std::runtime_error(kReader + ": " + e.what());
}

MappedFile mapPnt(const std::wstring& pnt)
{
    try
    {
        return MappedFile::openReadOnly(toPath(pnt));
    }
    catch (const FileError&)
    {
        throw openFailure(kReader, pnt);
    }
}

FileDescriptor openPnt(const std::wstring& pnt)
{
    try
    {
        return FileDescriptor::openForReading(toPath(pnt));
    }
    catch (const FileError&)
    {
        throw openFailure(kReader, pnt);
    }
}

FileDescriptor openPntForUpdate(const std::wstring& pnt)
{
    try
    {
        return FileDescriptor::openForUpdate(toPath(pnt));
    }
    catch (const FileError&)
    {
        throw openFailure(kReader, pnt);
    }
}

// Header and size of an open PNT; the header bytes that the file has are decoded, so that a short file gets
// the "smaller than header size" error.
PntFileInfo readInfo(const FileDescriptor& file)
{
    PntFileInfo info;
    uint8_t bytes[kPntHeaderSize];
    std::span<uint8_t> present(bytes);
    try
    {
        info.fileSize = file.size();
        present = present.first(static_cast<size_t>(std::min(info.fileSize, kPntHeaderSize)));
        file.readExactly(0, present);
    }
    catch (const FileError& e)
    {
        throw readFailure(e);
    }
    const PntHeader header = decodePntHeader(present);
    info.transfo = header.transfo;
    info.colourFlag = header.colourFlag != 0;
    info.extended = header.isExtended();
    info.numPoints = numPointsPNT(info.fileSize, info.extended);
    return info;
}

}  // namespace

// Reads consecutive records and their side values through fixed buffers.
class PntBlockReader
{
public:
    // A consuming reader gives back what it has read, see PntPointStream.
    explicit PntBlockReader(const std::wstring& pnt, bool consume = false)
        : m_file(consume ? openPntForUpdate(pnt) : openPnt(pnt)),
          m_info(readInfo(m_file)),
          m_sides(pnt, m_info.numPoints, std::min(m_info.numPoints, kBlockPoints), kReader),
          m_consume(consume)
    {
        if (!m_info.colourFlag)
            throw std::runtime_error(kReader + ": Only colorful PNT are supported.");
        m_records.resize(std::min(m_info.numPoints, kBlockPoints) * pntRecordSize(m_info.extended));
    }

    const PntFileInfo& info() const { return m_info; }

    // Fills out with the points from first on; out holds at most kBlockPoints and stays inside the file.
    void read(uint64_t first, std::span<IoLightPoint> out)
    {
        const uint64_t recordSize = pntRecordSize(m_info.extended);
        try
        {
            m_file.readExactly(kPntHeaderSize + first * recordSize,
                               {m_records.data(), out.size() * recordSize});
        }
        catch (const FileError& e)
        {
            throw readFailure(e);
        }
        m_sides.read(first, out.size());
        if (m_consume)
            discardUpTo(kPntHeaderSize + (first + out.size()) * recordSize);
        const uint8_t* record = m_records.data();
        for (size_t k = 0; k < out.size(); ++k, record += recordSize)
        {
            decodePntRecord(record, m_info.extended, out[k]);
            m_sides.fill(k, out[k]);
        }
    }

private:
    // Whole pages only: a partial one would be zeroed for nothing, and is given back with the next block.
    void discardUpTo(uint64_t end)
    {
        constexpr uint64_t kPage = 4096;
        const uint64_t alignedEnd = end / kPage * kPage;
        if (alignedEnd <= m_discarded)
            return;
        // Where the file system cannot, the bytes stay until the file is deleted.
        m_consume = m_file.discard(m_discarded, alignedEnd - m_discarded);
        m_discarded = alignedEnd;
    }

    FileDescriptor m_file;
    PntFileInfo m_info;
    SideFileBlocks m_sides;
    std::vector<uint8_t> m_records;
    bool m_consume = false;
    uint64_t m_discarded = 0;
};

PntFileInfo readPntHeader(const std::wstring& pnt)
{
    requireExtension(pnt, ".pnt", kReaderExtension);
    return readInfo(openPnt(pnt));
}

void readPntRecords(const std::wstring& pnt, std::vector<uint8_t>& records)
{
    requireExtension(pnt, ".pnt", kReaderExtension);
    const FileDescriptor file = openPnt(pnt);
    const PntFileInfo info = readInfo(file);
    if (!info.colourFlag)
        throw std::runtime_error(kReader + ": Only colorful PNT are supported.");
    if (!info.extended)
        throw std::runtime_error(kReader + ": " + ws2s(pnt) + " holds short records.");
    records.resize(info.numPoints * kPntRecordSize);
    try
    {
        file.readExactly(kPntHeaderSize, records);
    }
    catch (const FileError& e)
    {
        throw readFailure(e);
    }
}

void readPNT(const std::wstring& pnt, IoTransfo& transfo, std::vector<IoLightPoint>& points)
{
    requireExtension(pnt, ".pnt", kReaderExtension);
    const MappedFile file = mapPnt(pnt);
    const NodeBytes node = parseNodeBytes(file.bytes(), NodeLayout::kRecords, kReader);
    decodeWithSideFiles(pnt, node, kReader, points);
    transfo = node.header.transfo;
}

void readPNT(const std::wstring& pnt, IoTransfo& transfo, std::vector<geom::Point3d>& points,
             std::vector<float>& colours, std::vector<float>& intensities, std::vector<float>& radii)
{
    requireExtension(pnt, ".pnt", kReaderExtension);
    const MappedFile file = mapPnt(pnt);
    const NodeBytes node = parseNodeBytes(file.bytes(), NodeLayout::kRecords, kReader);
    decodeIntoArrays(node, "ERROR PNT READER: vector<OdGePoint3d> and/or vector<float> incompatible size!",
                     points, colours, intensities, radii);
    transfo = node.header.transfo;
}

void readPartialPNT(const std::wstring& pnt, uint64_t start, uint64_t count, IoTransfo& transfo,
                    std::vector<IoLightPoint>& points)
{
    requireExtension(pnt, ".pnt", kReaderExtension);
    PntBlockReader reader(pnt);
    const uint64_t total = reader.info().numPoints;
    const uint64_t available = start < total ? std::min(count, total - start) : 0;
    points.resize(available);
    for (uint64_t done = 0; done < available; done += kBlockPoints)
    {
        const uint64_t block = std::min(kBlockPoints, available - done);
        reader.read(start + done, std::span(points).subspan(done, block));
    }
    transfo = reader.info().transfo;
}

PntPointStream::PntPointStream(const std::wstring& pnt, bool consume)
{
    requireExtension(pnt, ".pnt", kReaderExtension);
    m_reader = std::make_unique<PntBlockReader>(pnt, consume);
}

PntPointStream::~PntPointStream() = default;

const PntFileInfo& PntPointStream::info() const
{
    return m_reader->info();
}

bool PntPointStream::next(std::vector<IoLightPoint>& points)
{
    const uint64_t count = std::min(kBlockPoints, m_reader->info().numPoints - m_done);
    points.resize(count);
    if (count == 0)
        return false;
    m_reader->read(m_done, points);
    m_done += count;
    return true;
}

namespace
{

void streamPoints(const std::wstring& pnt, bool consume,
                  const std::function<void(const IoLightPoint&)>& function)
{
    PntPointStream stream(pnt, consume);
    std::vector<IoLightPoint> block;
    while (stream.next(block))
        for (const IoLightPoint& p : block)
            function(p);
}

}  // namespace

void runPNT(const std::wstring& pnt, const std::function<void(const IoLightPoint&)>& function)
{
    streamPoints(pnt, false, function);
}

void consumePNT(const std::wstring& pnt, const std::function<void(const IoLightPoint&)>& function)
{
    streamPoints(pnt, true, function);
}

}  // namespace pc_preprocess
