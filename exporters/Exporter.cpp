#include "exporters/Exporter.h"

#include <filesystem>
#include <stdexcept>
#include <system_error>

#include "core/StringConversion.h"

namespace pc_preprocess
{

Exporter::Exporter(const std::wstring& path, const geom::Matrix3d& transform)
    : m_path(path), m_transform(transform)
{
}

Exporter::~Exporter() = default;

void Exporter::requireNewFile(const std::string& exporterName, const std::string& extension) const
{
    const std::filesystem::path file = toPath(m_path);
    // symlink_status: a dangling link is something too, and writing through it would create its target.
    std::error_code error;
    if (std::filesystem::exists(std::filesystem::symlink_status(file, error)))
        throw std::runtime_error(exporterName + ": " + ws2s(m_path) + " already exists.");
    if (file.extension() != extension)
        throw std::runtime_error(exporterName + ": " + ws2s(m_path) + " does not have extension " +
                                 extension + ".");
}

}  // namespace pc_preprocess
