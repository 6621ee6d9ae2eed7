#pragma once

#include <algorithm>
#include <functional>
#include <mutex>
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

// The same for components whose threads report at once.
struct LockedMessageLog
{
    std::mutex mutex;
    std::vector<std::string> lines;
    std::function<void(const std::string&)> logger()
    {
        return [this](const std::string& line)
        {
            std::lock_guard lock(mutex);
            lines.push_back(line);
        };
    }
    bool contains(const std::string& line)
    {
        std::lock_guard lock(mutex);
        return std::find(lines.begin(), lines.end(), line) != lines.end();
    }
};

}  // namespace pcp_test
