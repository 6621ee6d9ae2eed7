#pragma once

#include <filesystem>
#include <set>
#include <string>

namespace pcp_test
{

// The whole content of a file, byte for byte; empty when it cannot be read.
std::string readText(const std::filesystem::path& file);
std::string readText(const std::wstring& file);

// The names of the entries of a folder, files and folders alike.
std::set<std::string> entriesOf(const std::filesystem::path& folder);

}  // namespace pcp_test
