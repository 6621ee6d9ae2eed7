#pragma once

#include <functional>
#include <string>
#include <vector>

namespace pcp_test
{

// Collects everything a component reports through a logger function, so that a test can compare exact texts.
struct MessageLog
{
    std::vector<std::string> lines;
    std::function<void(const std::string&)> logger()
    {
        return [this](const std::string& line) { lines.push_back(line); };
    }
};

}  // namespace pcp_test
