#include "cachefiles/PnzFiles.h"

#include "cachefiles/TreeNodeFiles.h"

#include <algorithm>
#include <stdexcept>

#include "cachefiles/FileWriter.h"
#include "cachefiles/MappedFile.h"
#include "cachefiles/NodeCodec.h"
#include "cachefiles/NodeFileErrors.h"
#include "cachefiles/PnzStorage.h"
#include "cachefiles/RealPoints.h"
#include "cachefiles/SideFiles.h"
#include "core/StringConversion.h"

namespace pc_preprocess
{

namespace
{

const std::string kReader = "ERROR PNZ READER";
const std::string kReaderExtension = "ERROR PNZ READER: Extension was ";
const std::string kWriterExtension = "ERROR PNZ WRITER: Extension was ";
// A PNZ holds the same header as a PNT and is refused for the same reasons, in the same words.
const std::string kHeaderCheck = "ERROR PNT READER";
// A PNT is written from the planes a full node at a time.
constexpr uint64_t kBlockPoints = 65536;

template <typename PointAt>
uint64_t writePlanes(const std::wstring& pnz, const std::string& who, const IoTransfo& transfo, uint64_t n,
                     PointAt&& pointAt, PnzCoder& coder)
{
    // Every byte of the planes is written: a buffer kept from an earlier node needs no clearing.
    std::vector<uint8_t>& inflated = coder.planes();
    inflated.resize(fileSizePNT(n, true));
    encodePlaneBytes(transfo, n, pointAt, inflated);
    return storePnz(pnz, inflated, who, coder);
}

}  // namespace

void readPNZ(const std::wstring& pnz, IoTransfo& transfo, std::vector<IoLightPoint>& points)
{
    requireExtension(pnz, ".pnz", kReaderExtension);
    PnzCoder coder;
    const std::span<const uint8_t> inflated = loadPnz(pnz, kReader, coder);
    const NodeBytes node = parseNodeBytes(inflated, NodeLayout::kPlanes, kHeaderCheck);
    decodeWithSideFiles(pnz, node, kReader, points);
    transfo = node.header.transfo;
}

void readPNZ(const std::wstring& pnz, IoTransfo& transfo, std::vector<geom::Point3d>& points,
             std::vector<float>& colours, std::vector<float>& intensities, std::vector<float>& radii)
{
    requireExtension(pnz, ".pnz", kReaderExtension);
    PnzCoder coder;
    const std::span<const uint8_t> inflated = loadPnz(pnz, kReader, coder);
    const NodeBytes node = parseNodeBytes(inflated, NodeLayout::kPlanes, kHeaderCheck);
    decodeIntoArrays(node, "ERROR PNZ READER: vector<OdGePoint3d> and/or vector<float> incompatible size!",
                     points, colours, intensities, radii);
    transfo = node.header.transfo;
}

uint64_t writeTuncatePNZ(const std::wstring& pnz, const IoTransfo& transfo,
                         const std::vector<IoLightPoint>& points)
{
    PnzCoder coder;
    return writePnzPoints(pnz, transfo, points, coder);
}

uint64_t writePnzPoints(const std::wstring& pnz, const IoTransfo& transfo,
                        std::span<const IoLightPoint> points, PnzCoder& coder)
{
    requireExtension(pnz, ".pnz", kWriterExtension);
    return writePlanes(
        pnz, "writeTuncatePNZ : ", transfo, points.size(),
        [&](uint64_t i)
        {
            IoLightPoint p = points[i];
            p.scanId = 0;
            return p;
        },
        coder);
}

uint64_t writePnzRecords(const std::wstring& pnz, const IoTransfo& transfo, std::span<const uint8_t> records,
                         const std::string& who, PnzCoder& coder)
{
    const uint64_t n = records.size() / kPntRecordSize;
    std::vector<uint8_t>& inflated = coder.planes();
    inflated.resize(fileSizePNT(n, true));
    encodePntHeader(transfo, inflated.data());
    recordsToPlanes(records.data(), 0, n, n, kPntRecordSize, inflated.data() + kPntHeaderSize);
    return storePnz(pnz, inflated, who, coder);
}

void appendPnzPoints(const std::wstring& pnz, uint64_t numPoints, PnzCoder& coder,
                     std::vector<IoLightPoint>& points)
{
    requireExtension(pnz, ".pnz", kReaderExtension);
    const NodeBytes node = parseNodeBytes(loadPnz(pnz, kReader, coder, fileSizePNT(numPoints, true)),
                                          NodeLayout::kPlanes, kHeaderCheck);
    const size_t first = points.size();
    points.resize(first + node.numPoints);
    forEachPoint(node, [&](uint64_t i, IoLightPoint& p) { points[first + i] = p; });
}

uint64_t overwritePNZ(const std::wstring& pnz, const IoTransfo& transfo,
                      const std::vector<geom::Point3d>& points, const std::vector<float>& colours,
                      const std::vector<float>& intensities, const std::vector<float>& radii)
{
    requireExtension(pnz, ".pnz", kWriterExtension);
    checkArraysForWriting(transfo, points, colours, intensities, radii, "ERROR PNZ WRITER");
    PnzCoder coder;
    return writePlanes(pnz, "overwritePNZ : ", transfo, points.size(),
                       GridPointsFromArrays(transfo, points, colours, intensities, radii), coder);
}

uint64_t directPntToPnz(const std::wstring& pnt, const std::wstring& pnz)
{
    requireExtension(pnt, ".pnt", "ERROR PNT 2 PNZ: Extension PNT file was ");
    requireExtension(pnz, ".pnz", "ERROR PNT 2 PNZ: Extension PNZ file was ");
    MappedFile source;
    try
    {
        source = MappedFile::openReadOnly(toPath(pnt));
    }
    catch (const FileError&)
    {
        throw openFailure("ERROR PNT 2 PNZ", pnt);
    }
    const NodeBytes node = parseNodeBytes(source.bytes(), NodeLayout::kRecords, "ERROR PNT 2 PNZ");
    std::vector<uint8_t> inflated(source.bytes().size());
    std::copy_n(source.bytes().data(), kPntHeaderSize, inflated.data());
    recordsToPlanes(node.body.data(), 0, node.numPoints, node.numPoints, node.header.recordSize(),
                    inflated.data() + kPntHeaderSize);
    PnzCoder coder;
    return storePnz(pnz, inflated, "directPntToPnz : ", coder);
}

uint64_t directPnzToPnt(const std::wstring& pnz, const std::wstring& pnt)
{
    requireExtension(pnz, ".pnz", "ERROR PNZ 2 PNT: Extension PNZ file was ");
    requireExtension(pnt, ".pnt", "ERROR PNZ 2 PNT: Extension PNT file was ");
    PnzCoder coder;
    const std::span<const uint8_t> inflated = loadPnz(pnz, "ERROR PNZ 2 PNT", coder);
    const NodeBytes node = parseNodeBytes(inflated, NodeLayout::kPlanes, "ERROR PNZ 2 PNT");
    reportWriteFailure("directPnzToPnt: ", pnt,
                       [&]
                       {
                           FileWriter out = FileWriter::create(toPath(pnt), inflated.size());
                           out.write(inflated.first(kPntHeaderSize));
                           const uint64_t recordSize = node.header.recordSize();
                           writeInBlocks(out, node.numPoints, recordSize, kBlockPoints,
                                         [&](uint64_t first, uint64_t count, uint8_t* records) {
                                             planesToRecords(node.body.data(), first, count, node.numPoints,
                                                             recordSize, records);
                                         });
                           out.close();
                       });
    return inflated.size();
}

}  // namespace pc_preprocess
