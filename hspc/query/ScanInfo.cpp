#include "hspc/query/ScanInfo.h"

#include <string>

#include "hspc/format/JsonObject.h"

namespace HSPC
{
namespace
{

constexpr const char* kMissingIndex = "Malformed scan info missing index";

double numberOr(const Json::Value& value, double fallback)
{
    return value.isNumeric() ? value.asDouble() : fallback;
}

// False for a member without a numeric "index".
bool readScanInfo(const Json::Value& member, ScanInfo& scan)
{
    if (!member.isObject() || !member["index"].isIntegral())
    {
        return false;
    }
    scan.index = member["index"].asInt64();
    const Json::Value& matrix = member["matrix"];
    if (matrix.isArray())
    {
        for (const Json::Value& number : matrix)
        {
            scan.matrix.push_back(numberOr(number, 0.0));
        }
    }
    const Json::Value& pose = member["pose"];
    if (pose.isObject())
    {
        const Json::Value& rotation = pose["rotation"];
        const Json::Value& translation = pose["translation"];
        const char* axes[] = {"x", "y", "z", "w"};
        for (unsigned i = 0; i < 4; ++i)
        {
            scan.rotation[i] = numberOr(rotation.isObject() ? rotation[axes[i]] : Json::Value(), scan.rotation[i]);
        }
        for (unsigned i = 0; i < 3; ++i)
        {
            scan.translation[i] = numberOr(translation.isObject() ? translation[axes[i]] : Json::Value(), 0.0);
        }
    }
    return true;
}

// The array `key` of the comment; null when there is none.
Json::Value arrayMember(const std::string& commentText, const char* key)
{
    Json::Value comment;
    if (!parseJsonObject(commentText, comment) || !comment[key].isArray())
    {
        return Json::Value();
    }
    return comment[key];
}

}  // namespace

std::vector<ScanInfo> parseScanInfos(const std::string& comment, const LogFunction& logError)
{
    std::vector<ScanInfo> scans;
    const Json::Value members = arrayMember(comment, "scan-info");
    for (const Json::Value& member : members)
    {
        ScanInfo scan;
        if (readScanInfo(member, scan))
        {
            scans.push_back(std::move(scan));
        }
        else
        {
            reportTo(logError, kMissingIndex);
        }
    }
    return scans;
}

std::vector<InputInfo> parseInputInfos(const std::string& comment, const LogFunction& logError)
{
    std::vector<InputInfo> inputs;
    const Json::Value members = arrayMember(comment, "input-info");
    for (const Json::Value& member : members)
    {
        if (!member.isObject())
        {
            reportTo(logError, kMissingIndex);
            continue;
        }
        InputInfo input;
        input.inputFileId = member["input-file-id"].isIntegral() ? member["input-file-id"].asInt64() : 0;
        const Json::Value& e57 = member["e57-scan-info"];
        if (!e57.isNull())
        {
            ScanInfo scan;
            if (!readScanInfo(e57, scan))
            {
                reportTo(logError, kMissingIndex);
                continue;
            }
            input.e57ScanInfo = std::move(scan);
        }
        inputs.push_back(std::move(input));
    }
    return inputs;
}

}  // namespace HSPC
