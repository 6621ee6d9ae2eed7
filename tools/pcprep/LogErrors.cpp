#include "pcprep/LogErrors.h"

#include <fstream>
#include <optional>

namespace pcprep
{

namespace
{

const std::string kHeldErrorsMarker = "After ERROR flag was raised:";
const std::string kDiskFigures = "Disk capacity  = ";

bool startsWith(const std::string& text, const std::string& start)
{
    return text.compare(0, start.size(), start) == 0;
}

// The text of a line that the logger began with its prefix "<time> - Mem(...) - <step> - "; nothing for a
// line that continues an entry.
std::optional<std::string> entryText(const std::string& line)
{
    const size_t memory = line.find(" - Mem(");
    if (memory == std::string::npos)
        return std::nullopt;
    const size_t memoryEnd = line.find(") - ", memory);
    if (memoryEnd == std::string::npos)
        return std::nullopt;
    const size_t stepEnd = line.find(" - ", memoryEnd + 4);
    if (stepEnd == std::string::npos)
        return std::nullopt;
    return line.substr(stepEnd + 3);
}

}  // namespace

std::vector<std::string> errorEntries(const std::filesystem::path& logFile)
{
    std::ifstream in(logFile);
    std::vector<std::string> entries;
    bool inHeldErrors = false;
    // Whether the lines that follow belong to the last entry taken.
    bool continuing = false;
    std::string line;
    while (std::getline(in, line))
    {
        if (line == kHeldErrorsMarker)
        {
            inHeldErrors = true;
            continuing = false;
            continue;
        }
        const std::optional<std::string> text = inHeldErrors ? std::nullopt : entryText(line);
        if (text)
        {
            continuing = startsWith(*text, "ERROR");
            if (continuing)
                entries.push_back(*text);
        }
        else if (inHeldErrors && startsWith(line, "ERROR"))
        {
            entries.push_back(line);
            continuing = true;
        }
        else if (inHeldErrors && startsWith(line, kDiskFigures))
            continuing = false;
        else if (continuing)
            entries.back() += "\n" + line;
    }
    // The logger closes each held error with a line end of its own.
    for (std::string& entry : entries)
        entry.erase(entry.find_last_not_of("\n\r\t ") + 1);
    return entries;
}

}  // namespace pcprep
