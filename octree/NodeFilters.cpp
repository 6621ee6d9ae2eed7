#include "octree/NodeFilters.h"

#include <algorithm>
#include <limits>

#include "cachefiles/PntFiles.h"
#include "cachefiles/PntFormat.h"
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

// Calls sink for every record in order.
template <typename Sink>
void forEachRecord(std::span<const uint8_t> records, Sink&& sink)
{
    IoLightPoint p;
    for (size_t at = 0; at + kPntRecordSize <= records.size(); at += kPntRecordSize)
    {
        decodePntRecord(records.data() + at, true, p);
        sink(p);
    }
}

template <typename Feed>
FilteredPoints tandStyle(Feed&& feed, const ExtentsI32& extents, const IoTransfo& transfo, bool keepMultiple)
{
    filter::FilterTree tree(extents, transfo, keepMultiple);
    feed([&tree](const IoLightPoint& p) { tree.add(p); });
    return withMaxRadius(tree.points());
}

template <typename Feed>
FilteredPoints fernalStyle(Feed&& feed, const ExtentsI32& extents, const IoTransfo& transfo)
{
    const auto radius = static_cast<float>(extents.pointSize(transfo));
    voxelizer::vxMap<voxelizer::vxSimplifyData> map;
    feed(
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

}  // namespace

FilteredPoints filterTandStyle(const std::wstring& pntFile, const ExtentsI32& extents,
                               const IoTransfo& transfo, bool keepMultiple)
{
    return tandStyle([&](const auto& sink) { runPNT(pntFile, sink); }, extents, transfo, keepMultiple);
}

FilteredPoints filterFernalStyle(const std::wstring& pntFile, const ExtentsI32& extents,
                                 const IoTransfo& transfo)
{
    return fernalStyle([&](const auto& sink) { runPNT(pntFile, sink); }, extents, transfo);
}

FilteredPoints filterTandStyle(std::span<const uint8_t> records, const ExtentsI32& extents,
                               const IoTransfo& transfo, bool keepMultiple)
{
    return tandStyle([&](const auto& sink) { forEachRecord(records, sink); }, extents, transfo, keepMultiple);
}

FilteredPoints filterFernalStyle(std::span<const uint8_t> records, const ExtentsI32& extents,
                                 const IoTransfo& transfo)
{
    return fernalStyle([&](const auto& sink) { forEachRecord(records, sink); }, extents, transfo);
}

}  // namespace pc_preprocess
