#pragma once

#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <string_view>

namespace pcp_test
{

// A fresh folder below the system's temporary folder, removed with everything in it at the end of the test.
// Its name holds "ä" and CJK characters, so that every path a test builds in it exercises non-ASCII names.
class TempFolder
{
public:
    TempFolder();
    ~TempFolder();
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    const std::filesystem::path& path() const { return m_path; }
    // A wide path of a file inside the folder, as the library's interfaces take it.
    std::wstring file(const std::wstring& name) const;
    // Writes a file of these bytes into the folder, replacing any of that name, and returns its wide path.
    std::wstring write(const std::wstring& name, std::string_view bytes) const;
    std::wstring write(const std::wstring& name, std::span<const uint8_t> bytes) const;

private:
    std::filesystem::path m_path;
};

}  // namespace pcp_test
