#include "hspc/format/JsonObject.h"

#include <memory>

namespace HSPC
{

bool parseJsonObject(const std::string& text, Json::Value& root)
{
    if (text.empty())
    {
        root = Json::Value(Json::objectValue);
        return true;
    }
    Json::CharReaderBuilder builder;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string errors;
    return reader->parse(text.data(), text.data() + text.size(), &root, &errors) && root.isObject();
}

Json::Value jsonArrayOf(const std::vector<uint64_t>& values)
{
    Json::Value array(Json::arrayValue);
    for (const uint64_t value : values)
    {
        array.append(Json::UInt64(value));
    }
    return array;
}

}  // namespace HSPC
