// The header report of a LAS or LAZ file, as LASzip reads the header. LASzip hides its own record, so that
// the offset to the point data and the count of VLRs are those of the file without it.
#include <laszip/laszip_api.h>

#include <cstring>
#include <string>

#include "core/StringConversion.h"
#include "importers/LazImporter.h"
#include "importers/laz/LazReader.h"

namespace pc_preprocess
{

namespace
{

constexpr size_t kArrayValuesPerLine = 8;
constexpr size_t kFieldIndent = 8;
constexpr size_t kPayloadIndent = 12;

// A text field up to its first zero, between double quote characters.
std::string quoted(const char* field, size_t size)
{
    return "\"" + (field != nullptr ? std::string(field, strnlen(field, size)) : std::string()) + "\"";
}

// Values in lines of at most eight, each line indented, each value followed by " ; ".
template <typename T>
void writeArray(std::ostream& out, const T* values, size_t count, size_t indent)
{
    for (size_t i = 0; i < count; ++i)
    {
        if (i % kArrayValuesPerLine == 0)
            out << std::string(indent, ' ');
        // Bytes as numbers, not as characters.
        out << +values[i] << " ; ";
        if (i % kArrayValuesPerLine == kArrayValuesPerLine - 1 || i + 1 == count)
            out << '\n';
    }
}

// A record whose payload is text: the coordinate system records, and the WKT record of old liblas writers.
bool holdsText(const laszip_vlr& vlr)
{
    const std::string userId(vlr.user_id, strnlen(vlr.user_id, sizeof vlr.user_id));
    const std::string description(vlr.description, strnlen(vlr.description, sizeof vlr.description));
    if (userId == "LASF_Projection" &&
        (vlr.record_id == 34737 || vlr.record_id == 2111 || vlr.record_id == 2112))
        return true;
    return description == "OGR variant of OpenGIS WKT SRS" && userId.starts_with("liblas") &&
           vlr.record_id == 2112;
}

void writeVlr(std::ostream& out, const laszip_vlr& vlr, size_t number)
{
    out << "    VLR " << number << '\n';
    out << "        Reserved = " << vlr.reserved << '\n';
    out << "        User ID = " << quoted(vlr.user_id, sizeof vlr.user_id) << '\n';
    out << "        Record ID = " << vlr.record_id << '\n';
    out << "        Record Length After Header = " << vlr.record_length_after_header << '\n';
    out << "        Description = " << quoted(vlr.description, sizeof vlr.description) << '\n';
    const size_t length = vlr.data != nullptr ? vlr.record_length_after_header : 0;
    out << "        Data [" << length << "] = " << '\n';
    writeArray(out, vlr.data, length, kPayloadIndent);
    if (holdsText(vlr))
        out << "        Data (ASCII) = " << quoted(reinterpret_cast<const char*>(vlr.data), length) << '\n';
}

}  // namespace

void laszHeader(const std::wstring& path, std::ostream& out)
{
    laz::LazReader reader(toPath(path));
    const laszip_header& h = reader.header();
    out << "Header Info For File = " << ws2s(path) << '\n';
    out << "    File Size = " << reader.fileSize() << '\n';
    out << "    Compressed = " << (reader.isCompressed() ? "true" : "false") << '\n';
    out << "    File Source ID = " << h.file_source_ID << '\n';
    out << "    Global Encoding = " << h.global_encoding << '\n';
    out << "    Project ID - GUID Data 1 = " << h.project_ID_GUID_data_1 << '\n';
    out << "    Project ID - GUID Data 2 = " << h.project_ID_GUID_data_2 << '\n';
    out << "    Project ID - GUID Data 3 = " << h.project_ID_GUID_data_3 << '\n';
    out << "    Project ID - GUID Data 4 = "
        << quoted(h.project_ID_GUID_data_4, sizeof h.project_ID_GUID_data_4) << '\n';
    out << "    Version Major = " << +h.version_major << '\n';
    out << "    Version Minor = " << +h.version_minor << '\n';
    out << "    System Identifier = " << quoted(h.system_identifier, sizeof h.system_identifier) << '\n';
    out << "    Generating Software = " << quoted(h.generating_software, sizeof h.generating_software)
        << '\n';
    out << "    File Creation Day Of Year = " << h.file_creation_day << '\n';
    out << "    File Creation Year = " << h.file_creation_year << '\n';
    out << "    Header Size = " << h.header_size << '\n';
    out << "    Offset To Point Data = " << h.offset_to_point_data << '\n';
    out << "    Number Of Variable Length Records = " << h.number_of_variable_length_records << '\n';
    out << "    Point Data Format = " << +h.point_data_format << '\n';
    out << "    Point Data Record Length = " << h.point_data_record_length << '\n';
    out << "    (Legacy) Number Of Point Records = " << h.number_of_point_records << '\n';
    out << "    (Legacy) Number Of Points By Return [" << 5 << "] = " << '\n';
    writeArray(out, h.number_of_points_by_return, 5, kFieldIndent);
    out << "    X Scale Factor = " << h.x_scale_factor << '\n';
    out << "    Y Scale Factor = " << h.y_scale_factor << '\n';
    out << "    Z Scale Factor = " << h.z_scale_factor << '\n';
    out << "    X Offset = " << h.x_offset << '\n';
    out << "    Y Offset = " << h.y_offset << '\n';
    out << "    Z Offset = " << h.z_offset << '\n';
    out << "    Max X = " << h.max_x << '\n';
    out << "    Min X = " << h.min_x << '\n';
    out << "    Max Y = " << h.max_y << '\n';
    out << "    Min Y = " << h.min_y << '\n';
    out << "    Max Z = " << h.max_z << '\n';
    out << "    Min Z = " << h.min_z << '\n';
    const bool from13 = h.version_major > 1 || (h.version_major == 1 && h.version_minor >= 3);
    const bool from14 = h.version_major > 1 || (h.version_major == 1 && h.version_minor >= 4);
    if (from13)
        out << "    Start Of Waveform Data Packet Record = " << h.start_of_waveform_data_packet_record
            << '\n';
    if (from14)
    {
        out << "    Start Of First Extended Variable Length Record = "
            << h.start_of_first_extended_variable_length_record << '\n';
        out << "    Number Of Extended Variable Length Records = "
            << h.number_of_extended_variable_length_records << '\n';
        out << "    (Extended) Number Of Point Records = " << h.extended_number_of_point_records << '\n';
        out << "    (Extended) Number Of Points By Return [" << 15 << "] = " << '\n';
        writeArray(out, h.extended_number_of_points_by_return, 15, kFieldIndent);
    }
    out << "    User Data In Header Size = " << h.user_data_in_header_size << '\n';
    if (h.user_data_in_header_size != 0 && h.user_data_in_header != nullptr)
    {
        out << "    User Data In Header [" << h.user_data_in_header_size << "] = " << '\n';
        writeArray(out, h.user_data_in_header, h.user_data_in_header_size, kFieldIndent);
    }
    for (laszip_U32 i = 0; i < h.number_of_variable_length_records; ++i)
        writeVlr(out, h.vlrs[i], i);
    out << "    User Data After Header Size = " << h.user_data_after_header_size << '\n';
    if (h.user_data_after_header_size != 0 && h.user_data_after_header != nullptr)
    {
        out << "    User Data After Header [" << h.user_data_after_header_size << "] = " << '\n';
        writeArray(out, h.user_data_after_header, h.user_data_after_header_size, kFieldIndent);
    }
    const std::string wkt = reader.wkt();
    if (!wkt.empty())
        out << "Derived WKT = " << wkt << '\n';
}

}  // namespace pc_preprocess
