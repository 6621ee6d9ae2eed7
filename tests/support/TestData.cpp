#include "support/TestData.h"

#include <cstdlib>

namespace pcp_test
{

std::filesystem::path testDataFolder()
{
    if (const char* fromEnvironment = std::getenv("PCP_TEST_DATA"); fromEnvironment && *fromEnvironment)
        return fromEnvironment;
    return std::filesystem::path(PCP_SOURCE_DIR) / ".." / "shared" / "data";
}

std::filesystem::path findTestData(const std::string& relativePath)
{
    const std::filesystem::path candidate = testDataFolder() / relativePath;
    std::error_code error;
    return std::filesystem::is_regular_file(candidate, error) ? candidate : std::filesystem::path();
}

}  // namespace pcp_test
