// Arbitrary bytes as a PNT file, as a PNZ file and as the inflated content of one, all from memory: every
// input either decodes or fails with the library's own error. Whatever decodes as a PNT must also survive the
// trip through planes and deflate unchanged.
#include <cstdint>
#include <cstring>
#include <span>
#include <stdexcept>
#include <vector>

#include "cachefiles/NodeCodec.h"
#include "cachefiles/PnzCodec.h"

using namespace pc_preprocess;

namespace
{

constexpr uint64_t kMaxPoints = 100000;
// Where decoded values go, so that the decoding is not optimised away.
volatile int64_t g_sink = 0;

bool sameBits(const IoLightPoint& a, const IoLightPoint& b)
{
    return a.x == b.x && a.y == b.y && a.z == b.z && a.r == b.r && a.g == b.g && a.b == b.b &&
           std::memcmp(&a.radius, &b.radius, sizeof a.radius) == 0 && a.intensity == b.intensity &&
           a.scanId == b.scanId;
}

// The decoded points, written as a PNZ in memory and read back.
void checkRoundTrip(const IoTransfo& transfo, const std::vector<IoLightPoint>& points)
{
    std::vector<uint8_t> planes(fileSizePNT(points.size(), true));
    encodePlaneBytes(
        transfo, points.size(), [&](uint64_t i) -> const IoLightPoint& { return points[i]; }, planes);
    const std::vector<uint8_t> inflated = inflatePnz(deflatePnz(planes), planes.size());
    const NodeBytes node = parseNodeBytes(inflated, NodeLayout::kPlanes, "ERROR PNT READER");
    if (node.numPoints != points.size() || std::memcmp(&node.header.transfo, &transfo, sizeof transfo) != 0)
        __builtin_trap();
    forEachPoint(node,
                 [&](uint64_t i, const IoLightPoint& p)
                 {
                     if (!sameBits(p, points[i]))
                         __builtin_trap();
                 });
}

void asPnt(std::span<const uint8_t> bytes)
{
    const NodeBytes node = parseNodeBytes(bytes, NodeLayout::kRecords, "ERROR PNT READER");
    if (node.numPoints > kMaxPoints)
        return;
    std::vector<IoLightPoint> points(node.numPoints);
    forEachPoint(node, [&](uint64_t i, const IoLightPoint& p) { points[i] = p; });
    checkRoundTrip(node.header.transfo, points);
}

// The content of a PNZ once inflated: header and planes.
void asPlanes(std::span<const uint8_t> inflated)
{
    const NodeBytes node = parseNodeBytes(inflated, NodeLayout::kPlanes, "ERROR PNT READER");
    int64_t sum = 0;
    forEachPoint(node, [&](uint64_t, const IoLightPoint& p) { sum += int64_t{p.x} + p.scanId; });
    g_sink = sum;
}

void asPnz(std::span<const uint8_t> bytes)
{
    asPlanes(inflatePnz(bytes, fileSizePNT(kMaxPoints, true)));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::span<const uint8_t> bytes(data, size);
    // Arbitrary bytes rarely form a deflate stream, so they go to the plane decoder directly as well.
    for (auto decode : {asPnt, asPnz, asPlanes})
    {
        try
        {
            decode(bytes);
        }
        catch (const std::runtime_error&)
        {
        }
    }
    return 0;
}
