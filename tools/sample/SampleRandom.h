#pragma once

#include <cmath>
#include <cstdint>
#include <numbers>

namespace pcp_sample
{

// A small seeded generator (SplitMix64) whose numbers are the same with every compiler and standard library,
// so that a sample written on one machine is the sample written on any other.
class SampleRandom
{
public:
    explicit SampleRandom(uint64_t seed) : m_state(seed) {}

    uint64_t next()
    {
        uint64_t z = (m_state += 0x9E3779B97F4A7C15ull);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return z ^ (z >> 31);
    }
    // Uniform in [0, 1).
    double unit() { return double(next() >> 11) * 0x1.0p-53; }
    double between(double lo, double hi) { return lo + (hi - lo) * unit(); }
    // Close to normally distributed with mean 0 and the given deviation, and cheap: the sum of four uniform
    // numbers, whose variance is 4 / 12. Noise of a simulated sensor needs no better.
    double normal(double deviation)
    {
        double sum = 0.0;
        for (int i = 0; i < 4; ++i)  // one draw after the other: operands of + have no order
            sum += unit();
        return deviation * (sum - 2.0) * std::numbers::sqrt3;
    }
    double exponential(double mean) { return -mean * std::log(1.0 - unit()); }

private:
    uint64_t m_state;
};

}  // namespace pcp_sample
