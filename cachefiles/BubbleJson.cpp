#include "cachefiles/BubbleJson.h"

#include <json/value.h>

#include <filesystem>
#include <stdexcept>
#include <system_error>

#include "cachefiles/JsonSideFile.h"
#include "cachefiles/MetaFile.h"
#include "core/StringConversion.h"
#include "core/StringPathConvertor.h"

namespace pc_preprocess
{

namespace fs = std::filesystem;

namespace
{

const char* const kWriter = "bubbleJson";
const char* const kReader = "readBubbleJson";

// Pictures lie in the cache's "Bubbles" folder beside the VRP; a relative name keeps a moved cache working.
std::string relativeTo(const fs::path& folder, const std::wstring& file)
{
    std::error_code error;
    const fs::path absoluteFile = fs::absolute(toPath(file), error).lexically_normal();
    const fs::path absoluteFolder = fs::absolute(folder, error).lexically_normal();
    const fs::path relative = absoluteFile.lexically_relative(absoluteFolder);
    return (error || relative.empty() ? toPath(file) : relative).string();
}

template <size_t N>
Json::Value numbers(const std::array<double, N>& values)
{
    Json::Value array(Json::arrayValue);
    for (double value : values)
        array.append(value);
    return array;
}

Json::Value picture(const fs::path& folder, const std::wstring& file, const MetaData& meta)
{
    Json::Value object(Json::objectValue);
    object["file"] = relativeTo(folder, file);
    object["w"] = Json::UInt64(meta.viewWidth);
    object["h"] = Json::UInt64(meta.viewWidth >> 1);
    object["maxdist"] = meta.maxDistance;
    Json::Value array(Json::arrayValue);
    array.append(std::move(object));
    return array;
}

Json::Value bubble(const fs::path& folder, const std::string& name, const std::wstring& metaFile,
                   const std::wstring& viewPng, const std::wstring& normalPng)
{
    const MetaData meta = metaFile.empty() ? MetaData() : readMetaFile(metaFile);
    Json::Value object(Json::objectValue);
    object["name"] = name;
    object["scannerposition"] = numbers(meta.position);
    object["rotationmatrix"] = numbers(meta.matrix);
    if (meta.viewWidth != MetaData::kNoViewWidth)
    {
        if (!viewPng.empty())
            object["data"] = picture(folder, viewPng, meta);
        if (!normalPng.empty())
            object["normals"] = picture(folder, normalPng, meta);
    }
    return object;
}

// Reading: every value is checked for its type, so a damaged file gives a message and not a wrong scan.
struct VrpReader
{
    JsonFieldReader json;

    std::optional<BubblePicture> picture(const Json::Value& object, const char* key) const
    {
        if (!object.isMember(key))
            return std::nullopt;
        const Json::Value& array = json.member(object, key, &Json::Value::isArray);
        if (array.empty() || !array[0].isObject())
            json.fail(std::string("\"") + key + "\" holds no picture");
        const Json::Value& first = array[0];
        BubblePicture result;
        result.file = s2ws(json.member(first, "file", &Json::Value::isString).asString());
        result.width = json.member(first, "w", &Json::Value::isUInt64).asUInt64();
        result.height = json.member(first, "h", &Json::Value::isUInt64).asUInt64();
        result.maxDistance = json.member(first, "maxdist", &Json::Value::isNumeric).asDouble();
        return result;
    }

    std::vector<Bubble> bubbles(const Json::Value& root, const char* key) const
    {
        std::vector<Bubble> result;
        for (const Json::Value& object : json.member(root, key, &Json::Value::isArray))
        {
            if (!object.isObject())
                json.fail(std::string("\"") + key + "\" holds something other than an object");
            Bubble b;
            b.name = s2ws(json.member(object, "name", &Json::Value::isString).asString());
            b.scannerPosition = json.doubles<3>(object, "scannerposition");
            b.rotationMatrix = json.doubles<9>(object, "rotationmatrix");
            b.data = picture(object, "data");
            b.normals = picture(object, "normals");
            result.push_back(std::move(b));
        }
        return result;
    }
};

}  // namespace

void bubbleJson(const std::vector<ScanFiles>& scans, const std::wstring& vrpPath)
{
    requireJsonFileExtension(vrpPath, ".vrp");
    const fs::path folder = requireExistingParentFolder(vrpPath);
    const StringPathConvertor convertor(toWide(folder));

    Json::Value staticScans(Json::arrayValue);
    Json::Value waypoints(Json::arrayValue);
    for (const ScanFiles& scan : scans)
    {
        if (!scan.metaFile.empty())
            staticScans.append(bubble(folder, convertor.convertPath(scan.pntFile), scan.metaFile,
                                      scan.viewPng, scan.normalPng));
    }
    for (const ScanFiles& scan : scans)
    {
        for (const ScanImageFiles& image : scan.images)
        {
            if (!image.viewPng.empty())
                waypoints.append(bubble(folder, toPath(image.viewPng).stem().string(), image.metaFile,
                                        image.viewPng, image.normalPng));
        }
    }
    Json::Value root(Json::objectValue);
    root["staticscans"] = std::move(staticScans);
    root["waypoints"] = std::move(waypoints);
    writeCompactJson(root, vrpPath, kWriter);
}

BubbleFile readBubbleJson(const std::wstring& vrpPath)
{
    const VrpReader reader{JsonFieldReader(kReader, vrpPath, "VRP")};
    const Json::Value root = reader.json.readObject();
    BubbleFile file;
    file.staticScans = reader.bubbles(root, "staticscans");
    file.waypoints = reader.bubbles(root, "waypoints");
    return file;
}

}  // namespace pc_preprocess
