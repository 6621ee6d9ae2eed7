#include "support/TempFolder.h"

#include <stdlib.h>

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

}  // namespace pcp_test
