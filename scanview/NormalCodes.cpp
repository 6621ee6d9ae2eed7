#include "scanview/NormalCodes.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <memory>
#include <mutex>
#include <numbers>

namespace pc_preprocess
{

namespace
{

constexpr int kRings = 227;
constexpr int kLastRing = kRings - 1;
constexpr int kEquatorDirections = 452;

// Ring layout and the directions of every code, built once on first use and only read afterwards.
class DirectionTable
{
public:
    static const DirectionTable& instance()
    {
        // About 780 KB: it lives on the heap, made by whichever thread asks first.
        static std::once_flag once;
        static std::unique_ptr<DirectionTable> table;
        std::call_once(once, [] { table.reset(new DirectionTable()); });
        return *table;
    }

    int count(int ring) const { return m_count[ring]; }
    uint32_t offset(int ring) const { return m_offset[ring]; }
    const std::array<float, 3>& direction(uint32_t code) const { return m_directions[code]; }

private:
    DirectionTable()
    {
        uint32_t code = 0;
        for (int ring = 0; ring < kRings; ++ring)
        {
            const double theta = ring * std::numbers::pi / kLastRing;
            const int count = std::max(1, static_cast<int>(std::ceil(kEquatorDirections * std::sin(theta))));
            m_count[ring] = count;
            m_offset[ring] = code;
            for (int j = 0; j < count; ++j, ++code)
            {
                const double phi = ((2.0 * j + 1.0) / count - 1.0) * std::numbers::pi;
                m_directions[code] = {static_cast<float>(std::cos(phi) * std::sin(theta)),
                                      static_cast<float>(std::sin(phi) * std::sin(theta)),
                                      static_cast<float>(std::cos(theta))};
            }
        }
    }

    std::array<int, kRings> m_count{};
    std::array<uint32_t, kRings> m_offset{};
    std::array<std::array<float, 3>, kNormalCodeCount> m_directions{};
};

}  // namespace

uint16_t encodeNormal(const geom::Vector3d& v)
{
    // Single precision throughout, so that a code is the same wherever it is computed.
    constexpr float kPi = std::numbers::pi_v<float>;
    const float x = static_cast<float>(v.x);
    const float y = static_cast<float>(v.y);
    const float z = static_cast<float>(v.z);
    const float len2 = x * x + y * y + z * z;
    if (!std::isfinite(len2) || std::fabs(1.0f - len2) > 0.2f)
        return 0;

    const float theta = std::acos(std::clamp(z, -1.0f, 1.0f));
    float phi = std::atan2(y, x);
    const int ring = static_cast<int>(theta / kPi * kLastRing + 0.5f);
    // Azimuths run from -pi inclusive to pi exclusive.
    if (phi == kPi)
        phi = -kPi;

    const DirectionTable& table = DirectionTable::instance();
    const int count = table.count(ring);
    // An azimuth just below pi can round up to a full turn; it belongs to the ring's last direction.
    const int j = std::min(count - 1, static_cast<int>(std::floor((phi * 0.5f / kPi + 0.5f) * count)));
    return static_cast<uint16_t>(table.offset(ring) + static_cast<uint32_t>(j));
}

geom::Vector3d decodeNormal(const uint8_t* code)
{
    if (code == nullptr)
        return {};
    const uint32_t value = code[0] | (uint32_t(code[1]) << 8);
    if (value >= kNormalCodeCount)
        return {};
    const std::array<float, 3>& d = DirectionTable::instance().direction(value);
    return {d[0], d[1], d[2]};
}

}  // namespace pc_preprocess
