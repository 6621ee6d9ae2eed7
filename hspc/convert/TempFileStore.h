// Where a conversion puts its temporary files. The stages write and delete through this one seam, so that a
// test can make the k-th write fail the way a full disk does, without filling a disk.
#pragma once

#include <cstdint>
#include <string>

namespace HSPC
{

class TempFileStore
{
public:
    enum class WriteResult
    {
        kWritten,
        kOpenFailed,
        kWriteFailed,
    };

    virtual ~TempFileStore();
    // Writes `size` bytes as the whole content of the file `path` (UTF-8). A failed write leaves no file.
    virtual WriteResult write(const std::string& path, const uint8_t* data, uint64_t size);
    // Deletes `path`; true when the file is gone, also when it never existed.
    virtual bool remove(const std::string& path);
};

}  // namespace HSPC
