#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace pcprep
{

// The ERROR entries of a run's log, each with the lines that belong to it, in the order of the log: why a run
// failed, the reasons of inputs that the probe could not open among them. Entries come in two forms:
//   - a line "<time> - <memory> - <step> - ERROR...", with the lines that follow it up to the next such line;
//     the probe writes its failures so;
//   - after "After ERROR flag was raised:", the errors that the run held, each from its line beginning with
//     "ERROR" up to the next one or to the disk figures ("Disk capacity  = ...") that the cleaning adds.
std::vector<std::string> errorEntries(const std::filesystem::path& logFile);

}  // namespace pcprep
