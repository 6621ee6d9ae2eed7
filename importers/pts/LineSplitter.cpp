#include "importers/pts/LineSplitter.h"

#include <algorithm>
#include <string_view>

// GCC 12 sees possibly uninitialized std::function members inside libstdc++'s regex automaton when it is
// instrumented for the sanitizers at -O1: a false alarm about the library's header, silenced for it alone.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include <regex>
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

#include "importers/text/NumberLine.h"

namespace pc_preprocess
{

struct LineSplitter::Expression
{
    std::regex regex;
};

namespace
{

// libstdc++ matches with a backtracking executor by default, which recurses once per repetition: a run of
// some hundred thousand delimiters in one line overflows the stack. The polynomial flag selects its
// breadth-first executor, whose depth does not grow with the input; it refuses back-references, which no
// delimiter needs.
constexpr auto kSyntax = std::regex::ECMAScript | std::regex_constants::__polynomial;

std::regex delimiterRuns(const std::string& delimiter)
{
    try
    {
        return std::regex(delimiter + "+", kSyntax);
    }
    catch (const std::regex_error& e)
    {
        throw InvalidDelimiter("The delimiter \"" + delimiter +
                               "\" is no valid regular expression: " + e.what());
    }
}

}  // namespace

LineSplitter::LineSplitter(const std::string& delimiter, const std::string& commentMarker)
    : m_expression(std::make_unique<Expression>(Expression{delimiterRuns(delimiter)})),
      m_commentMarker(commentMarker)
{
}

LineSplitter::~LineSplitter() = default;
LineSplitter::LineSplitter(LineSplitter&&) noexcept = default;
LineSplitter& LineSplitter::operator=(LineSplitter&&) noexcept = default;

void LineSplitter::split(const char* begin, const char* end, std::vector<std::string>& tokens,
                         size_t maxTokens) const
{
    tokens.clear();
    std::string_view line(begin, static_cast<size_t>(end - begin));
    if (!m_commentMarker.empty())
        line = line.substr(0, std::min(line.size(), line.find(m_commentMarker)));
    while (!line.empty() && isLineWhiteSpace(line.front()))
        line.remove_prefix(1);
    while (!line.empty() && isLineWhiteSpace(line.back()))
        line.remove_suffix(1);

    std::cregex_token_iterator piece(line.data(), line.data() + line.size(), m_expression->regex, -1);
    for (; piece != std::cregex_token_iterator() && tokens.size() < maxTokens; ++piece)
        tokens.emplace_back(piece->first, piece->second);
}

}  // namespace pc_preprocess
