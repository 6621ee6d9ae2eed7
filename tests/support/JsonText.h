#pragma once

#include <gtest/gtest.h>
#include <json/value.h>

#include <string>

namespace pcp_test
{

// A JSON text parsed with jsoncpp's own reader, independently of the library's side-file readers; a text
// that does not parse fails the running test and gives a null value.
Json::Value parseJson(const std::string& text);

// Whether `actual` holds everything that the JSON text `expected` says: each member of an expected object
// (the actual one may have more), each element of an expected array (of the same length), equal strings and
// booleans, and numbers of equal value whichever integer or real type the reader chose for them. A test
// states a whole document in one literal instead of one check per field.
::testing::AssertionResult holdsJson(const Json::Value& actual, const std::string& expected);

}  // namespace pcp_test
