// The byte store under a pack archive: a file on disk, or bytes in memory. The archive code reads and writes
// through this interface only, so an archive can be checked without a disk and a failing store can be
// substituted in tests.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "hspc/format/FileHandler.h"

namespace HSPC
{

namespace pack
{

enum class FileMode : uint8_t
{
    kRead = 0,    // "rb": an existing archive, read only
    kUpdate = 1,  // "rb+": an existing archive, read and extended; a missing file is a failure
    kCreate = 2,  // "wb+": a new, empty archive, replacing any file of that name
};

class ArchiveInterface
{
public:
    virtual ~ArchiveInterface() = default;
    // Each returns the bytes moved: all of `size`, or 0 when the store is not open or the transfer failed.
    virtual uint64_t Read(void* buffer, uint64_t offset, uint64_t size) = 0;
    virtual uint64_t Write(const void* buffer, uint64_t offset, uint64_t size) = 0;
    // The store's size in bytes; 0 when it is not open.
    virtual uint64_t GetArchiveSize() = 0;
    // Cuts the store to `size` bytes or extends it with zeros.
    virtual bool Truncate(uint64_t size) = 0;

    virtual std::string filename() const = 0;
    virtual bool isValid() const = 0;
    virtual FileMode mode() const = 0;
    // Why the store stopped being valid; empty while it is.
    virtual std::string lastError() const = 0;
};

}  // namespace pack

// A pack archive on disk. A failed or short transfer marks it invalid for good: after a failed write the file
// no longer matches what the archive believes it holds.
class FileInterface : public pack::ArchiveInterface
{
public:
    // `path` is UTF-8.
    FileInterface(const std::string& path, pack::FileMode mode);
    FileInterface(const std::wstring& path, pack::FileMode mode);

    uint64_t Read(void* buffer, uint64_t offset, uint64_t size) override;
    uint64_t Write(const void* buffer, uint64_t offset, uint64_t size) override;
    uint64_t GetArchiveSize() override;
    bool Truncate(uint64_t size) override;

    std::string filename() const override { return m_file.path(); }
    bool isValid() const override { return m_valid; }
    pack::FileMode mode() const override { return m_mode; }
    std::string lastError() const override { return m_valid ? std::string() : m_file.lastErrorDetail(); }

    // Closes the file in hand and opens `path` in `mode`; false when that failed.
    bool openFile(const std::string& path, pack::FileMode mode);

private:
    bool succeeded(bool done);

    FileHandler m_file;
    pack::FileMode m_mode;
    bool m_valid = false;
};

// A pack archive held in memory, e.g. one a host hands over whole.
class MemoryArchive : public pack::ArchiveInterface
{
public:
    explicit MemoryArchive(std::vector<uint8_t> bytes = {}, pack::FileMode mode = pack::FileMode::kRead);

    uint64_t Read(void* buffer, uint64_t offset, uint64_t size) override;
    uint64_t Write(const void* buffer, uint64_t offset, uint64_t size) override;
    uint64_t GetArchiveSize() override { return m_bytes.size(); }
    bool Truncate(uint64_t size) override;

    std::string filename() const override { return "memory-archive"; }
    bool isValid() const override { return true; }
    pack::FileMode mode() const override { return m_mode; }
    std::string lastError() const override { return {}; }

    const std::vector<uint8_t>& bytes() const { return m_bytes; }

private:
    std::vector<uint8_t> m_bytes;
    pack::FileMode m_mode;
};

}  // namespace HSPC
