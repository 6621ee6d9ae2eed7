#include "support/RdbDoubleFile.h"

#include <fstream>
#include <stdexcept>

#include "riegl/RdbDoubleFormat.h"

namespace pcp_test
{

namespace
{

template <typename T>
void put(std::ofstream& out, const T& value)
{
    out.write(reinterpret_cast<const char*>(&value), sizeof value);
}

void putText(std::ofstream& out, const std::string& text)
{
    put(out, static_cast<uint32_t>(text.size()));
    out.write(text.data(), static_cast<std::streamsize>(text.size()));
}

}  // namespace

void RdbDoubleFile::write(const std::filesystem::path& path) const
{
    std::filesystem::create_directories(path.parent_path());
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(rdb_double::kMagic, sizeof rdb_double::kMagic);
    put(out, (amplitude ? rdb_double::kAmplitude : 0u) | (rgba ? rdb_double::kRgba : 0u) |
                 (surfaceNormal ? rdb_double::kSurfaceNormal : 0u));
    put(out, failure);
    put(out, static_cast<uint32_t>(metadata.size()));
    for (const auto& [name, value] : metadata)
    {
        putText(out, name);
        putText(out, value);
    }
    put(out, static_cast<uint64_t>(points.size()));
    for (const Point& point : points)
    {
        put(out, point.xyz);
        if (amplitude)
            put(out, point.amplitude);
        if (rgba)
            put(out, point.rgba);
        if (surfaceNormal)
            put(out, point.normal);
    }
    if (!out.flush())
        throw std::runtime_error("Could not write " + path.string());
}

std::string rdbDoubleLibrary()
{
    return PCP_RDB_DOUBLE;
}

std::string rdbDoubleLibraryLackingBind()
{
    return PCP_RDB_DOUBLE_LACKING_BIND;
}

std::string rdbDoubleLibraryFailing()
{
    return PCP_RDB_DOUBLE_FAILING;
}

}  // namespace pcp_test
