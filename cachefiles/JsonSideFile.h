#pragma once

#include <json/value.h>

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

// Parses a whole JSON file of at most 64 MiB. Throws "<reader> : Could not read <path> (<reason>)" and
// "<reader> : <path> is not a JSON file: <reason>".
Json::Value readJsonFile(const std::wstring& path, const std::string& reader);

}  // namespace pc_preprocess
