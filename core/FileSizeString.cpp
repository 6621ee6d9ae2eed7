#include "core/FileSizeString.h"

#include <cstdio>

namespace pc_preprocess
{

std::string getFileSizePrettyString(const uint64_t& bytes)
{
    static const char* const kUnits[] = {"B", "KB", "MB", "GB", "TB"};
    double value = double(bytes);
    int unit = 0;
    while (value >= 1024.0 && unit < 4)
    {
        value *= 1.0 / 1024.0;
        ++unit;
    }
    char text[64];
    std::snprintf(text, sizeof text, "%.2f%s", value, kUnits[unit]);
    return text;
}

}  // namespace pc_preprocess
