#include "importers/laz/LazReader.h"

#include <laszip/laszip_api.h>

#include <stdexcept>

#include "importers/las/LaszVlr.h"

namespace pc_preprocess::laz
{

LazReader::LazReader(const std::filesystem::path& file) : m_handle("LAZ error: Could not create reader.")
{
    if (!m_stream.open(file))
        throw std::runtime_error("LAZ error: Could not open std::ifstream.");
    m_layout = checkLazFile(m_stream);
    if (laszip_open_reader_stream(m_handle.get(), m_stream, &m_compressed) != 0)
        throw m_handle.error("LAZ error: Could not create reader stream.");
    m_handle.opened(LaszipHandle::Role::kReader);
    if (laszip_get_header_pointer(m_handle.get(), &m_header) != 0 || m_header == nullptr)
        throw m_handle.error("LAZ error: Could not get header pointer.");
    if (laszip_get_point_pointer(m_handle.get(), &m_point) != 0 || m_point == nullptr)
        throw m_handle.error("LAZ error: Could not get point pointer.");
}

LazReader::~LazReader() = default;

bool LazReader::readPoint()
{
    // LASzip would decode what follows the last chunk as if it were points, as long as the header asks for
    // more: the chunk table's count and the position in the file show where the points end.
    if (!m_layout.damage.empty())
        return false;
    if (m_pointsRead >= m_layout.pointLimit)
    {
        m_beyondPointData = true;
        return false;
    }
    if (laszip_read_point(m_handle.get()) != 0)
        return false;
    ++m_pointsRead;
    m_beyondPointData = m_stream.position() > m_layout.pointDataEnd;
    return !m_beyondPointData;
}

std::string LazReader::readFailure() const
{
    if (!m_layout.damage.empty())
        return "The file is damaged: " + m_layout.damage + ".";
    if (m_beyondPointData && m_pointsRead >= m_layout.pointLimit)
        return "Its chunk table covers " + std::to_string(m_layout.pointLimit) +
               " points: the header counts more points than the file holds.";
    if (m_beyondPointData)
        return "The point data end at byte " + std::to_string(m_layout.pointDataEnd) +
               ": the header counts more points than the file holds.";
    const std::string reason = m_handle.reason();
    return reason.empty() ? std::string() : "LASzip: " + reason;
}

std::string LazReader::wkt() const
{
    LaszVlr vlrs(m_header->global_encoding);
    for (laszip_U32 i = 0; i < m_header->number_of_variable_length_records; ++i)
        vlrs.parseRecord(m_header->vlrs[i]);
    return vlrs.getWKT();
}

void LazReader::close()
{
    m_handle.destroy("LAZ error: Could not close reader.");
    m_header = nullptr;
    m_point = nullptr;
}

}  // namespace pc_preprocess::laz
