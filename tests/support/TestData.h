#pragma once

#include <gtest/gtest.h>
#include <filesystem>
#include <string>

namespace pcp_test
{

// The folder of sample files written by other tools: $PCP_TEST_DATA, or ../shared/data beside the project.
std::filesystem::path testDataFolder();

// The path of a sample file, or empty when it is not there.
std::filesystem::path findTestData(const std::string& relativePath);

}  // namespace pcp_test

// Skips the current test with a clear message when a sample file is absent.
#define PCP_REQUIRE_TEST_DATA(var, relativePath)                                                       \
    const std::filesystem::path var = pcp_test::findTestData(relativePath);                            \
    if (var.empty())                                                                                   \
    GTEST_SKIP() << "sample file " << (relativePath) << " not found in " << pcp_test::testDataFolder() \
                 << " (set PCP_TEST_DATA to the sample folder)"
