#pragma once

#include <exception>
#include <string>

namespace pcp_test
{

// The message of the exception that f throws, or "(no exception)": lets a test compare the library's exact
// error texts with one EXPECT_EQ.
template <typename F>
std::string errorText(F&& f)
{
    try
    {
        f();
    }
    catch (const std::exception& e)
    {
        return e.what();
    }
    return "(no exception)";
}

}  // namespace pcp_test
