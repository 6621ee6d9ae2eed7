#include "hspc/format/JsonInfo.h"

#include "hspc/format/JsonObject.h"

namespace HSPC
{

template <typename Value>
bool JsonInfo::addValue(const std::string& key, const Value& value)
{
    Json::Value root;
    if (key.empty() || !parseJsonObject(m_text, root))
    {
        return false;
    }
    root[key] = Json::Value(value);
    Json::StreamWriterBuilder writer;
    m_text = Json::writeString(writer, root);
    return true;
}

bool JsonInfo::add(const std::string& key, const std::string& value)
{
    return addValue(key, value);
}

bool JsonInfo::add(const std::string& key, double value)
{
    return addValue(key, value);
}

bool JsonInfo::add(const std::string& key, int64_t value)
{
    return addValue(key, Json::Int64(value));
}

bool JsonInfo::add(const std::string& key, bool value)
{
    return addValue(key, value);
}

}  // namespace HSPC
