#include <stdexcept>

#include "cachefiles/FileWriter.h"
#include "cachefiles/NodeFileErrors.h"
#include "cachefiles/PntFiles.h"
#include "cachefiles/RealPoints.h"
#include "core/StringConversion.h"

namespace pc_preprocess
{

namespace
{

const std::string kWriterExtension = "ERROR PNT WRITER: Extension was ";
// Records are encoded and written a full node at a time.
constexpr uint64_t kBlockPoints = 65536;

template <typename PointAt>
void writeRecords(FileWriter& out, uint64_t n, bool extended, PointAt&& pointAt)
{
    const uint64_t recordSize = pntRecordSize(extended);
    writeInBlocks(out, n, recordSize, kBlockPoints,
                  [&](uint64_t first, uint64_t count, uint8_t* records)
                  {
                      for (uint64_t k = 0; k < count; ++k)
                          encodePntRecord(pointAt(first + k), records + k * recordSize, extended);
                  });
}

template <typename PointAt>
void writePntFile(const std::wstring& pnt, const IoTransfo& transfo, uint64_t n, PointAt&& pointAt)
{
    reportWriteFailure("writeTuncatePNT : ", pnt,
                       [&]
                       {
                           FileWriter out = FileWriter::create(toPath(pnt), fileSizePNT(n, true));
                           uint8_t header[kPntHeaderSize];
                           encodePntHeader(transfo, header);
                           out.write(header);
                           writeRecords(out, n, true, pointAt);
                           out.close();
                       });
}

}  // namespace

void writeTuncatePNT(const std::wstring& pnt, const IoTransfo& transfo,
                     const std::vector<IoLightPoint>& points)
{
    requireExtension(pnt, ".pnt", kWriterExtension);
    writePntFile(pnt, transfo, points.size(), [&](uint64_t i) -> const IoLightPoint& { return points[i]; });
}

void writeTuncatePNT(const std::wstring& pnt, const IoTransfo& transfo,
                     const std::vector<geom::Point3d>& points, const std::vector<float>& colours,
                     const std::vector<float>& intensities, const std::vector<float>& radii)
{
    requireExtension(pnt, ".pnt", kWriterExtension);
    checkArraysForWriting(transfo, points, colours, intensities, radii, "ERROR PNT WRITER");
    writePntFile(pnt, transfo, points.size(),
                 GridPointsFromArrays(transfo, points, colours, intensities, radii));
}

void writeAppendPNT(const std::wstring& pnt, const std::vector<IoLightPoint>& points)
{
    requireExtension(pnt, ".pnt", kWriterExtension);
    // The existing header decides the record size, and the file must hold whole records already.
    const PntFileInfo info = readPntHeader(pnt);
    if (!info.colourFlag)
        throw std::runtime_error("ERROR PNT READER: Only colorful PNT are supported.");
    reportWriteFailure("writeAppendPNT : ", pnt,
                       [&]
                       {
                           FileWriter out =
                               FileWriter::append(toPath(pnt), pntRecordSize(info.extended) * points.size());
                           writeRecords(out, points.size(), info.extended,
                                        [&](uint64_t i) -> const IoLightPoint& { return points[i]; });
                           out.close();
                       });
}

}  // namespace pc_preprocess
