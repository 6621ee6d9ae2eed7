#pragma once

#include <cstddef>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace pc_preprocess
{

// A delimiter from which no regular expression can be built.
class InvalidDelimiter : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

// Splits a line of a text point file into its text tokens, for format detection and previews: the line is cut
// at the comment marker, trimmed, and split at every run of the delimiter, a regular expression fragment.
// Data lines never come here; they have their own grammars.
class LineSplitter
{
public:
    // Throws InvalidDelimiter when delimiter + "+" is no valid regular expression.
    LineSplitter(const std::string& delimiter, const std::string& commentMarker);
    ~LineSplitter();
    LineSplitter(LineSplitter&&) noexcept;
    LineSplitter& operator=(LineSplitter&&) noexcept;

    // The first maxTokens tokens of [begin, end), replacing what `tokens` held. A line without a delimiter is
    // one token, an empty one none; an empty piece before the first delimiter counts, one after the last does
    // not. The limit bounds the memory a line of a million tokens could take.
    void split(const char* begin, const char* end, std::vector<std::string>& tokens, size_t maxTokens) const;

private:
    // The compiled expression, kept out of this header so that <regex> stays in one translation unit.
    struct Expression;
    std::unique_ptr<Expression> m_expression;
    std::string m_commentMarker;
};

}  // namespace pc_preprocess
