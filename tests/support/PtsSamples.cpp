#include "support/PtsSamples.h"

#include <cstdio>
#include <memory>
#include <stdexcept>

#include "core/StringConversion.h"

namespace pcp_test
{

PtsSample ptsSample(uint64_t index)
{
    // Points 0.2 mm off the millimetre grid, so that rounding onto a millimetre cache never meets a tie, with
    // coordinates below and above the first point.
    return {100.0002 + double(int64_t(index % 2001) - 1000) * 0.001,
            200.0002 + double(index % 997) * 0.002,
            7.0002 + double(index % 5000) * 0.001,
            int(index % 256),
            int((index * 7) % 256),
            int((index * 13) % 256),
            int((index * 29) % 256)};
}

std::vector<PtsSample> writePtsFile(const std::wstring& path, uint64_t count, const PtsFileLayout& layout,
                                    uint64_t first)
{
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(
        std::fopen(pc_preprocess::toPath(path).c_str(), "wb"), &std::fclose);
    if (!file)
        throw std::runtime_error("cannot write " + pc_preprocess::ws2s(path));
    std::vector<PtsSample> samples;
    samples.reserve(count);
    if (layout.countLine)
        std::fprintf(file.get(), "%llu\n", static_cast<unsigned long long>(count));
    for (uint64_t k = 0; k < count; ++k)
    {
        PtsSample s = ptsSample(first + k);
        for (int* value : {&s.intensity, &s.r, &s.g, &s.b})
            *value *= layout.valueFactor;
        samples.push_back(s);
        std::fprintf(file.get(), "%.4f %.4f %.4f", s.x, s.y, s.z);
        if (layout.intensity)
            std::fprintf(file.get(), " %d", s.intensity);
        if (layout.colour)
            std::fprintf(file.get(), " %d %d %d", s.r, s.g, s.b);
        std::fputc('\n', file.get());
        if (layout.malformedEvery != 0 && k % layout.malformedEvery == 0)
            std::fputs("not a point\n1.5 2.5\n", file.get());
    }
    return samples;
}

}  // namespace pcp_test
