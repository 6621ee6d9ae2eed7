#include "exporters/LazExporter.h"

#include <laszip/laszip_api.h>

#include <array>
#include <cmath>
#include <cstring>
#include <ctime>
#include <ostream>
#include <stdexcept>
#include <vector>

#include "core/StringConversion.h"
#include "importers/laz/LaszipHandle.h"
#include "importers/laz/LazOutputFile.h"
#include "importers/laz/LazsLayout.h"
#include "scanview/NormalCodes.h"

namespace pc_preprocess
{

namespace
{

// The real box of the points written, as the header holds it.
struct Bounds
{
    geom::Point3d min;
    geom::Point3d max;
    bool empty = true;

    void extend(const geom::Point3d& p)
    {
        if (empty)
        {
            min = max = p;
            empty = false;
            return;
        }
        min = {std::min(min.x, p.x), std::min(min.y, p.y), std::min(min.z, p.z)};
        max = {std::max(max.x, p.x), std::max(max.y, p.y), std::max(max.z, p.z)};
    }
};

void copyText(char* field, size_t size, const char* text)
{
    std::memset(field, 0, size);
    std::strncpy(field, text, size);
}

laszip_header lazsHeader(const IoTransfo& grid)
{
    laszip_header header;
    std::memset(&header, 0, sizeof header);
    copyText(header.system_identifier, sizeof header.system_identifier, laz::kLazsSystemIdentifier);
    copyText(header.generating_software, sizeof header.generating_software, laz::kLazsGeneratingSoftware);
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
    gmtime_r(&now, &utc);
    header.file_creation_day = static_cast<laszip_U16>(utc.tm_yday + 1);
    header.file_creation_year = static_cast<laszip_U16>(utc.tm_year + 1900);
    header.version_major = 1;
    header.version_minor = laz::kLazsVersionMinor;
    header.header_size = laz::kLazsHeaderSize;
    header.offset_to_point_data = laz::kLazsHeaderSize;
    header.point_data_format = laz::kLazsPointFormat;
    header.point_data_record_length = laz::kLazsRecordLength;
    header.x_scale_factor = grid.scale[0];
    header.y_scale_factor = grid.scale[1];
    header.z_scale_factor = grid.scale[2];
    header.x_offset = grid.offset[0];
    header.y_offset = grid.offset[1];
    header.z_offset = grid.offset[2];
    return header;
}

// The class byte of a point: its class where the source has one (0 to 255), else 0, "never classified".
laszip_U8 lasClass(int32_t classification)
{
    return classification >= 0 && classification <= 255 ? static_cast<laszip_U8>(classification) : 0;
}

void putLittleEndian(char* out, uint64_t value, size_t bytes)
{
    for (size_t i = 0; i < bytes; ++i)
        out[i] = static_cast<char>((value >> (8 * i)) & 0xFF);
}

// Overwrites the header fields that are only known after the points: the real box and the point count (all
// of them first returns). LASzip leaves them as they were given, zero.
void patchHeader(std::ostream& out, const Bounds& bounds, uint64_t count)
{
    const std::array<double, 6> box = {bounds.max.x, bounds.min.x, bounds.max.y,
                                       bounds.min.y, bounds.max.z, bounds.min.z};
    char bytes[6 * 8];
    for (size_t i = 0; i < box.size(); ++i)
    {
        uint64_t bits = 0;
        std::memcpy(&bits, &box[i], 8);
        putLittleEndian(bytes + 8 * i, bits, 8);
    }
    out.seekp(laz::kHeaderMaxXOffset);
    out.write(bytes, sizeof bytes);
    char countBytes[8];
    putLittleEndian(countBytes, count, 8);
    out.seekp(laz::kHeaderPointCountOffset);
    out.write(countBytes, sizeof countBytes);
    out.seekp(laz::kHeaderFirstReturnCountOffset);
    out.write(countBytes, sizeof countBytes);
}

}  // namespace

LazExporter::LazExporter(const std::wstring& path, const geom::Matrix3d& transform,
                         const IoTransfo& ioTransfo)
    : Exporter(path, transform), m_ioTransfo(ioTransfo)
{
    requireNewFile("LazExporter", ".laz");
    if (!m_ioTransfo.hasPositiveScale())
        throw std::runtime_error("LazExporter: scale{X,Y,Z} not all positive.");
}

uint64_t LazExporter::run(const BatchSource& nextBatch)
{
    const laszip_header header = lazsHeader(m_ioTransfo);
    // The file outlives the writer that holds on to it.
    laz::LazOutputFile out;
    laz::LaszipHandle writer("LazExporter: Could not create writer.");
    if (laszip_preserve_generating_software(writer.get(), 1) != 0)
        throw writer.error("LazExporter: Could not preserve generating software.");
    // Point format 7 is compressed with the layered coder of LAS 1.4, not recoded into an older format.
    if (laszip_request_native_extension(writer.get(), 1) != 0)
        throw writer.error("LazExporter: Could not request the native LAS 1.4 compression.");
    if (laszip_set_header(writer.get(), &header) != 0)
        throw writer.error("LazExporter: Could not set header.");

    if (!out.open(toPath(m_path)))
        throw std::runtime_error("LazExporter: Could not open std::ofstream.");
    if (laszip_open_writer_stream(writer.get(), out, 1, 0) != 0)
        throw writer.error("LazExporter: Could not open writer stream.");
    writer.opened(laz::LaszipHandle::Role::kWriter);
    laszip_point* point = nullptr;
    if (laszip_get_point_pointer(writer.get(), &point) != 0 || point == nullptr)
        throw writer.error("LazExporter: Could not obtain point pointer.");
    if (point->num_extra_bytes != laz::kLazsExtraBytes || point->extra_bytes == nullptr)
        throw std::runtime_error("LazExporter: laszip_point does not provide the required extra bytes.");

    // What every record shares: a single return of source 1, no time. LASzip writes the class of format 7
    // from its extended field and demands the legacy one be 0 or the same: it stays 0.
    point->point_source_ID = 1;
    point->extended_scanner_channel = 0;
    point->extended_classification_flags = 0;
    point->extended_return_number = 1;
    point->extended_number_of_returns = 1;
    point->return_number = 1;
    point->number_of_returns = 1;
    point->user_data = 0;
    point->gps_time = 0.0;

    const std::array<double, 3> inverseScale = {1.0 / m_ioTransfo.scale[0], 1.0 / m_ioTransfo.scale[1],
                                                1.0 / m_ioTransfo.scale[2]};
    const std::array<double, 3>& offset = m_ioTransfo.offset;
    std::vector<ExportPoint> points;
    points.reserve(kBatchSize);
    Bounds bounds;
    uint64_t count = 0;
    // LASzip never learns of a failed write (see LazOutputFile): the file is asked after every batch.
    const auto requireHealthy = [&]
    {
        if (out.writeFailed() || out.fail())
            throw std::runtime_error("LazExporter::run : Could not (fully) write " + ws2s(m_path) +
                                     "\nDisk full?");
        if (!out.isOpen())
            throw std::runtime_error("LazExporter: ofstream closed prematurely.");
    };
    for (;;)
    {
        points.clear();
        if (!nextBatch(points) || points.empty())
            break;
        for (const ExportPoint& source : points)
        {
            const geom::Point3d p = m_transform.transform(source.position);
            if (!toGridInteger(p.x, offset[0], inverseScale[0], point->X) ||
                !toGridInteger(p.y, offset[1], inverseScale[1], point->Y) ||
                !toGridInteger(p.z, offset[2], inverseScale[2], point->Z))
                throw std::runtime_error("LazExporter: point " + std::to_string(count) + " of " +
                                         ws2s(m_path) +
                                         " lies outside the 32-bit integer grid of its scale and offset.");
            bounds.extend(p);
            point->intensity = source.intensity;
            point->rgb[0] = source.r;
            point->rgb[1] = source.g;
            point->rgb[2] = source.b;
            point->extended_classification = lasClass(source.classification);
            laz::putNormalCode(point->extra_bytes, encodeNormal(source.normal));
            if (laszip_write_point(writer.get()) != 0)
                throw writer.error("LazExporter: Unable to write point.");
            ++count;
        }
        requireHealthy();
    }

    writer.close("LazExporter: Could not close writer.");
    writer.destroy("LazExporter: Could not destroy writer.");
    requireHealthy();
    patchHeader(out, bounds, count);
    requireHealthy();
    if (!out.finish())
        throw std::runtime_error("LazExporter::run : Could not (fully) write " + ws2s(m_path) +
                                 "\nDisk full?");
    return count;
}

}  // namespace pc_preprocess
