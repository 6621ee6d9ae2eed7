#include "sample/LasWriter.h"

#include <laszip/laszip_api.h>

#include <cmath>
#include <cstring>
#include <ctime>
#include <stdexcept>

namespace pcp_sample
{

namespace
{

// The writer handle, destroyed in every case.
class LaszipWriter
{
public:
    LaszipWriter()
    {
        if (laszip_create(&m_handle) != 0 || m_handle == nullptr)
            throw std::runtime_error("LASzip cannot create a writer");
    }
    ~LaszipWriter()
    {
        if (m_open)
            laszip_close_writer(m_handle);
        laszip_destroy(m_handle);
    }
    LaszipWriter(const LaszipWriter&) = delete;
    LaszipWriter& operator=(const LaszipWriter&) = delete;

    void require(laszip_I32 result, const std::string& what) const
    {
        if (result == 0)
            return;
        laszip_CHAR* message = nullptr;
        laszip_get_error(m_handle, &message);
        throw std::runtime_error("LASzip: " + what + (message ? std::string(": ") + message : std::string()));
    }
    laszip_POINTER handle() const { return m_handle; }
    void opened() { m_open = true; }
    void close()
    {
        m_open = false;
        require(laszip_close_writer(m_handle), "closing the file");
    }

private:
    laszip_POINTER m_handle = nullptr;
    bool m_open = false;
};

int32_t onGrid(double value, double offset)
{
    return int32_t(std::lround((value - offset) / 0.001));
}

}  // namespace

void writeLasTile(const std::string& path, const std::vector<SampleHit>& hits, const double offset[3])
{
    LaszipWriter writer;
    laszip_header* header = nullptr;
    writer.require(laszip_get_header_pointer(writer.handle(), &header), "header");
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
    header->x_scale_factor = header->y_scale_factor = header->z_scale_factor = 0.001;
    header->x_offset = offset[0];
    header->y_offset = offset[1];
    header->z_offset = offset[2];
    writer.require(laszip_preserve_generating_software(writer.handle(), 1), "keeping the software name");
    writer.require(laszip_open_writer(writer.handle(), path.c_str(), 0), "opening " + path);
    writer.opened();

    laszip_point* point = nullptr;
    writer.require(laszip_get_point_pointer(writer.handle(), &point), "point");
    double time = 0.0;
    for (const SampleHit& hit : hits)
    {
        point->X = onGrid(hit.position.x, offset[0]);
        point->Y = onGrid(hit.position.y, offset[1]);
        point->Z = onGrid(hit.position.z, offset[2]);
        point->intensity = hit.intensity;
        point->return_number = 1;
        point->number_of_returns = 1;
        point->classification = hit.classification;
        point->rgb[0] = hit.r;
        point->rgb[1] = hit.g;
        point->rgb[2] = hit.b;
        point->gps_time = time;
        time += 1e-5;
        writer.require(laszip_set_point(writer.handle(), point), "point");
        writer.require(laszip_write_point(writer.handle()), "writing a point");
        writer.require(laszip_update_inventory(writer.handle()), "counting a point");
    }
    writer.close();
}

}  // namespace pcp_sample
