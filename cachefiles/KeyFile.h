#pragma once

#include <cstdint>
#include <string>

#include "core/Export.h"

namespace pc_preprocess
{

// The key file marks a folder as a cache. Plain text, no line end after the size:
//
//   <cache name, UTF-8>\n<size of the cache folder in bytes, decimal>
//
// A run writes it with size 0 before anything else and the real size as its very last step, so a size of 0
// tells a reader that the cache is not complete.

// Writes the key file, truncating it. Throws "writeKeyFile : Could not open ofstream to <path>" and
// "writeKeyFile : Could not (fully) write <path>\nDisk full?".
PCP_API bool writeKeyFile(const std::wstring& keyFile, const std::wstring& name, uint64_t size);
PCP_API bool initEmptyKeyFile(const std::wstring& keyFile, const std::wstring& name);
// Writes the size of the key file's folder into it, if the folder holds a tree (see checkSubFolderItem);
// otherwise false, and the key file stays as it was.
PCP_API bool finishKeyFile(const std::wstring& keyFile, const std::wstring& name);

struct KeyFileContent
{
    std::wstring name;
    uint64_t size = 0;
    bool complete() const { return size > 0; }
};

// Throws "readKeyFile : Could not read <path> (<reason>)" or
// "readKeyFile : <path> is not a key file: <reason>".
PCP_API KeyFileContent readKeyFile(const std::wstring& keyFile);

}  // namespace pc_preprocess
