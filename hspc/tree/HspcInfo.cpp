#include "hspc/tree/HspcInfo.h"

#include <algorithm>
#include <array>

#include "hspc/format/Attribute.h"
#include "hspc/format/JsonObject.h"

namespace HSPC
{
namespace
{

constexpr std::string_view kReservedKeys[] = {
    "version",         "format-version", "max-lod",       "min-lod",     "lod-number-of-nodes",
    "center-projected", "node-size",     "max-node-size", "root-offset", "origin",
    "scale",           "bounding-box",   "attribute-id",  "time-stamp",  "point-count",
    "point-count-low-bits", "point-count-high-bits", "filtered-point-count", "revision", "attributes"};

constexpr uint64_t kMillisecondsPerSecond = 1000;

template <typename T>
Json::Value jsonArray(const std::array<T, 3>& values)
{
    Json::Value array(Json::arrayValue);
    for (const T value : values)
    {
        if constexpr (std::is_same_v<T, int64_t>)
        {
            array.append(Json::Int64(value));
        }
        else
        {
            array.append(value);
        }
    }
    return array;
}

}  // namespace

bool isReservedInfoKey(std::string_view key)
{
    return std::find(std::begin(kReservedKeys), std::end(kReservedKeys), key) != std::end(kReservedKeys);
}

bool makeHspcInfo(const Tree& tree, std::string& json, std::string& error)
{
    const TreeHeader& header = tree.header;
    Json::Value info;
    if (!parseJsonObject(header.comment, info))
    {
        error = "the tree comment is not a JSON object";
        return false;
    }
    info["format-version"] = header.formatVersion;
    info["max-lod"] = header.maxLod;
    info["min-lod"] = header.minLod;
    info["lod-number-of-nodes"] = jsonArrayOf(tree.lodNodeCounts);
    info["node-size"] = header.nodeSize;
    info["max-node-size"] = header.maxNodeSize;
    info["root-offset"] = jsonArray(header.rootOffset);
    info["origin"] = jsonArray(header.origin);
    info["scale"] = jsonArray(header.scale);
    info["bounding-box"]["min"] = jsonArray(header.boxMin);
    info["bounding-box"]["max"] = jsonArray(header.boxMax);
    info["attribute-id"] = header.attributeId;
    info["time-stamp"] = Json::UInt64(header.timeStamp / kMillisecondsPerSecond);
    info["point-count"] = Json::UInt64(header.pointCount);
    info["point-count-low-bits"] = uint32_t(header.pointCount);
    info["point-count-high-bits"] = uint32_t(header.pointCount >> 32);
    info["filtered-point-count"] = Json::UInt64(header.filteredPointCount);
    info["revision"] = header.revision;
    Json::Value attributes(Json::arrayValue);
    for (const Attribute& attribute : tree.attributes.attributes)
    {
        Json::Value entry(Json::objectValue);
        entry["role"] = getRoleName(attribute.role);
        entry["type"] = getTypeName(attribute.type);
        entry["name"] = attribute.name;
        attributes.append(entry);
    }
    info["attributes"] = attributes;

    Json::Value root(Json::objectValue);
    root["tree-header-info"] = info;
    Json::StreamWriterBuilder writer;
    json = Json::writeString(writer, root);
    return true;
}

}  // namespace HSPC
