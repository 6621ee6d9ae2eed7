#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "core/Export.h"
#include "core/ScanFiles.h"
#include "geom/Point3d.h"
#include "geom/Vector3d.h"

namespace pc_preprocess
{

// Looks up a point's normal in the normal map that its scan's view exported, and its distance from the scan
// position. Read-only after construction, so the tree's threads share one calculator without locks.
class PCP_API StructuredNormalCalculator
{
public:
    // From the scans of a run; a scan's id is its index in `scans`. Active only when `load` and `useNormals`
    // are set, `disable` is not, and some scan has a normal map; then each such scan's meta file gives its
    // position (a meta file that cannot be read throws) and its map is decoded. A map that cannot be read or
    // is not of four 16-bit channels leaves that scan without normals.
    StructuredNormalCalculator(const std::vector<ScanFiles>& scans, bool load, bool disable, bool useNormals);
    // From scan ids with their positions and normal map paths; always active.
    StructuredNormalCalculator(const std::map<uint64_t, std::pair<geom::Point3d, std::wstring>>& scans,
                               bool useNormals);
    ~StructuredNormalCalculator();
    StructuredNormalCalculator(StructuredNormalCalculator&&) noexcept;
    StructuredNormalCalculator& operator=(StructuredNormalCalculator&&) noexcept;
    StructuredNormalCalculator(const StructuredNormalCalculator&) = delete;
    StructuredNormalCalculator& operator=(const StructuredNormalCalculator&) = delete;

    bool isActivated() const;

    // The unit normal at the point's direction in its scan's map (zero unless normals are in use) and the
    // point's distance from the scan position. Both are 0 for an unknown scan, a scan without map, and a
    // pixel that holds no normal (a hole or filler), so that a caller can tell a missing answer by the size.
    std::pair<geom::Vector3d, double> getNormalAndSize(const geom::Point3d& point, uint16_t scanId) const;

private:
    struct Implementation;
    std::unique_ptr<Implementation> m_implementation;
};

}  // namespace pc_preprocess
