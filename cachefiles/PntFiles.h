#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "cachefiles/PntFormat.h"
#include "core/Export.h"
#include "core/IoLightPoint.h"
#include "core/IoTransfo.h"
#include "geom/Point3d.h"

namespace pc_preprocess
{

// PNT node files: the plain form, for per-scan files and nodes under construction. Every function checks the
// extension ".pnt" (exactly, case-sensitive) first and fails with a std::runtime_error whose text says what
// went wrong; readers refuse files whose colour flag is 0. Class and normal side files are read when they
// exist and never written here.

// What the header and size of a PNT say, without reading any record.
struct PntFileInfo
{
    IoTransfo transfo;
    bool colourFlag = true;
    bool extended = true;
    uint64_t numPoints = 0;
    uint64_t fileSize = 0;
};
PCP_API PntFileInfo readPntHeader(const std::wstring& pnt);

// All points, with classification and normals from the side files (0 where a side file is missing).
PCP_API void readPNT(const std::wstring& pnt, IoTransfo& transfo, std::vector<IoLightPoint>& points);

// All points as separate arrays in real coordinates; the caller sizes them for the file's point count: three
// colours and one intensity and radius per point. Colours and intensity are fractions of 65536, radii the raw
// values.
PCP_API void readPNT(const std::wstring& pnt, IoTransfo& transfo, std::vector<geom::Point3d>& points,
                     std::vector<float>& colours, std::vector<float>& intensities, std::vector<float>& radii);

// Up to count points from index start on (fewer at the end of the file, none from beyond it), read through
// the file without mapping it.
PCP_API void readPartialPNT(const std::wstring& pnt, uint64_t start, uint64_t count, IoTransfo& transfo,
                            std::vector<IoLightPoint>& points);

// Calls the function for every point in file order, reading blocks of 65536 points: memory stays bounded
// whatever the size of the file.
PCP_API void runPNT(const std::wstring& pnt, const std::function<void(const IoLightPoint&)>& function);

// The same for a file that is deleted once it is read: see PntPointStream's consuming form.
PCP_API void consumePNT(const std::wstring& pnt, const std::function<void(const IoLightPoint&)>& function);

class PntBlockReader;

// The points of a PNT in file order, up to 65536 at a time, with their side values, read through the file
// without mapping it. A consuming stream is for a file that is deleted once it is read (a scan's file, a node
// being split): it gives the disk blocks and the cached pages of the records back as soon as it has read
// them, so that while the points move on to other files, the disk and the page cache hold them about once
// rather than twice. Growing the page cache by the size of a large input costs more than the copying itself.
class PCP_API PntPointStream
{
public:
    PntPointStream(const std::wstring& pnt, bool consume);
    ~PntPointStream();
    PntPointStream(const PntPointStream&) = delete;
    PntPointStream& operator=(const PntPointStream&) = delete;

    const PntFileInfo& info() const;
    // The next points, or false and no points at the end of the file. The vector's memory is used again.
    bool next(std::vector<IoLightPoint>& points);

private:
    std::unique_ptr<PntBlockReader> m_reader;
    uint64_t m_done = 0;
};

// Creates (or truncates) the file at its final size and writes header and extended records.
PCP_API void writeTuncatePNT(const std::wstring& pnt, const IoTransfo& transfo,
                             const std::vector<IoLightPoint>& points);

// The same from separate arrays in real coordinates, rounded onto the transfo's grid; scanId is 0.
PCP_API void writeTuncatePNT(const std::wstring& pnt, const IoTransfo& transfo,
                             const std::vector<geom::Point3d>& points, const std::vector<float>& colours,
                             const std::vector<float>& intensities, const std::vector<float>& radii);

// Appends records to an existing PNT with a valid header, in the record size that file has.
PCP_API void writeAppendPNT(const std::wstring& pnt, const std::vector<IoLightPoint>& points);

}  // namespace pc_preprocess
