#pragma once

#include <chrono>
#include <string>

namespace pc_preprocess
{

// Times a stage of a run for its "Elapsed time" log line.
class Stopwatch
{
public:
    // Seconds since construction, printed as std::to_string prints a double.
    std::string elapsed() const
    {
        const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - m_start;
        return std::to_string(seconds.count());
    }

private:
    std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
};

}  // namespace pc_preprocess
