#include "hspc/convert/FailureReport.h"

#include <algorithm>

namespace HSPC
{

std::vector<std::string> failureReport(const std::string& conversionName, ConversionFailures failures,
                                       int64_t startSeconds)
{
    std::vector<std::string> lines;
    if (failures.empty())
    {
        return lines;
    }
    lines.push_back(conversionName + " conversion failed. Number of failures: " + std::to_string(failures.size()));
    // Threads record failures as they happen; listed by time, the first line is usually the cause and the
    // rest its consequences.
    std::stable_sort(failures.begin(), failures.end(),
                     [](const ConversionFailure& a, const ConversionFailure& b) { return a.time < b.time; });
    for (size_t number = 0; number < failures.size(); ++number)
    {
        lines.push_back("Failure # " + std::to_string(number) + " : message=" + failures[number].message +
                        " : time=" + std::to_string(failures[number].time - startSeconds));
    }
    return lines;
}

}  // namespace HSPC
