#include "hspc/format/AttributeDescription.h"

#include <json/json.h>

#include <algorithm>
#include <limits>
#include <memory>
#include <utility>

namespace HSPC
{
namespace
{

constexpr const char* kDescriptionKey = "attribute-description";

std::string stringMember(const Json::Value& object, const char* key)
{
    const Json::Value& value = object[key];
    return value.isString() ? value.asString() : std::string();
}

std::optional<double> numberMember(const Json::Value& object, const char* key)
{
    const Json::Value& value = object[key];
    return value.isNumeric() ? std::optional<double>(value.asDouble()) : std::nullopt;
}

void fixBounds(HistogramSpec& request, std::optional<double> min, std::optional<double> max)
{
    if (min)
    {
        request.min = *min;
        request.hasMin = true;
    }
    if (max)
    {
        request.max = *max;
        request.hasMax = true;
    }
}

bool parseHistogram(const Json::Value& histogram, const std::string& role, const LogFunction& errorLogger,
                    HistogramSpec& request)
{
    // A histogram that is not an object has none of its members.
    if (!histogram.isObject() || !histogram.isMember("min"))
    {
        errorLogger("attribute-description: Failed to find min of histogram for " + role);
        return false;
    }
    if (!histogram.isMember("max"))
    {
        errorLogger("attribute-description: Failed to find max of histogram for " + role);
        return false;
    }
    if (!histogram.isMember("distribution"))
    {
        errorLogger("attribute-description: Failed to find distribution of histogram for " + role);
        return false;
    }
    const Json::Value& distribution = histogram["distribution"];
    if (!distribution.isArray())
    {
        errorLogger("attribute-description: distribution of histogram is not an array for attribute role = " +
                    role);
        return false;
    }
    fixBounds(request, numberMember(histogram, "min"), numberMember(histogram, "max"));
    request.bucketCount = static_cast<uint16_t>(
        std::min<Json::ArrayIndex>(distribution.size(), std::numeric_limits<uint16_t>::max()));
    return true;
}

bool parseMapping(const Json::Value& mapping, const std::string& role, const LogFunction& errorLogger,
                  std::vector<ValueLabel>& labels)
{
    if (!mapping.isArray())
    {
        errorLogger("attribute-description: distribution of histogram is not an array for attribute role = " +
                    role);
        return false;
    }
    for (const Json::Value& entry : mapping)
    {
        if (entry.isObject() && entry["id"].isInt64() && entry["name"].isString())
        {
            labels.push_back({entry["id"].asInt64(), entry["name"].asString()});
        }
    }
    return true;
}

bool parseEntry(const Json::Value& entry, const LogFunction& errorLogger, AttributeDescription& description)
{
    const Json::Value& attribute = entry["attribute"];
    const std::string role = stringMember(attribute, "role");
    HistogramSpec& request = description.histogram;
    if (!parseRole(role, request.role))
    {
        errorLogger("attribute-description: Failed to get valid role for " + role);
        return false;
    }
    if (!parseType(stringMember(attribute, "type"), request.type))
    {
        errorLogger("attribute-description: Failed to get valid type for " + role);
        return false;
    }
    request.name = stringMember(attribute, "name");
    description.scale = numberMember(entry, "scale");
    description.offset = numberMember(entry, "offset");
    fixBounds(request, numberMember(entry, "min"), numberMember(entry, "max"));
    if (entry.isMember("histogram") && !parseHistogram(entry["histogram"], role, errorLogger, request))
    {
        return false;
    }
    return !entry.isMember("mapping") ||
           parseMapping(entry["mapping"], role, errorLogger, description.mapping);
}

}  // namespace

bool parseAttributeDescription(const std::string& jsonText, const LogFunction& errorLogger,
                               std::vector<AttributeDescription>& descriptions)
{
    descriptions.clear();
    if (jsonText.empty())
    {
        return true;
    }
    Json::Value root;
    std::string parseErrors;
    Json::CharReaderBuilder builder;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    if (!reader->parse(jsonText.data(), jsonText.data() + jsonText.size(), &root, &parseErrors))
    {
        errorLogger("attribute-description: could not parse json config: " + parseErrors);
        return false;
    }
    if (!root.isObject())
    {
        return true;
    }
    const Json::Value& entries = std::as_const(root)[kDescriptionKey];
    if (!entries.isArray())
    {
        return true;
    }
    for (const Json::Value& entry : entries)
    {
        // An entry counts only with its "attribute" object; anything else in the array is not ours to judge.
        if (!entry.isObject() || !entry["attribute"].isObject())
        {
            continue;
        }
        AttributeDescription description;
        if (!parseEntry(entry, errorLogger, description))
        {
            return false;
        }
        descriptions.push_back(std::move(description));
    }
    return true;
}

}  // namespace HSPC
