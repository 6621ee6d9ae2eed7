#include "cachefiles/VrmFile.h"

#include <json/value.h>

#include <stdexcept>
#include <string>

#include "cachefiles/JsonSideFile.h"
#include "core/StringConversion.h"

namespace pc_preprocess
{

namespace
{

const char* const kWriter = "buildTree";
const char* const kReader = "readVrm";
constexpr int kFormat = 10;

Json::Value nodeObject(const VrmNode& node)
{
    Json::Value box(Json::arrayValue);
    for (double value : node.box)
        box.append(value);
    Json::Value object(Json::objectValue);
    object["f"] = ws2s(node.file);
    object["r"] = node.maxRadius;
    object["v"] = Json::UInt(node.numPoints);
    object["b"] = std::move(box);
    if (!node.children.empty())
    {
        Json::Value children(Json::arrayValue);
        for (const VrmNode& child : node.children)
            children.append(nodeObject(child));
        object["o"] = std::move(children);
    }
    return object;
}

// A plain file name ending ".pnt": readers join it to the point folder, so a name that leads elsewhere (a
// folder part, "..") must not pass.
bool isNodeFileName(const std::string& name)
{
    return name.find_first_of(std::string("/\\\0", 3)) == std::string::npos &&
           toPath(s2ws(name)).extension() == ".pnt";
}

struct VrmReader
{
    JsonFieldReader json;

    VrmNode node(const Json::Value& object, unsigned depth, const std::string& where) const
    {
        if (depth >= kMaxVrmDepth)
            json.fail("nodes nested deeper than " + std::to_string(kMaxVrmDepth) + " levels");
        const JsonFieldReader outside = json.within(where);
        if (!object.isObject())
            outside.fail("not an object");
        const std::string name = outside.member(object, "f", &Json::Value::isString).asString();
        if (!isNodeFileName(name))
            outside.fail("\"f\" is no node file name: \"" + name + "\"");

        const JsonFieldReader inside = json.within("node " + name);
        VrmNode node;
        node.file = s2ws(name);
        node.maxRadius = inside.member(object, "r", &Json::Value::isNumeric).asDouble();
        node.numPoints = inside.member(object, "v", &Json::Value::isUInt).asUInt();
        node.box = inside.doubles<6>(object, "b");
        for (int axis = 0; axis < 3; ++axis)
            if (node.box[axis] > node.box[axis + 3])
                inside.fail("\"b\" has a minimum above its maximum");
        if (object.isMember("o"))
        {
            const Json::Value& children = inside.member(object, "o", &Json::Value::isArray);
            node.children.reserve(children.size());
            for (const Json::Value& child : children)
                node.children.push_back(this->node(child, depth + 1, "a child of node " + name));
        }
        return node;
    }
};

}  // namespace

std::array<double, 6> vrmBox(const ExtentsI32& extents, const IoTransfo& transfo)
{
    // In doubles, so that the step beyond a coordinate at the end of the 32-bit range does not overflow.
    const std::array<double, 3> low = {double(extents.minX()) - 1.0, double(extents.minY()) - 1.0,
                                       double(extents.minZ()) - 1.0};
    const std::array<double, 3> high = {double(extents.maxX()) + 1.0, double(extents.maxY()) + 1.0,
                                        double(extents.maxZ()) + 1.0};
    std::array<double, 6> box{};
    for (int axis = 0; axis < 3; ++axis)
    {
        box[axis] = low[axis] * transfo.scale[axis] + transfo.offset[axis];
        box[axis + 3] = high[axis] * transfo.scale[axis] + transfo.offset[axis];
    }
    return box;
}

void writeVrm(const std::wstring& path, const VrmNode& root)
{
    Json::Value file(Json::objectValue);
    file["format"] = kFormat;
    file["content"] = nodeObject(root);
    writeCompactJson(file, path, kWriter);
}

VrmNode readVrm(const std::wstring& path)
{
    const VrmReader reader{JsonFieldReader(kReader, path, "VRM")};
    const Json::Value file = reader.json.readObject();
    const Json::Value& format = reader.json.member(file, "format", &Json::Value::isInt);
    if (format.asInt() != kFormat)
        reader.json.fail("format " + std::to_string(format.asInt()) + " instead of " +
                         std::to_string(kFormat));
    return reader.node(reader.json.member(file, "content", &Json::Value::isObject), 0, "\"content\"");
}

}  // namespace pc_preprocess
