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

namespace
{

bool holds(const Json::Value& actual, const Json::Value& expected)
{
    if (expected.isObject())
    {
        if (!actual.isObject())
            return false;
        for (const std::string& name : expected.getMemberNames())
            if (!actual.isMember(name) || !holds(actual[name], expected[name]))
                return false;
        return true;
    }
    if (expected.isArray())
    {
        if (!actual.isArray() || actual.size() != expected.size())
            return false;
        for (Json::ArrayIndex i = 0; i < expected.size(); ++i)
            if (!holds(actual[i], expected[i]))
                return false;
        return true;
    }
    if (expected.isNumeric() && actual.isNumeric() && !expected.isBool() && !actual.isBool())
        return actual.asDouble() == expected.asDouble();
    return actual == expected;
}

}  // namespace

::testing::AssertionResult holdsJson(const Json::Value& actual, const std::string& expected)
{
    if (holds(actual, parseJson(expected)))
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << actual.toStyledString() << "does not hold " << expected;
}

}  // namespace pcp_test
