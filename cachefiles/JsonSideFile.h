#pragma once

#include <json/value.h>

#include <array>
#include <cstddef>
#include <filesystem>
#include <string>

namespace pc_preprocess
{

// What the JSON side files of a cache (scan positions, regions, the tree) share: they are compact (no white
// space), UTF-8, and written in one go, so that a file is either whole or reported as not fully written.

// Throws "Expected *<extension> filename; received <path>\n" unless path ends in extension.
void requireJsonFileExtension(const std::wstring& path, const std::string& extension);

// The folder that path lies in; throws "Cannot convert path <folder>" when it does not exist.
std::filesystem::path requireExistingParentFolder(const std::wstring& path);

// Throws "<writer> : Could not (fully) write <path>\nDisk full?" on any failure of the file.
void writeCompactJson(const Json::Value& root, const std::wstring& path, const std::string& writer);

// Parses a whole JSON file of at most 64 MiB, nested at most 1000 levels deep. Throws
// "<reader> : Could not read <path> (<reason>)" and "<reader> : <path> is not a JSON file: <reason>".
Json::Value readJsonFile(const std::wstring& path, const std::string& reader);

// Takes the values out of a parsed side file, each checked for its type, so that a damaged file gives a
// message naming the file and what is wrong in it, never a wrong value. Every failure reads
// "<reader> : <path> is not a <kind> file: <reason>", the reason prefixed by the context where one is set.
class JsonFieldReader
{
public:
    JsonFieldReader(std::string reader, const std::wstring& path, std::string kind);

    // Parses the file (see readJsonFile), which must hold one object: "no object at the top" otherwise.
    Json::Value readObject() const;

    // The same reader, its failures prefixed by "<context>: ", e.g. the part of the file being read.
    JsonFieldReader within(const std::string& context) const;

    [[noreturn]] void fail(const std::string& reason) const;

    using Check = bool (Json::Value::*)() const;
    // The member key of object, which must pass the check: "\"<key>\" is missing or of the wrong type".
    const Json::Value& member(const Json::Value& object, const char* key, Check isOfType) const;

    // The member key of object as an array of exactly N numbers.
    template <size_t N>
    std::array<double, N> doubles(const Json::Value& object, const char* key) const
    {
        const Json::Value& array = member(object, key, &Json::Value::isArray);
        if (array.size() != N)
            fail(std::string("\"") + key + "\" does not hold " + std::to_string(N) + " numbers");
        std::array<double, N> values{};
        for (Json::ArrayIndex i = 0; i < N; ++i)
        {
            if (!array[i].isNumeric())
                fail(std::string("\"") + key + "\" holds something other than a number");
            values[i] = array[i].asDouble();
        }
        return values;
    }

private:
    std::string m_reader;
    std::wstring m_file;
    std::string m_path;
    std::string m_kind;
    std::string m_context;
};

}  // namespace pc_preprocess
