// How the stages of a conversion time themselves for their "elapsed" log lines.
#pragma once

#include <chrono>
#include <cstdio>
#include <string>

namespace HSPC
{

using StageClock = std::chrono::steady_clock;

// Seconds since `start`, with three decimals.
inline std::string secondsSince(StageClock::time_point start)
{
    const double seconds = std::chrono::duration<double>(StageClock::now() - start).count();
    char text[32];
    std::snprintf(text, sizeof text, "%.3f", seconds);
    return text;
}

}  // namespace HSPC
