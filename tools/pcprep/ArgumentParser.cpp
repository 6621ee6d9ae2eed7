#include "pcprep/ArgumentParser.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <thread>

namespace pcprep
{

ParsedArguments::ParsedArguments(const Arguments& arguments, std::initializer_list<KnownOption> known)
{
    for (size_t i = 0; i < arguments.size(); ++i)
    {
        const std::string& argument = arguments[i];
        if (argument.size() < 2 || argument.compare(0, 2, "--") != 0)
        {
            m_positional.push_back(argument);
            continue;
        }
        const KnownOption* option = nullptr;
        for (const KnownOption& candidate : known)
            if (argument == candidate.name)
                option = &candidate;
        if (option == nullptr)
            throw UsageError("unknown option " + argument);
        if (!option->takesValue)
        {
            m_options[argument] = "";
            continue;
        }
        if (i + 1 == arguments.size())
            throw UsageError("option " + argument + " needs a value");
        m_options[argument] = arguments[++i];
    }
}

void ParsedArguments::expectPositional(size_t count, const char* what) const
{
    if (m_positional.size() != count)
        throw UsageError(std::string("expected ") + what);
}

std::string ParsedArguments::text(const std::string& option, const std::string& fallback) const
{
    const auto found = m_options.find(option);
    return found == m_options.end() ? fallback : found->second;
}

uint64_t ParsedArguments::number(const std::string& option, uint64_t fallback) const
{
    const auto found = m_options.find(option);
    if (found == m_options.end())
        return fallback;
    const std::string& text = found->second;
    char* end = nullptr;
    errno = 0;
    const unsigned long long value = std::strtoull(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || errno == ERANGE || text[0] == '-')
        throw UsageError("option " + option + " needs a whole number, not '" + text + "'");
    return value;
}

unsigned ParsedArguments::threadCount() const
{
    const uint64_t threads = number("--threads", std::max(1u, std::thread::hardware_concurrency()));
    if (threads == 0 || threads > UINT_MAX)
        throw UsageError("--threads needs at least 1");
    return static_cast<unsigned>(threads);
}

}  // namespace pcprep
