#include "support/TempFolder.h"

#include <stdlib.h>

#include <fstream>
#include <stdexcept>
#include <system_error>

#include "core/StringConversion.h"

namespace pcp_test
{

TempFolder::TempFolder()
{
    const std::string pattern = (std::filesystem::temp_directory_path() / "pcp-täst-点云-XXXXXX").string();
    std::string buffer = pattern;
    if (mkdtemp(buffer.data()) == nullptr)
        throw std::runtime_error("cannot create a temporary folder from " + pattern);
    m_path = buffer;
}

TempFolder::~TempFolder()
{
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

std::wstring TempFolder::file(const std::wstring& name) const
{
    return pc_preprocess::toWide(m_path) + L"/" + name;
}

std::wstring TempFolder::write(const std::wstring& name, std::string_view bytes) const
{
    const std::wstring path = file(name);
    std::ofstream out(pc_preprocess::toPath(path), std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!out.flush())
        throw std::runtime_error("cannot write " + pc_preprocess::ws2s(path));
    return path;
}

std::wstring TempFolder::write(const std::wstring& name, std::span<const uint8_t> bytes) const
{
    return write(name, std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
}

}  // namespace pcp_test
