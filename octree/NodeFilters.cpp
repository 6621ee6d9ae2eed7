#include "octree/NodeFilters.h"

#include <algorithm>
#include <limits>

#include "cachefiles/PntFiles.h"
#include "octree/FilterTree.h"
#include "octree/VxMap.h"

namespace pc_preprocess
{

namespace
{

FilteredPoints withMaxRadius(std::vector<IoLightPoint> points)
{
    double maxRadius = std::numeric_limits<double>::lowest();
    for (const IoLightPoint& p : points)
        maxRadius = std::max(maxRadius, static_cast<double>(p.radius));
    return {std::move(points), maxRadius};
}

}  // namespace

FilteredPoints filterTandStyle(const std::wstring& pntFile, const ExtentsI32& extents,
                               const IoTransfo& transfo, bool keepMultiple)
{
    filter::FilterTree tree(extents, transfo, keepMultiple);
    runPNT(pntFile, [&tree](const IoLightPoint& p) { tree.add(p); });
    return withMaxRadius(tree.points());
}

FilteredPoints filterFernalStyle(const std::wstring& pntFile, const ExtentsI32& extents,
                                 const IoTransfo& transfo)
{
    const auto radius = static_cast<float>(extents.pointSize(transfo));
    voxelizer::vxMap<voxelizer::vxSimplifyData> map;
    runPNT(pntFile,
           [&map, radius](const IoLightPoint& p)
           {
               IoLightPoint q;
               q.x = p.x;
               q.y = p.y;
               q.z = p.z;
               q.radius = radius;
               q.r = p.r;
               q.g = p.g;
               q.b = p.b;
               map.add(q);
           });
    return withMaxRadius(map.convert(transfo));
}

}  // namespace pc_preprocess
