#include "sample/PtsWriter.h"

#include <cstdio>
#include <memory>
#include <stdexcept>

namespace pcp_sample
{

uint64_t writePtsScan(const std::string& path, const std::vector<SampleHit>& hits, bool withColour)
{
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "wb"), &std::fclose);
    if (!file)
        throw std::runtime_error("cannot create " + path);
    std::fprintf(file.get(), "%zu\n", hits.size());
    for (const SampleHit& hit : hits)
    {
        const int intensity = int(hit.intensity) * 4095 / 65535 - 2048;
        if (withColour)
            std::fprintf(file.get(), "%.4f %.4f %.4f %d %d %d %d\n", hit.position.x, hit.position.y,
                         hit.position.z, intensity, hit.r >> 8, hit.g >> 8, hit.b >> 8);
        else
            std::fprintf(file.get(), "%.4f %.4f %.4f %d\n", hit.position.x, hit.position.y, hit.position.z,
                         intensity);
    }
    const long size = std::ftell(file.get());
    if (std::ferror(file.get()) || std::fflush(file.get()) != 0 || size < 0)
        throw std::runtime_error("could not (fully) write " + path);
    return uint64_t(size);
}

}  // namespace pcp_sample
