#include "support/JsonText.h"

#include <gtest/gtest.h>
#include <json/reader.h>

#include <sstream>

namespace pcp_test
{

Json::Value parseJson(const std::string& text)
{
    Json::Value root;
    std::istringstream in(text);
    std::string errors;
    EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), in, &root, &errors)) << errors;
    return root;
}

}  // namespace pcp_test
