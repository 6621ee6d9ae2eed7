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

// Where `actual` differs from `expected`, as a path and the two values; empty when it holds all of it.
std::string firstDifference(const Json::Value& actual, const Json::Value& expected, const std::string& path)
{
    const auto differs = [&]
    { return path + ": " + actual.toStyledString() + " is not " + expected.toStyledString(); };
    if (expected.isObject())
    {
        if (!actual.isObject())
            return differs();
        for (const std::string& name : expected.getMemberNames())
        {
            if (!actual.isMember(name))
                return path + "/" + name + " is missing";
            const std::string difference = firstDifference(actual[name], expected[name], path + "/" + name);
            if (!difference.empty())
                return difference;
        }
        return "";
    }
    if (expected.isArray())
    {
        if (!actual.isArray() || actual.size() != expected.size())
            return differs();
        for (Json::ArrayIndex i = 0; i < expected.size(); ++i)
        {
            const std::string difference =
                firstDifference(actual[i], expected[i], path + "/" + std::to_string(i));
            if (!difference.empty())
                return difference;
        }
        return "";
    }
    if (expected.isNumeric() && actual.isNumeric() && !expected.isBool() && !actual.isBool())
        return actual.asDouble() == expected.asDouble() ? "" : differs();
    return actual == expected ? "" : differs();
}

}  // namespace

::testing::AssertionResult holdsJson(const Json::Value& actual, const std::string& expected)
{
    const std::string difference = firstDifference(actual, parseJson(expected), "");
    if (difference.empty())
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << difference;
}

}  // namespace pcp_test
