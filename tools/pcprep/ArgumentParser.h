#pragma once

#include <cstdint>
#include <initializer_list>
#include <map>
#include <string>
#include <vector>

#include "pcprep/Command.h"

namespace pcprep
{

struct KnownOption
{
    const char* name;  // with its dashes: "--points"
    bool takesValue;
};

// Positional arguments and "--name [value]" options of one command, checked against what the command knows.
class ParsedArguments
{
public:
    ParsedArguments(const Arguments& arguments, std::initializer_list<KnownOption> known);

    const std::vector<std::string>& positional() const { return m_positional; }
    // The positional arguments must number exactly `count`; names them in the error otherwise.
    void expectPositional(size_t count, const char* what) const;

    bool has(const std::string& option) const { return m_options.count(option) != 0; }
    uint64_t number(const std::string& option, uint64_t fallback) const;
    std::string text(const std::string& option, const std::string& fallback) const;
    // "--threads N": the worker count of a job, 1 or more; all hardware threads without the option.
    unsigned threadCount() const;

private:
    std::vector<std::string> m_positional;
    std::map<std::string, std::string> m_options;
};

}  // namespace pcprep
