#include "cachefiles/RegionJson.h"

#include <json/value.h>

#include "cachefiles/JsonSideFile.h"
#include "core/StringConversion.h"

namespace pc_preprocess
{

namespace
{

Json::Value clipObject(const pointcloud_def::PcClip& clip)
{
    Json::Value planes(Json::arrayValue);
    for (const auto& plane : clip.planes)
    {
        for (double coefficient : plane)
            planes.append(coefficient);
    }
    Json::Value vertices(Json::arrayValue);
    for (const geom::Point3d& vertex : clip.vertices)
    {
        vertices.append(vertex.x);
        vertices.append(vertex.y);
        vertices.append(vertex.z);
    }
    Json::Value object(Json::objectValue);
    object["p"] = std::move(planes);
    object["v"] = std::move(vertices);
    object["in"] = clip.in;
    object["id"] = Json::UInt(clip.id);
    return object;
}

Json::Value regionObject(const pointcloud_def::PcRegion& region)
{
    Json::Value clips(Json::arrayValue);
    for (const pointcloud_def::PcClip& clip : region.clips)
        clips.append(clipObject(clip));
    Json::Value overlaps(Json::arrayValue);
    for (uint32_t index : region.overlaps)
        overlaps.append(Json::UInt(index));
    Json::Value object(Json::objectValue);
    object["name"] = ws2s(region.name);
    object["idx"] = Json::UInt(region.idx);
    object["clips"] = std::move(clips);
    object["overlaps"] = std::move(overlaps);
    object["visible"] = region.visible;
    object["locked"] = region.locked;
    object["removed"] = region.removed;
    return object;
}

}  // namespace

void regionJson(const std::vector<pointcloud_def::PcRegion>& regions, const std::wstring& rgnPath)
{
    requireJsonFileExtension(rgnPath, ".rgn");
    requireExistingParentFolder(rgnPath);
    Json::Value array(Json::arrayValue);
    for (const pointcloud_def::PcRegion& region : regions)
        array.append(regionObject(region));
    Json::Value root(Json::objectValue);
    root["regions"] = std::move(array);
    writeCompactJson(root, rgnPath, "regionJson");
}

}  // namespace pc_preprocess
