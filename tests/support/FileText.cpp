#include "support/FileText.h"

#include <fstream>
#include <sstream>

#include "core/StringConversion.h"

namespace pcp_test
{

std::string readText(const std::filesystem::path& file)
{
    std::ifstream in(file, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::string readText(const std::wstring& file)
{
    return readText(pc_preprocess::toPath(file));
}

std::set<std::string> entriesOf(const std::filesystem::path& folder)
{
    std::set<std::string> names;
    for (const std::filesystem::directory_entry& entry : std::filesystem::directory_iterator(folder))
        names.insert(entry.path().filename().string());
    return names;
}

}  // namespace pcp_test
