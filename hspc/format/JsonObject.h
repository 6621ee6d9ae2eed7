// Parsing the JSON texts of a data set (client meta data, tree comments, the info file), which are always one
// object at the root.
#pragma once

#include <json/json.h>

#include <string>

namespace HSPC
{

// True when `text` is a JSON object, which `root` then holds; an empty text counts as an empty object.
bool parseJsonObject(const std::string& text, Json::Value& root);

}  // namespace HSPC
