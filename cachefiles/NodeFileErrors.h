#pragma once

#include <stdexcept>
#include <string>

#include "cachefiles/FileDescriptor.h"

namespace pc_preprocess
{

// The fixed texts with which node-file operations fail. Paths appear in UTF-8.

// The extension of a path exactly as written: ".pnt" and ".PNT" differ.
std::string extensionOf(const std::wstring& path);
// Throws lead + the extension unless the path ends in wanted; lead is "ERROR PNT READER: Extension was " or
// the like.
void requireExtension(const std::wstring& path, const char* wanted, const std::string& lead);

// who + "Could not (fully) write " + path + "\nDisk full?", where who is "writeTuncatePNT : " and the like.
std::string writeFailureMessage(const std::string& who, const std::wstring& path);
// prefix + ": Could not open file" + path + "."
std::runtime_error openFailure(const std::string& prefix, const std::wstring& path);

// Runs a write and turns any failure of the file layer into the write failure message of who.
template <typename Write>
decltype(auto) reportWriteFailure(const std::string& who, const std::wstring& path, Write&& write)
{
    try
    {
        return write();
    }
    catch (const FileError&)
    {
        throw std::runtime_error(writeFailureMessage(who, path));
    }
}

}  // namespace pc_preprocess
