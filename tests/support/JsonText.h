#pragma once

#include <json/value.h>

#include <string>

namespace pcp_test
{

// A JSON text parsed with jsoncpp's own reader, independently of the library's side-file readers; a text
// that does not parse fails the running test and gives a null value.
Json::Value parseJson(const std::string& text);

}  // namespace pcp_test
