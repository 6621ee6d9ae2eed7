#include "sample/LasWriter.h"

#include <laszip/laszip_api.h>

#include <cmath>
#include <cstring>
#include <ctime>
#include <stdexcept>

namespace pcp_sample
{

// The writer handle, destroyed in every case.
class LasTileWriter::Laszip
{
public:
    Laszip()
    {
        if (laszip_create(&m_handle) != 0 || m_handle == nullptr)
            throw std::runtime_error("LASzip cannot create a writer");
    }
    ~Laszip()
    {
        if (m_open)
            laszip_close_writer(m_handle);
        laszip_destroy(m_handle);
    }
    Laszip(const Laszip&) = delete;
    Laszip& operator=(const Laszip&) = delete;

    void require(laszip_I32 result, const std::string& what) const
    {
        if (result == 0)
            return;
        laszip_CHAR* message = nullptr;
        laszip_get_error(m_handle, &message);
        throw std::runtime_error("LASzip: " + what + (message ? std::string(": ") + message : std::string()));
    }
    laszip_POINTER handle() const { return m_handle; }
    // GeoTIFF keys of a projected coordinate system in metres, with its name as the citation that readers
    // show (LASzip writes the key directory's header and the records).
    void setProjection(uint16_t epsg, const std::string& name) const
    {
        constexpr laszip_U16 kModelTypeProjected = 1, kRasterPixelIsArea = 1, kMetre = 9001;
        constexpr laszip_U16 kAsciiTag = 34737;
        const std::string citation = name + "|";  // GeoTIFF ends each ASCII value with a bar
        const laszip_geokey_struct keys[] = {
            {1024, 0, 1, kModelTypeProjected},                  // GTModelTypeGeoKey
            {1025, 0, 1, kRasterPixelIsArea},                   // GTRasterTypeGeoKey
            {1026, kAsciiTag, laszip_U16(citation.size()), 0},  // GTCitationGeoKey
            {3072, 0, 1, epsg},                                 // ProjectedCSTypeGeoKey
            {3076, 0, 1, kMetre},                               // ProjLinearUnitsGeoKey
        };
        require(laszip_set_geokeys(m_handle, 5, keys), "coordinate system");
        require(laszip_set_geoascii_params(m_handle, laszip_U32(citation.size() + 1), citation.c_str()),
                "coordinate system name");
    }
    void opened() { m_open = true; }
    void close()
    {
        m_open = false;
        require(laszip_close_writer(m_handle), "closing the file");
    }

    laszip_point* point = nullptr;  // LASzip's own record of the next point, filled in place and written

private:
    laszip_POINTER m_handle = nullptr;
    bool m_open = false;
};

LasTileWriter::LasTileWriter(const std::string& path, const LasGrid& grid)
    : m_laszip(std::make_unique<Laszip>()), m_grid(grid)
{
    laszip_header* header = nullptr;
    m_laszip->require(laszip_get_header_pointer(m_laszip->handle(), &header), "header");
    header->version_major = 1;
    header->version_minor = 2;
    header->header_size = 227;
    header->offset_to_point_data = 227;
    header->point_data_format = 3;
    header->point_data_record_length = 34;
    std::strncpy(header->generating_software, "pcprep sample", sizeof header->generating_software);
    std::strncpy(header->system_identifier, "SIMULATION", sizeof header->system_identifier);
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
    gmtime_r(&now, &utc);
    header->file_creation_day = laszip_U16(utc.tm_yday + 1);
    header->file_creation_year = laszip_U16(utc.tm_year + 1900);
    header->x_scale_factor = header->y_scale_factor = header->z_scale_factor = grid.scale;
    header->x_offset = grid.offset[0];
    header->y_offset = grid.offset[1];
    header->z_offset = grid.offset[2];
    if (grid.epsg != 0)
        m_laszip->setProjection(grid.epsg, grid.projectionName);
    m_laszip->require(laszip_preserve_generating_software(m_laszip->handle(), 1),
                      "keeping the software name");
    m_laszip->require(laszip_open_writer(m_laszip->handle(), path.c_str(), 0), "opening " + path);
    m_laszip->opened();
    m_laszip->require(laszip_get_point_pointer(m_laszip->handle(), &m_laszip->point), "point");
}

LasTileWriter::~LasTileWriter() = default;

void LasTileWriter::add(const SampleHit& hit, const PulseInfo& pulse)
{
    laszip_point* point = m_laszip->point;
    const auto onGrid = [&](double value, int axis)
    { return int32_t(std::lround((value - m_grid.offset[axis]) / m_grid.scale)); };
    point->X = onGrid(hit.position.x, 0);
    point->Y = onGrid(hit.position.y, 1);
    point->Z = onGrid(hit.position.z, 2);
    point->intensity = hit.intensity;
    point->return_number = pulse.returnNumber & 7;
    point->number_of_returns = pulse.numberOfReturns & 7;
    point->scan_direction_flag = pulse.scanDirection ? 1 : 0;
    point->edge_of_flight_line = pulse.edgeOfFlightLine ? 1 : 0;
    point->classification = hit.classification & 31;
    point->scan_angle_rank = pulse.scanAngle;
    point->point_source_ID = pulse.flightLine;
    point->gps_time = pulse.gpsTime;
    point->rgb[0] = hit.r;
    point->rgb[1] = hit.g;
    point->rgb[2] = hit.b;
    m_laszip->require(laszip_write_point(m_laszip->handle()), "writing a point");
    m_laszip->require(laszip_update_inventory(m_laszip->handle()), "counting a point");
    ++m_count;
}

void LasTileWriter::close()
{
    m_laszip->close();
}

void writeLasTile(const std::string& path, const std::vector<SampleHit>& hits, const double offset[3])
{
    LasGrid grid;
    grid.offset[0] = offset[0];
    grid.offset[1] = offset[1];
    grid.offset[2] = offset[2];
    LasTileWriter writer(path, grid);
    PulseInfo pulse;
    for (const SampleHit& hit : hits)
    {
        writer.add(hit, pulse);
        pulse.gpsTime += 1e-5;
    }
    writer.close();
}

}  // namespace pcp_sample
