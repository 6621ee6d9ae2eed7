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

// Reads consecutive records and their side values through fixed buffers.
class PntBlockReader
{
public:
    explicit PntBlockReader(const std::wstring& pnt)
        : m_file(openPnt(pnt)),
          m_info(readInfo(m_file)),
          m_sides(pnt, m_info.numPoints, std::min(m_info.numPoints, kBlockPoints), kReader)
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
        const uint8_t* record = m_records.data();
        for (size_t k = 0; k < out.size(); ++k, record += recordSize)
        {
            decodePntRecord(record, m_info.extended, out[k]);
            m_sides.fill(k, out[k]);
        }
    }

private:
    FileDescriptor m_file;
    PntFileInfo m_info;
    SideFileBlocks m_sides;
    std::vector<uint8_t> m_records;
};

}  // namespace

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

void runPNT(const std::wstring& pnt, const std::function<void(const IoLightPoint&)>& function)
{
    requireExtension(pnt, ".pnt", kReaderExtension);
    PntBlockReader reader(pnt);
    const uint64_t total = reader.info().numPoints;
    std::vector<IoLightPoint> block(std::min(total, kBlockPoints));
    for (uint64_t done = 0; done < total; done += kBlockPoints)
    {
        const std::span<IoLightPoint> points = std::span(block).first(std::min(kBlockPoints, total - done));
        reader.read(done, points);
        for (const IoLightPoint& p : points)
            function(p);
    }
}

}  // namespace pc_preprocess
