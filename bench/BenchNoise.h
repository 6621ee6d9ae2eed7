#pragma once

#include <cstdint>

namespace pcp_bench
{

// Small deterministic noise for synthetic points, so that every run of a benchmark sees the same data:
// a value in [0, range).
class BenchNoise
{
public:
    int32_t operator()(uint32_t range)
    {
        m_state = m_state * 1664525u + 1013904223u;
        return static_cast<int32_t>((m_state >> 8) % range);
    }

private:
    uint32_t m_state = 12345;
};

}  // namespace pcp_bench
