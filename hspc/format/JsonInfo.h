// The JSON text a client hands to a conversion (meta data, "attribute-description") and that ends up in the
// data set's info file. Kept as text so that the engine's public headers need no JSON library.
#pragma once

#include <cstdint>
#include <string>

namespace HSPC
{

class JsonInfo
{
public:
    JsonInfo() = default;
    explicit JsonInfo(std::string text) : m_text(std::move(text)) {}

    // Each add parses the current text, sets one member of its root object and writes the text back. It
    // fails, leaving the text as it was, for an empty key or when the text is not a JSON object. An empty
    // text counts as an empty object.
    bool add(const std::string& key, const std::string& value);
    bool add(const std::string& key, const char* value) { return add(key, std::string(value)); }
    bool add(const std::string& key, double value);
    bool add(const std::string& key, int64_t value);
    bool add(const std::string& key, bool value);

    const std::string& text() const { return m_text; }

private:
    template <typename Value>
    bool addValue(const std::string& key, const Value& value);

    std::string m_text;
};

}  // namespace HSPC
