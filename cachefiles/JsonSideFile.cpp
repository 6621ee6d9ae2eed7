#include "cachefiles/JsonSideFile.h"

#include <json/reader.h>
#include <json/writer.h>

#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

#include "cachefiles/FileDescriptor.h"
#include "cachefiles/FileWriter.h"
#include "cachefiles/MappedFile.h"
#include "core/StringConversion.h"
#include "core/StringPathConvertor.h"

namespace pc_preprocess
{

namespace
{

// Far above any real side file (a scan position takes some hundred bytes), and a bound on what the parser
// allocates for a file that is not one.
constexpr size_t kMaxJsonFileSize = size_t(64) << 20;

}  // namespace

void requireJsonFileExtension(const std::wstring& path, const std::string& extension)
{
    if (toPath(path).extension().string() != extension)
        throw std::runtime_error("Expected *" + extension + " filename; received " + ws2s(path) + "\n");
}

std::filesystem::path requireExistingParentFolder(const std::wstring& path)
{
    std::filesystem::path folder = toPath(path).parent_path();
    if (folder.empty())
        folder = ".";
    const StringPathConvertor convertor(toWide(folder));
    if (convertor.convertedInputPath().empty())
        throw std::runtime_error("Cannot convert path " + folder.string());
    return folder;
}

void writeCompactJson(const Json::Value& root, const std::wstring& path, const std::string& writer)
{
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";  // also drops the blanks around ':'
    builder["emitUTF8"] = true;   // names as UTF-8 rather than \u escapes
    const std::string text = Json::writeString(builder, root);
    try
    {
        writeWholeFile(toPath(path), std::span(reinterpret_cast<const uint8_t*>(text.data()), text.size()));
    }
    catch (const FileError&)
    {
        throw std::runtime_error(writer + " : Could not (fully) write " + ws2s(path) + "\nDisk full?");
    }
}

Json::Value readJsonFile(const std::wstring& path, const std::string& reader)
{
    MappedFile file;
    try
    {
        file = MappedFile::openReadOnly(toPath(path));
    }
    catch (const FileError& e)
    {
        throw std::runtime_error(reader + " : Could not read " + ws2s(path) + " (" + e.what() + ")");
    }
    const std::span<const uint8_t> bytes = file.bytes();
    if (bytes.size() > kMaxJsonFileSize)
        throw std::runtime_error(reader + " : " + ws2s(path) +
                                 " is not a JSON file: " + std::to_string(bytes.size()) + " bytes");
    Json::CharReaderBuilder builder;
    builder["collectComments"] = false;
    builder["failIfExtra"] = true;
    const std::unique_ptr<Json::CharReader> parser(builder.newCharReader());
    const char* begin = reinterpret_cast<const char*>(bytes.data());
    Json::Value root;
    std::string errors;
    bool parsed = false;
    try
    {
        parsed = parser->parse(begin, begin + bytes.size(), &root, &errors);
    }
    catch (const Json::Exception& e)
    {
        // Nesting deeper than the parser's stack limit ends in an exception rather than a false.
        errors = e.what();
    }
    if (!parsed)
        throw std::runtime_error(reader + " : " + ws2s(path) + " is not a JSON file: " + errors);
    return root;
}

JsonFieldReader::JsonFieldReader(std::string reader, const std::wstring& path, std::string kind)
    : m_reader(std::move(reader)), m_file(path), m_path(ws2s(path)), m_kind(std::move(kind))
{
}

Json::Value JsonFieldReader::readObject() const
{
    Json::Value root = readJsonFile(m_file, m_reader);
    if (!root.isObject())
        fail("no object at the top");
    return root;
}

JsonFieldReader JsonFieldReader::within(const std::string& context) const
{
    JsonFieldReader inner = *this;
    inner.m_context = context;
    return inner;
}

void JsonFieldReader::fail(const std::string& reason) const
{
    throw std::runtime_error(m_reader + " : " + m_path + " is not a " + m_kind +
                             " file: " + (m_context.empty() ? reason : m_context + ": " + reason));
}

const Json::Value& JsonFieldReader::member(const Json::Value& object, const char* key, Check isOfType) const
{
    const Json::Value* value = object.find(key, key + std::char_traits<char>::length(key));
    if (value == nullptr || !(value->*isOfType)())
        fail(std::string("\"") + key + "\" is missing or of the wrong type");
    return *value;
}

}  // namespace pc_preprocess
