#include "sample/PtxWriter.h"

#include <cmath>
#include <cstdio>
#include <memory>
#include <numbers>
#include <stdexcept>

namespace pcp_sample
{

uint64_t writePtxFile(const std::string& path, const std::vector<StationScan>& scans)
{
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "wb"), &std::fclose);
    if (!file)
        throw std::runtime_error("cannot create " + path);
    std::FILE* out = file.get();
    for (const StationScan& scan : scans)
    {
        const double heading = scan.headingDegrees * std::numbers::pi / 180.0;
        const double c = std::cos(heading);
        const double s = std::sin(heading);
        const geom::Point3d& t = scan.scanner;
        std::fprintf(out, "%d\n%d\n", scan.grid.columns, scan.grid.rows);
        std::fprintf(out, "%.6f %.6f %.6f\n", t.x, t.y, t.z);
        std::fprintf(out, "%.9f %.9f 0\n%.9f %.9f 0\n0 0 1\n", c, s, -s, c);
        // The rows of the 4 x 4 pose hold the columns of the rotation, then the translation.
        std::fprintf(out, "%.9f %.9f 0 0\n%.9f %.9f 0 0\n0 0 1 0\n", c, s, -s, c);
        std::fprintf(out, "%.6f %.6f %.6f 1\n", t.x, t.y, t.z);

        for (const SampleHit& hit : scan.hits)
        {
            // The scanner's own frame: world = R * local + t, so local = R^T (world - t).
            const double wx = hit.position.x - t.x;
            const double wy = hit.position.y - t.y;
            const double wz = hit.position.z - t.z;
            const double lx = c * wx + s * wy;
            const double ly = -s * wx + c * wy;
            if (hiddenByTripod(hit, t))
            {
                std::fputs("0 0 0 0.5 0 0 0\n", out);
                continue;
            }
            std::fprintf(out, "%.4f %.4f %.4f %.5f %d %d %d\n", lx, ly, wz, hit.intensity / 65535.0,
                         hit.r >> 8, hit.g >> 8, hit.b >> 8);
        }
    }
    const long size = std::ftell(out);
    if (std::ferror(out) || std::fflush(out) != 0 || size < 0)
        throw std::runtime_error("could not (fully) write " + path);
    return uint64_t(size);
}

}  // namespace pcp_sample
