#include "hspc/tree/TreeComment.h"

#include <variant>

#include "hspc/format/JsonObject.h"
#include "hspc/tree/HspcInfo.h"

namespace HSPC
{
namespace
{

constexpr const char* kDescriptionKey = "attribute-description";

Json::Value jsonOf(const ScalarValue& value)
{
    return std::visit(
        [](auto v)
        {
            using T = decltype(v);
            if constexpr (std::is_same_v<T, uint64_t>)
            {
                return Json::Value(Json::UInt64(v));
            }
            else if constexpr (std::is_same_v<T, int64_t>)
            {
                return Json::Value(Json::Int64(v));
            }
            else
            {
                return Json::Value(v);
            }
        },
        value);
}

// Writes what is known of `attribute` into the description entry.
void describe(const Attribute& attribute, const AttributeStatistics& statistics, Json::Value& entry)
{
    entry["attribute"]["role"] = getRoleName(attribute.role);
    entry["attribute"]["type"] = getTypeName(attribute.type);
    entry["attribute"]["name"] = attribute.name;
    for (const AttributeRange& range : statistics.ranges())
    {
        if (!(range.attribute == attribute))
        {
            continue;
        }
        if (range.valueCount != 0)
        {
            entry["min"] = jsonOf(range.min);
            entry["max"] = jsonOf(range.max);
        }
        if (!range.distribution.empty())
        {
            Json::Value& histogram = entry["histogram"];
            histogram["min"] = range.histogramMin;
            histogram["max"] = range.histogramMax;
            histogram["distribution"] = jsonArrayOf(range.distribution);
        }
    }
}

// The encoding attribute that entry `number` of the client's array names, or nothing after a report.
const Attribute* namedAttribute(const Json::Value& entry, Json::ArrayIndex number,
                                const std::vector<Attribute>& attributes, const LogFunction& logError)
{
    const std::string member = " for member nr " + std::to_string(number) + " in attribute-description array";
    const Json::Value& named = entry.isObject() ? entry["attribute"] : Json::Value::nullSingleton();
    if (!named.isObject())
    {
        reportTo(logError, "serializeTree: no attribute field present" + member + ".");
        return nullptr;
    }
    const Json::Value& roleText = named["role"];
    if (!roleText.isString())
    {
        reportTo(logError, "serializeTree: attribute role" + member + " is not of string type.");
        return nullptr;
    }
    const std::string roleName = roleText.asString();
    uint8_t role = 0;
    if (!parseRole(roleName, role))
    {
        reportTo(logError, "serializeTree: attribute role=" + roleName + member + " is not a valid role.");
        return nullptr;
    }
    Attribute wanted{AttributeType::UNDEFINED, role, {}};
    if (role == AttributeRole::CUSTOM)
    {
        const Json::Value& name = named["name"];
        if (!name.isString())
        {
            reportTo(logError,
                   "serializeTree: attribute role=" + roleName + member + " has no member name of type string.");
            return nullptr;
        }
        wanted.name = name.asString();
    }
    for (const Attribute& attribute : attributes)
    {
        if (attribute == wanted)
        {
            return &attribute;
        }
    }
    reportTo(logError, "serializeTree: attribute role=" + roleName +
                         (role == AttributeRole::CUSTOM ? " and name= " + wanted.name : std::string()) + member +
                         " not found in encoding attributes.");
    return nullptr;
}

}  // namespace

std::string commentWithStatistics(const std::string& clientJson, const std::vector<Attribute>& encodingAttributes,
                                  const AttributeStatistics& statistics, const LogFunction& logWarning,
                                  const LogFunction& logError)
{
    Json::Value client;
    if (!parseJsonObject(clientJson, client))
    {
        reportTo(logWarning, "serializeTree: could not parse json config. No statistics information added.");
        return clientJson;
    }
    Json::Value comment(Json::objectValue);
    Json::Value descriptions(Json::arrayValue);
    for (const std::string& key : client.getMemberNames())
    {
        if (isReservedInfoKey(key))
        {
            reportTo(logError, "serializeTree: could not add field with key=" + key + ". This key is reserved.");
        }
        else if (key != kDescriptionKey)
        {
            comment[key] = client[key];
        }
        else if (!client[key].isArray())
        {
            reportTo(logError,
                   "serializeTree: could not add field with key=" + key + ". The json of this key is not an array.");
        }
    }
    std::vector<bool> named(encodingAttributes.size(), false);
    const Json::Value requested = client.get(kDescriptionKey, Json::Value());
    if (requested.isArray())
    {
        for (Json::ArrayIndex number = 0; number < requested.size(); ++number)
        {
            Json::Value entry = requested[number];
            const Attribute* attribute = namedAttribute(entry, number, encodingAttributes, logError);
            if (attribute == nullptr)
            {
                continue;
            }
            named[size_t(attribute - encodingAttributes.data())] = true;
            describe(*attribute, statistics, entry);
            descriptions.append(entry);
        }
    }
    for (size_t i = 0; i < encodingAttributes.size(); ++i)
    {
        // The position has no value range of its own; its extent is the tree's bounding box.
        if (!named[i] && !isMortonType(encodingAttributes[i].type))
        {
            Json::Value entry(Json::objectValue);
            describe(encodingAttributes[i], statistics, entry);
            descriptions.append(entry);
        }
    }
    comment[kDescriptionKey] = descriptions;
    Json::StreamWriterBuilder writer;
    return Json::writeString(writer, comment);
}

}  // namespace HSPC
