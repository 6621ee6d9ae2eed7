#include "services/DiskSpaceReport.h"

#include <time.h>

#include <cmath>
#include <cstdarg>
#include <cwchar>
#include <vector>

#include "core/StringConversion.h"
#include "services/Translate.h"

namespace pc_preprocess
{

namespace
{

// A translated format applied to wide arguments: "%ls" takes the wide sizes as they are, without any trip
// through the C locale.
std::wstring formatTranslated(const char* english, ...)
{
    const std::wstring format = s2ws(translate(english));
    std::vector<wchar_t> buffer(256);
    for (;;)
    {
        va_list arguments;
        va_start(arguments, english);
        const int written = std::vswprintf(buffer.data(), buffer.size(), format.c_str(), arguments);
        va_end(arguments);
        // vswprintf tells that the text did not fit, not how long it is: grow until it fits. A catalogue
        // format that cannot be formatted at all ends the growth and stands as it is.
        if (written >= 0)
            return std::wstring(buffer.data(), size_t(written));
        if (buffer.size() >= 65536)
            return format;
        buffer.resize(buffer.size() * 4);
    }
}

std::wstring localTimeStamp()
{
    const time_t now = time(nullptr);
    tm local{};
    char text[64] = {};
    if (localtime_r(&now, &local) == nullptr || strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local) == 0)
        return L"?";
    return s2ws(text);
}

}  // namespace

std::wstring prettyDiskSize(uint64_t bytes)
{
    static const char* const kUnits[] = {"B", "KB", "MB", "GB", "TB", "PB", "EB"};
    constexpr size_t kLargest = sizeof kUnits / sizeof kUnits[0] - 1;
    double value = double(bytes);
    size_t unit = 0;
    while (value >= 1024.0 && unit < kLargest)
    {
        value /= 1024.0;
        ++unit;
    }
    const std::wstring unitName = s2ws(translate(kUnits[unit]));
    wchar_t text[64];
    // Below 1024 in every unit but the last, and below 16 in that one: an int holds any whole value.
    if (value == std::floor(value))
        std::swprintf(text, 64, L"%d %ls", int(value), unitName.c_str());
    else
        std::swprintf(text, 64, L"%.1f %ls", value, unitName.c_str());
    return text;
}

std::wstring diskSpaceReport(uint64_t capacity, uint64_t available, uint64_t warningLevel,
                             uint64_t alertLevel)
{
    const int percent = int(std::lround(100.0 * double(available) / double(capacity)));
    const std::wstring availableText = prettyDiskSize(available);
    std::wstring report = formatTranslated("\n\nAvailable disk space is %ls or %d%% of total capacity",
                                           availableText.c_str(), percent);
    if (available < alertLevel)
        report += formatTranslated(
            "\nALERT: available disk space lower than %ls \nPreprocessing will be cancelled now!\n",
            prettyDiskSize(alertLevel).c_str());
    else if (available < warningLevel)
        report += formatTranslated(
            "\nWARNING: available disk space lower than %ls \nPreprocessing might fail. "
            "Consider freeing up more disk space.",
            prettyDiskSize(warningLevel).c_str());
    report += formatTranslated(
        "\n\tTime stamp : %ls \n\tDisk capacity : %ls \t available: %ls \n\tPercent available : %d%%\n\n",
        localTimeStamp().c_str(), prettyDiskSize(capacity).c_str(), availableText.c_str(), percent);
    return report;
}

}  // namespace pc_preprocess
