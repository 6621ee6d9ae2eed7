// The HSPC engine reports through function objects that its caller may replace; these are the defaults that
// print to the standard streams when nobody does.
#pragma once

#include <functional>
#include <string>

namespace HSPC
{

using LogFunction = std::function<void(const std::string& message)>;
using ProgressFunction = std::function<void(int percent, const std::string& message)>;

// Passes `message` to `logger` when there is one: callers may leave a logger empty to silence it.
void reportTo(const LogFunction& logger, const std::string& message);

// Conversion and import: information and progress on standard output, warnings and errors on standard error.
void printInfo(const std::string& message);
void printWarning(const std::string& message);
void printError(const std::string& message);
void printProgress(int percent, const std::string& message);

// Queries run beside an interactive client, so every line is flushed at once.
void printQueryInfo(const std::string& message);
void printQueryWarning(const std::string& message);
void printQueryError(const std::string& message);

}  // namespace HSPC
