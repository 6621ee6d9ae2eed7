// Parsing the JSON texts of a data set (client meta data, tree comments, the info file), which are always one
// object at the root.
#pragma once

#include <json/json.h>

#include <cstdint>
#include <string>
#include <vector>

namespace HSPC
{

// True when `text` is a JSON object, which `root` then holds; an empty text counts as an empty object.
bool parseJsonObject(const std::string& text, Json::Value& root);

// Counts as a JSON array of 64-bit numbers.
Json::Value jsonArrayOf(const std::vector<uint64_t>& values);

}  // namespace HSPC
