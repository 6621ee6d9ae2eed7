#pragma once

#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

namespace pcprep
{

using Arguments = std::vector<std::string>;
class ParsedArguments;

// One sub-command of the tool: its name, a one-line summary for the overview, the full usage text, and what
// it does. `run` returns the process exit code; it throws UsageError for wrong arguments and anything else
// for a failure of the job.
struct Command
{
    const char* name;
    const char* summary;
    const char* usage;
    int (*run)(const Arguments& arguments);
};

struct UsageError : std::runtime_error
{
    using std::runtime_error::runtime_error;
};

int runInfo(const Arguments& arguments);
int runRun(const Arguments& arguments);
int runExport(const Arguments& arguments);
// The part of `export` that writes the points of a query of an HSPC data set to OUT.pts or OUT.laz.
int exportHspcDataSet(const std::filesystem::path& source, const std::filesystem::path& target,
                      const ParsedArguments& parsed);
// The part of `info` that describes a cache folder.
int describeCacheFolder(const std::filesystem::path& folder);
// The parts of `info` and `verify` that describe and check an HSPC data set.
int describeHspcDataSet(const std::filesystem::path& argument);
int verifyHspcDataSet(const std::filesystem::path& argument);
int runSample(const Arguments& arguments);
int runCompress(const Arguments& arguments);
int runDecompress(const Arguments& arguments);
int runVerify(const Arguments& arguments);
// Joining aligned HSPC data sets.
int runMerge(const Arguments& arguments);

}  // namespace pcprep
